// The encoder thread and the feeder, on real files through the real writer.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <thread>

#include <opencv2/imgproc.hpp>

#include "encode/ffmpegencode.h"
#include "encode/videodatathread.h"
#include "media/frameconverter.h"
#include "support/mediareader.h"
#include "support/testutil.h"
#include "syntheticcamera.h"

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;

namespace {

constexpr int kW = 160, kH = 128;

// A mono S16 block of `samples` samples from sample `first` on, captured on a card with
// an exact clock at the encoder's default rate.
AudioBlock audioBlock(int samples, long first)
{
    // samples, frames, channels, rate, capture time, rate ratio, continues
    return {std::vector<int16_t>(size_t(samples), 3000), samples, 1, 44100, double(first) / 44100,
            1.0, first > 0};
}

// The synthetic camera's frame `i`, its number readable from the decoded picture.
cv::Mat numbered(long i)
{
    return SyntheticCamera::makeFrame(kW, kH, i, 0);
}

class PipelineTest : public ::testing::Test
{
protected:
    // Sets the encoder up to write `name` in the test's directory.
    void configure(const char *name, bool video, bool audio, unsigned fps = 20)
    {
        file = dir.file(name);
        e.setWidth(kW);
        e.setHeight(kH);
        e.setFps(fps);
        e.setVideo_path(QString::fromStdString(file));
        e.setRecVideo(video);
        e.setRecAudio(audio);
    }

    // Starts the encoder, runs `body` once the output is open, finishes the file; what
    // was printed.
    std::string record(const std::function<void()> &body = [] {})
    {
        const std::string out = testutil::captureStdout([&] {
            e.setRun(true);
            ASSERT_TRUE(testutil::pollUntil([&] { return e.isEncodeOpen() || e.openFailed(); }, 20s)
                        && e.isEncodeOpen());
            body();
            e.setRun(false);
            ASSERT_TRUE(testutil::pollUntil([&] { return e.isOver(); }, 60s));
        });
        if (HasFailure())
            std::fputs(out.c_str(), stdout); // with the failures printed while it was captured
        return out;
    }

    MediaFile read() const
    {
        MediaFile f;
        std::string err;
        EXPECT_TRUE(readMediaFile(file, f, &err)) << err;
        return f;
    }

    static std::vector<long> frameNumbers(const MediaFile &f)
    {
        std::vector<long> n;
        for (const cv::Mat &img : f.frames)
            n.push_back(SyntheticCamera::readFrameNumber(img));
        return n;
    }

    testutil::TempDir dir;
    std::string file;
    FFmpegEncode e;
};

// Flat patches along the top of a picture, on even pixels, in colours that no clipping
// hides: a conversion's range, coefficients or plane order shows in them.
const cv::Scalar kPatchColours[] = {{0, 0, 255}, {64, 128, 192}, {192, 64, 128}, {48, 48, 48},
                                    {200, 200, 200}};

cv::Rect patch(int width, int k)
{
    const int side = std::max(2, width / 8) & ~1;
    return cv::Rect(k * (side + 2), 0, side, side);
}

// A smooth texture (as a camera's picture is at the chroma's resolution) with the patches.
cv::Mat colourPatches(int width, int height, int seed)
{
    cv::Mat img = textureImage(width, height, seed);
    cv::GaussianBlur(img, img, cv::Size(0, 0), 3);
    for (int k = 0; k < int(std::size(kPatchColours)); ++k)
        img(patch(width, k)).setTo(kPatchColours[k]);
    return img;
}

// The largest difference of a patch's mean colour (inside its edge) from the reference's.
double worstPatchColour(const cv::Mat &decoded, const cv::Mat &reference)
{
    double worst = 0;
    for (int k = 0; k < int(std::size(kPatchColours)); ++k) {
        const cv::Rect inside = patch(decoded.cols, k) - cv::Point(-2, -2) - cv::Size(4, 4);
        const cv::Scalar d = cv::mean(decoded(inside)) - cv::mean(reference(inside));
        for (int c = 0; c < 3; ++c)
            worst = std::max(worst, std::abs(d[c]));
    }
    return worst;
}

} // namespace

TEST_F(PipelineTest, QueuedFramesKeepTheirPixelsAndPlacesAndAFullQueueKeepsTheNewest)
{
    configure("video.mp4", true, false); // the queue holds one second: 20 frames
    // Queued before the thread starts. Repeats of one picture, whose source changes after
    // the hand-over: the queued repeats must not see it.
    cv::Mat frame = numbered(0);
    e.addVideo(frame, 4);
    numbered(1).copyTo(frame);
    e.addVideo(frame, 1);
    // The feeder shares one converted picture across hand-overs, as a slow camera's frame
    // is handed over pass after pass.
    FrameConverter converter;
    const EncoderPicture shared = converter.convert(numbered(2), kW, kH);
    e.addVideoConverted(shared, 1, 5);
    e.addVideoConverted(shared, 2, 6);
    // Of the 30 frames queued, the oldest 19 and the newest stay.
    for (int i = 8; i < 30; ++i) {
        frame = numbered(i);
        e.addVideo(frame);
    }
    const std::string out = record([&] {
        // Twenty small frames encode in milliseconds; a writer that waits for sound that
        // never comes takes one frame per wake-up.
        ASSERT_TRUE(testutil::pollUntil([&] { return e.videoQueueCount() == 0; }, 1s))
            << e.videoQueueCount() << " frames still queued";
        frame = numbered(30);
        e.addVideo(frame);
    });
    EXPECT_NE(out.find("video writeer flush\n"), std::string::npos);
    const MediaFile f = read();
    ASSERT_EQ(frameNumbers(f), (std::vector<long>{0, 0, 0, 0, 1, 2, 2, 2, 8, 9, 10, 11, 12, 13,
                                                  14, 15, 16, 17, 18, 29, 30}));
    // Frame 29 is shown at 1.45 s, where it was due, not at 0.95 s: picture and sound
    // stay in step.
    const int64_t at = av_rescale_q(f.framePts[19] - f.framePts[0], f.video()->timeBase, {1, 20});
    EXPECT_EQ(at, 29);
}

TEST_F(PipelineTest, OnePictureSharedAcrossHandOversCountsItsBytesOnce)
{
    configure("unused.mp4", true, false, 60); // not started; the queue holds 60 frames
    // Counted per entry or per call, these would pass the byte bound and be dropped.
    FrameConverter converter;
    const EncoderPicture picture = converter.convert(cv::Mat(2160, 3840, CV_8UC3, cv::Scalar(1, 2, 3)),
                                                     3840, 2160);
    ASSERT_TRUE(picture);
    constexpr int kEntries = 30;
    ASSERT_GT(kEntries * size_t(picture->buf[0]->size), FFmpegEncode::kMaxQueuedVideoBytes);
    for (int i = 0; i < kEntries; ++i)
        e.addVideoConverted(picture, 1, i);
    EXPECT_EQ(e.videoQueueCount(), kEntries);
    EXPECT_EQ(e.droppedVideoFrames(), 0);
    e.addAudio(audioBlock(1024, 0)); // still queued at destruction: freed (LeakSanitizer)
}

TEST_F(PipelineTest, AudioOnlyWritesEveryBlockInTheContainersBlockSize)
{
    configure("sound.mp3", false, true);
    record([&] {
        ASSERT_EQ(e.audioFrameSize(), 1152); // MP3's, published with the open output
        for (int b = 0; b < 40; ++b) { // at a card's pace, the writer taking them meanwhile
            e.addAudio(audioBlock(1152, b * 1152L));
            std::this_thread::sleep_for(2ms);
        }
    });
    const MediaFile f = read();
    EXPECT_EQ(f.video(), nullptr);
    EXPECT_NEAR(double(f.samples.size()), 40.0 * 1152, 1152);
}

TEST_F(PipelineTest, TheFeederTakesTheNewestFrameOncePerPeriodOfTheClockAndNoneWhilePaused)
{
    configure("fast.mp4", true, false); // not started yet: hand-overs queue, 20 at most
    VideoDataThread feeder;
    long i = 0;
    // A 100 fps camera for `length` into the 20 fps recording.
    const auto feed = [&](std::chrono::milliseconds length) {
        for (const auto t0 = Clock::now(); Clock::now() - t0 < length; ++i) {
            cv::Mat frame = numbered(i);
            feeder.setData(frame);
            std::this_thread::sleep_for(10ms);
        }
    };
    feeder.setPause(true);
    feeder.start(&e);
    ASSERT_TRUE(testutil::pollUntil([&] { return feeder.isReady(); }, 5s));
    feed(300ms);
    const long lastPaused = i - 1;
    feeder.setPause(false);
    ASSERT_TRUE(testutil::pollUntil([&] { return e.videoQueueCount() > 0; }, 5s));
    const auto t0 = Clock::now(); // frame 0 of the run was handed over by now
    feed(800ms);
    feeder.stop();
    const double elapsed = std::chrono::duration<double>(Clock::now() - t0).count();
    ASSERT_TRUE(testutil::pollUntil([&] { return !feeder.isReady(); }, 2s));
    record();
    const std::vector<long> n = frameNumbers(read());
    // Frames 0 .. floor(elapsed x 20) are due: a late pass (a busy or sanitized machine)
    // catches up, and nothing is handed over while paused.
    ASSERT_NEAR(double(n.size()), std::floor(elapsed * 20) + 1, 1.5) << "after " << elapsed << " s";
    EXPECT_GE(n.front(), lastPaused);
    // Each the newest: about five camera frames apart, not the next one unused. (A camera
    // late on a busy machine may leave a period without a new one.)
    EXPECT_TRUE(std::is_sorted(n.begin(), n.end()));
    EXPECT_GT(n.back() - n.front(), 2 * long(n.size() - 1));
}

// An error on a worker thread (here a 3-D picture that cannot be converted) ends the
// recording with its reason instead of ending the process.
TEST_F(PipelineTest, AnErrorOnAWorkerThreadEndsTheRecordingWithItsReason)
{
    configure("error.mkv", true, false);
    VideoDataThread feeder;
    record([&] {
        const int sizes[] = {4, kH, kW};
        cv::Mat cube(3, sizes, CV_8UC3, cv::Scalar::all(9));
        feeder.setData(cube);
        feeder.start(&e);
        EXPECT_TRUE(testutil::pollUntil([&] { return e.recordingFailed(); }, 10s));
        feeder.stop();
    });
    EXPECT_TRUE(e.failure().startsWith(QStringLiteral("an internal error: "))) << qPrintable(e.failure());
}

TEST_F(PipelineTest, FramesOfEverySizeTheHostSwitchesToDecodeAsTheirOwnConversion)
{
    // Each camera frame is converted once, straight into a pooled frame, scaled in the same
    // pass: a converter kept for the wrong frame or size, a pooled buffer written again
    // while queued, or colours unlike swscale's BT.601 limited range (swapped planes, full
    // range) show as another picture. Sizes: larger twice (new content, same size),
    // smaller, the recording's own with padded rows.
    const std::vector<cv::Mat> host = {colourPatches(320, 256, 1), colourPatches(320, 256, 2),
                                       colourPatches(80, 64, 3),
                                       paddedCopy(colourPatches(kW, kH, 4), 7)};
    configure("switch.mkv", true, false, 30); // the queue (one second) keeps every hand-over
    e.setVideoBitrate(8000000);
    VideoDataThread feeder;
    feeder.start(&e);
    std::vector<cv::Mat> expected;
    for (cv::Mat frame : host) {
        feeder.setData(frame);
        // Two hand-overs that end after setData: the second read the slot after it.
        for (int i = 0; i < 2; ++i) {
            const int queued = e.videoQueueCount();
            ASSERT_TRUE(testutil::pollUntil([&] { return e.videoQueueCount() > queued; }, 5s));
        }
        expected.push_back(throughYuv420(frame, cv::Size(kW, kH)));
    }
    feeder.stop();
    ASSERT_TRUE(testutil::pollUntil([&] { return !feeder.isReady(); }, 2s));
    record();
    const MediaFile f = read();
    std::vector<int> seen(host.size());
    for (size_t i = 0; i < f.frames.size(); ++i) {
        std::vector<double> diff;
        for (const cv::Mat &ref : expected)
            diff.push_back(meanAbsDiff(f.frames[i], ref));
        const auto best = std::min_element(diff.begin(), diff.end());
        // Lossy coding at a high bit rate, and libyuv rounding a little unlike swscale
        // (about a level on a smooth picture); another picture differs by ten or more.
        EXPECT_LT(*best, 2.0) << "frame " << i << " is none of the host's";
        // Flat colours match swscale's within a level of Y, U and V each (the two round
        // differently), up to four in a channel after coding; a wrong range or plane order
        // is off by ten or more.
        EXPECT_LT(worstPatchColour(f.frames[i], expected[best - diff.begin()]), 5.0) << "frame " << i;
        ++seen[best - diff.begin()];
    }
    for (size_t k = 0; k < host.size(); ++k)
        EXPECT_GT(seen[k], 0) << "host frame " << k << " not in the file";
}
