// The encoder thread and the feeder, on real files through the real writer.
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <thread>
#include <vector>

#include <opencv2/imgproc.hpp>

#include "encode/ffmpegencode.h"
#include "encode/videodatathread.h"
#include "support/mediareader.h"
#include "support/qtmessages.h"
#include "support/testutil.h"
#include "syntheticcamera.h"

using namespace std::chrono_literals;

namespace {

constexpr int kW = 160, kH = 128;

// A mono S16 block of `samples` samples of a 1 kHz sine starting at `first`, captured
// on a card with an exact clock.
AudioBlock sineBlock(int samples, long first)
{
    AudioBlock block;
    block.frames = samples;
    block.channels = 1;
    block.rate = 48000;
    block.captureTime = double(first) / 48000;
    block.continues = first > 0;
    for (int i = 0; i < samples; ++i)
        block.samples.push_back(static_cast<int16_t>(10000 * std::sin(2 * M_PI * 1000.0 * (first + i) / 48000)));
    return block;
}

void configure(FFmpegEncode &e, const std::string &path, bool video, bool audio, unsigned fps = 20)
{
    e.setWidth(kW);
    e.setHeight(kH);
    e.setFps(fps);
    e.setVideoBitrate(1000000);
    e.setVideo_path(QString::fromStdString(path));
    e.setRecVideo(video);
    e.setRecAudio(audio);
    e.setAudioChannel(1);
    e.setaudioSampleRate(48000);
}

// Starts the encoder and waits for its output to open.
bool startAndOpen(FFmpegEncode &e)
{
    e.setRun(true);
    return testutil::pollUntil([&] { return e.isEncodeOpen() || e.isFailed(); }, 20s)
        && e.isEncodeOpen();
}

bool finish(FFmpegEncode &e)
{
    e.setRun(false);
    return testutil::pollUntil([&] { return e.isOver(); }, 60s);
}

MediaFile read(const std::string &path)
{
    MediaFile f;
    std::string err;
    EXPECT_TRUE(readMediaFile(path, f, &err)) << err;
    return f;
}

std::vector<long> frameNumbers(const MediaFile &f)
{
    std::vector<long> n;
    for (const cv::Mat &img : f.frames)
        n.push_back(SyntheticCamera::readFrameNumber(img));
    return n;
}

class PipelineTest : public ::testing::Test
{
protected:
    std::string path(const char *name) const { return dir.file(name); }
    testutil::TempDir dir;
};

} // namespace

TEST_F(PipelineTest, AFullQueueDropsFramesThatKeepTheirPlaceOnTheTimeline)
{
    FFmpegEncode e;
    configure(e, path("both.mp4"), true, true, 20); // the queue holds one second: 20 frames
    // Queued before the thread starts: 20 are kept, the newest among them, 10 dropped.
    for (int i = 0; i < 30; ++i) {
        cv::Mat frame = SyntheticCamera::makeFrame(kW, kH, i, 0);
        e.addVideo(frame);
    }
    for (int b = 0; b < 70; ++b)
        e.addAudio(sineBlock(1024, b * 1024L));
    EXPECT_EQ(e.videoQueueCount(), 20);
    EXPECT_EQ(e.droppedVideoFrames(), 10);
    QtMessageCollector log;
    std::string out = testutil::captureStdout([&] {
        ASSERT_TRUE(startAndOpen(e));
        ASSERT_TRUE(testutil::pollUntil([&] { return e.videoQueueCount() == 0; }, 20s));
        cv::Mat frame = SyntheticCamera::makeFrame(kW, kH, 30, 0);
        e.addVideo(frame);
        ASSERT_TRUE(finish(e));
    });
    EXPECT_NE(out.find("video writeer flush\n"), std::string::npos);
    EXPECT_FALSE(e.isEncodeOpen());
    EXPECT_EQ(e.audioQueueCount(), 0);
    EXPECT_EQ(e.videoQueueCount(), 0);
    EXPECT_EQ(log.count(QStringLiteral("10 video frames dropped: the encoder could not keep up")), 1)
        << qPrintable(log.messages().join('\n'));

    const MediaFile f = read(path("both.mp4"));
    const std::vector<long> n = frameNumbers(f);
    ASSERT_EQ(n.size(), 21u);
    for (long i = 0; i < 19; ++i)
        EXPECT_EQ(n[i], i);
    EXPECT_EQ(n[19], 29);
    EXPECT_EQ(n[20], 30);
    // Frame 29 is shown at 1.45 s, where it was due, not at 0.95 s: picture and sound
    // stay in step.
    ASSERT_NE(f.video(), nullptr);
    EXPECT_EQ(av_rescale_q(f.framePts[19] - f.framePts[0], f.video()->timeBase, AVRational{1, 20}), 29);
    EXPECT_NEAR(double(f.samples.size()), 70.0 * 1024, 1024);
    EXPECT_NEAR(dominantFrequency(f.samples, 1, 0, 48000), 1000.0, 5.0);
    // Packets of each stream come out in time order.
    for (const MediaStream &s : f.streams)
        EXPECT_TRUE(std::is_sorted(s.packetDts.begin(), s.packetDts.end()));
}

TEST_F(PipelineTest, RepeatsOfOnePictureShareItsPixelsAndAreAllWritten)
{
    FFmpegEncode e;
    configure(e, path("repeats.mp4"), true, false);
    cv::Mat frame = SyntheticCamera::makeFrame(kW, kH, 0, 0);
    e.addVideo(frame, 4);
    // The source changes after the hand-over: the queued repeats must not see it.
    SyntheticCamera::makeFrame(kW, kH, 1, 0).copyTo(frame);
    e.addVideo(frame, 1);
    // The feeder's hand-over shares one picture across calls, as a slow camera's frame is
    // handed over pass after pass.
    const cv::Mat shared = SyntheticCamera::makeFrame(kW, kH, 2, 0);
    e.addVideoShared(shared, 1, 5);
    e.addVideoShared(shared, 2, 6);
    EXPECT_EQ(e.videoQueueCount(), 8);
    QtMessageCollector log;
    testutil::captureStdout([&] {
        ASSERT_TRUE(startAndOpen(e));
        ASSERT_TRUE(finish(e));
    });
    EXPECT_EQ(frameNumbers(read(path("repeats.mp4"))), (std::vector<long>{0, 0, 0, 0, 1, 2, 2, 2}));
    // Eight frames queued, three pictures' worth of memory.
    const double pictureMiB = kW * kH * 3 / (1024.0 * 1024.0);
    EXPECT_EQ(log.count(QStringLiteral("encoder: at most 8 video frames (%1 MiB)")
                            .arg(3 * pictureMiB, 0, 'f', 1)),
              1)
        << qPrintable(log.messages().join('\n'));
}

TEST_F(PipelineTest, OnePictureSharedAcrossHandOversCountsItsBytesOnce)
{
    FFmpegEncode e; // not started: hand-overs just queue
    configure(e, path("unused.mp4"), true, false, 60); // the queue holds 60 frames
    // Counted per entry or per call, these would pass the byte bound and be dropped.
    const cv::Mat picture(1080, 1920, CV_8UC3, cv::Scalar(1, 2, 3));
    constexpr int kEntries = 50;
    ASSERT_GT(kEntries * picture.total() * picture.elemSize(), FFmpegEncode::kMaxQueuedVideoBytes);
    for (int i = 0; i < kEntries; ++i)
        e.addVideoShared(picture, 1, i);
    EXPECT_EQ(e.videoQueueCount(), kEntries);
    EXPECT_EQ(e.droppedVideoFrames(), 0);
}

TEST_F(PipelineTest, AudioOnlyWritesEveryBlockAndPrintsNoFlushLine)
{
    FFmpegEncode e;
    configure(e, path("audio.mp4"), false, true);
    std::string out = testutil::captureStdout([&] {
        ASSERT_TRUE(startAndOpen(e));
        for (int b = 0; b < 47; ++b)
            e.addAudio(sineBlock(e.audioFrameSize(), b * 1024L));
        ASSERT_TRUE(finish(e));
    });
    EXPECT_EQ(out.find("video writeer flush"), std::string::npos);
    const MediaFile f = read(path("audio.mp4"));
    EXPECT_EQ(f.video(), nullptr);
    EXPECT_NEAR(double(f.samples.size()), 47.0 * 1024, 1024);
}

TEST_F(PipelineTest, WithoutSoundEveryQueuedFrameIsWrittenAtOnce)
{
    FFmpegEncode e;
    configure(e, path("video.mp4"), true, false, 20);
    testutil::captureStdout([&] {
        ASSERT_TRUE(startAndOpen(e));
        for (int burst = 0; burst < 2; ++burst) {
            for (int i = 0; i < 20; ++i) {
                cv::Mat frame = SyntheticCamera::makeFrame(kW, kH, burst * 20 + i, 0);
                e.addVideo(frame);
                frame.setTo(cv::Scalar(0, 0, 0)); // the queue holds its own copy
            }
            // Twenty small frames encode in milliseconds; a writer that waits for sound
            // that never comes takes one frame per wake-up.
            ASSERT_TRUE(testutil::pollUntil([&] { return e.videoQueueCount() == 0; }, 1s))
                << e.videoQueueCount() << " frames still queued";
        }
        ASSERT_TRUE(finish(e));
    });
    const std::vector<long> n = frameNumbers(read(path("video.mp4")));
    ASSERT_EQ(n.size(), 40u);
    EXPECT_EQ(n.front(), 0);
    EXPECT_EQ(n.back(), 39);
    EXPECT_EQ(e.droppedVideoFrames(), 0);
}

TEST_F(PipelineTest, StoppingWithEmptyQueuesGivesACompleteEmptyFile)
{
    FFmpegEncode e;
    configure(e, path("empty.mp4"), true, true);
    testutil::captureStdout([&] {
        ASSERT_TRUE(startAndOpen(e));
        ASSERT_TRUE(finish(e));
    });
    MediaFile f;
    std::string err;
    EXPECT_TRUE(readMediaFile(path("empty.mp4"), f, &err)) << err;
    EXPECT_TRUE(f.frames.empty());
}

TEST_F(PipelineTest, AnUnwritablePathEndsTheThreadWithTheFailureVisible)
{
    FFmpegEncode e;
    configure(e, path("no-dir/x.mp4"), true, true);
    testutil::captureStdout([&] {
        e.setRun(true);
        ASSERT_TRUE(testutil::pollUntil([&] { return e.isFailed(); }, 20s));
    });
    EXPECT_FALSE(e.isEncodeOpen());
    EXPECT_FALSE(e.isOver());
    EXPECT_TRUE(testutil::pollUntil([&] { return e.isFinished(); }, 10s));
    // Hand-overs after the failure stay queued and are freed with the encoder (ASan).
    e.addAudio(sineBlock(1024, 0));
    cv::Mat frame = SyntheticCamera::makeFrame(kW, kH, 0, 0);
    e.addVideo(frame);
}

TEST_F(PipelineTest, TheBlockSizeIsPublishedWithTheOpenOutput)
{
    FFmpegEncode e;
    configure(e, path("sound.mp3"), false, true);
    EXPECT_EQ(e.audioFrameSize(), 1024);
    testutil::captureStdout([&] {
        ASSERT_TRUE(startAndOpen(e));
        EXPECT_EQ(e.audioFrameSize(), 1152); // MP3's frame
        ASSERT_TRUE(finish(e));
    });
}

TEST_F(PipelineTest, BlocksStillQueuedAtDestructionAreFreed)
{
    // Run under LeakSanitizer: a leak here is a failure.
    FFmpegEncode e;
    for (int i = 0; i < 5; ++i)
        e.addAudio(sineBlock(1024, 0));
    EXPECT_EQ(e.audioQueueCount(), 5);
}

TEST_F(PipelineTest, FeederRepeatsFramesOfASlowCameraAndKeepsTheNewestOfAFastOne)
{
    for (const bool fast : {false, true}) {
        FFmpegEncode e;
        const std::string file = path(fast ? "fast.mp4" : "slow.mp4");
        configure(e, file, true, false, 20);
        VideoDataThread feeder;
        std::chrono::steady_clock::time_point t0, t1;
        testutil::captureStdout([&] {
            ASSERT_TRUE(startAndOpen(e));
            cv::Mat first = SyntheticCamera::makeFrame(kW, kH, 0, 0);
            feeder.setData(first);
            feeder.start(&e);
            ASSERT_TRUE(testutil::pollUntil([&] { return feeder.isReady(); }, 5s));
            t0 = std::chrono::steady_clock::now();
            // 2 s of camera: 5 fps (slow) or 100 fps (fast) into a 20 fps recording.
            const auto period = fast ? 10ms : 200ms;
            for (long i = 1; std::chrono::steady_clock::now() - t0 < 2s; ++i) {
                std::this_thread::sleep_for(period);
                cv::Mat frame = SyntheticCamera::makeFrame(kW, kH, i, 0);
                feeder.setData(frame);
            }
            feeder.stop();
            ASSERT_TRUE(testutil::pollUntil([&] { return !feeder.isReady(); }, 2s));
            t1 = std::chrono::steady_clock::now();
            ASSERT_TRUE(finish(e));
        });
        const double seconds = std::chrono::duration<double>(t1 - t0).count();
        const std::vector<long> n = frameNumbers(read(file));
        // About one frame per period (generous: sanitizers and a busy machine).
        EXPECT_GT(double(n.size()), seconds * 20 * 0.6) << (fast ? "fast" : "slow");
        EXPECT_LT(double(n.size()), seconds * 20 * 1.2) << (fast ? "fast" : "slow");
        int repeats = 0, skips = 0;
        for (size_t i = 1; i < n.size(); ++i) {
            ASSERT_GE(n[i], n[i - 1]) << "frames out of order";
            repeats += n[i] == n[i - 1];
            skips += n[i] > n[i - 1] + 1;
        }
        if (fast) {
            EXPECT_EQ(repeats, 0);                     // each period has a newer frame
            EXPECT_GT(skips, int(n.size()) / 2);       // and the ones between are not used
        } else {
            EXPECT_GT(repeats, int(n.size()) / 2);     // each frame is handed over again
            EXPECT_EQ(skips, 0);
        }
    }
}

TEST_F(PipelineTest, FeederScalesToTheExactSizeWithNearestNeighbour)
{
    FFmpegEncode e;
    configure(e, path("scaled.mkv"), true, false, 20);
    e.setVideoBitrate(4000000);
    VideoDataThread feeder;
    // 40 x 32 source, four solid quadrants; the encoder's size is 160 x 128 (x4).
    cv::Mat src(32, 40, CV_8UC3);
    src(cv::Rect(0, 0, 20, 16)).setTo(cv::Scalar(0, 0, 255));
    src(cv::Rect(20, 0, 20, 16)).setTo(cv::Scalar(0, 255, 0));
    src(cv::Rect(0, 16, 20, 16)).setTo(cv::Scalar(255, 0, 0));
    src(cv::Rect(20, 16, 20, 16)).setTo(cv::Scalar(255, 255, 255));
    testutil::captureStdout([&] {
        ASSERT_TRUE(startAndOpen(e));
        feeder.setData(src);
        feeder.start(&e);
        ASSERT_TRUE(testutil::pollUntil([&] { return e.videoQueueCount() > 0 || !feeder.isReady(); }, 5s));
        std::this_thread::sleep_for(300ms);
        feeder.stop();
        ASSERT_TRUE(testutil::pollUntil([&] { return !feeder.isReady(); }, 2s));
        ASSERT_TRUE(finish(e));
    });
    const MediaFile f = read(path("scaled.mkv"));
    ASSERT_FALSE(f.frames.empty());
    const cv::Mat &img = f.frames.back();
    ASSERT_EQ(img.cols, kW);
    ASSERT_EQ(img.rows, kH);
    // Quadrant centres keep their colours, and the whole quadrants are solid.
    cv::Mat expected;
    cv::resize(src, expected, cv::Size(kW, kH), 0, 0, cv::INTER_NEAREST);
    EXPECT_LT(meanAbsDiff(img, expected), 6.0);
    const cv::Vec3b tl = img.at<cv::Vec3b>(32, 40), br = img.at<cv::Vec3b>(96, 120);
    EXPECT_GT(tl[2], 200);
    EXPECT_LT(tl[0], 60);
    EXPECT_GT(br[0], 200);
    EXPECT_GT(br[1], 200);
    EXPECT_GT(br[2], 200);
}

TEST_F(PipelineTest, FramesOfEverySizeTheHostSwitchesToDecodeAsTheirOwnConversion)
{
    // The feeder scales once per camera frame and the writer keeps its scaler: either kept
    // for the wrong frame or size, or a buffer written again while queued, shows as another
    // picture. Sizes: larger three times (new content, same size), smaller, the
    // recording's own, the same with padded rows.
    const std::vector<cv::Mat> host = {textureImage(320, 256, 1), textureImage(320, 256, 2),
                                       textureImage(320, 256, 3), textureImage(80, 64, 4),
                                       textureImage(kW, kH, 5),
                                       paddedCopy(textureImage(kW, kH, 6), 7)};
    FFmpegEncode e; // started after the hand-overs: the queue (one second) keeps them all
    configure(e, path("switch.mkv"), true, false, 30);
    e.setVideoBitrate(8000000);
    VideoDataThread feeder;
    feeder.start(&e);
    for (cv::Mat frame : host) {
        feeder.setData(frame);
        // Two hand-overs that end after setData: the second read the slot after it.
        for (int i = 0; i < 2; ++i) {
            const int queued = e.videoQueueCount();
            ASSERT_TRUE(testutil::pollUntil([&] { return e.videoQueueCount() > queued; }, 5s));
        }
    }
    feeder.stop();
    ASSERT_TRUE(testutil::pollUntil([&] { return !feeder.isReady(); }, 2s));
    ASSERT_EQ(e.droppedVideoFrames(), 0);
    testutil::captureStdout([&] {
        ASSERT_TRUE(startAndOpen(e));
        ASSERT_TRUE(finish(e));
    });

    std::vector<cv::Mat> expected;
    for (const cv::Mat &frame : host) {
        cv::Mat scaled;
        cv::resize(frame, scaled, cv::Size(kW, kH), 0, 0, cv::INTER_NEAREST);
        expected.push_back(throughYuv420(scaled));
    }
    const MediaFile f = read(path("switch.mkv"));
    ASSERT_GE(f.frames.size(), host.size());
    // Lossy coding at a high bit rate; another picture differs by tens.
    constexpr double kTolerance = 1.0;
    std::vector<int> seen(host.size());
    for (size_t i = 0; i < f.frames.size(); ++i) {
        std::vector<double> diff;
        for (const cv::Mat &ref : expected)
            diff.push_back(meanAbsDiff(f.frames[i], ref));
        const auto best = std::min_element(diff.begin(), diff.end());
        EXPECT_LT(*best, kTolerance) << "frame " << i << " is none of the host's";
        ++seen[best - diff.begin()];
    }
    for (size_t k = 0; k < host.size(); ++k)
        EXPECT_GT(seen[k], 0) << "host frame " << k << " not in the file";
}

TEST_F(PipelineTest, TheFeederHandsOverOneFramePerPeriodOfTheClock)
{
    // Real time, on a busy or sanitized machine: a late pass catches up, so the count
    // follows the clock, not the number of passes.
    FFmpegEncode e; // not started: hand-overs queue and can be counted
    configure(e, path("unused.mp4"), true, false, 30);
    VideoDataThread feeder;
    cv::Mat frame = SyntheticCamera::makeFrame(kW, kH, 1, 0);
    feeder.setData(frame);
    feeder.start(&e);
    ASSERT_TRUE(testutil::pollUntil([&] { return e.videoQueueCount() > 0; }, 5s));
    const auto t0 = std::chrono::steady_clock::now(); // frame 0 was handed over by now
    std::this_thread::sleep_for(2s);
    // Counted queued or dropped: the queue holds one second of frames.
    const int count = e.videoQueueCount() + int(e.droppedVideoFrames());
    const double elapsed = std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count();
    feeder.stop();
    // Frames 0 .. floor(elapsed x 30) are due; the feeder may be one pass behind.
    EXPECT_NEAR(count, std::floor(elapsed * 30) + 1, 1.5) << "after " << elapsed << " s";
}

TEST_F(PipelineTest, APausedFeederHandsNothingOverAndStopEndsItWithinAPeriod)
{
    FFmpegEncode e; // its thread is not started: hand-overs just queue
    configure(e, path("unused.mp4"), true, false, 20);
    VideoDataThread feeder;
    cv::Mat frame = SyntheticCamera::makeFrame(kW, kH, 1, 0);
    feeder.setData(frame);
    feeder.setPause(true);
    feeder.start(&e);
    ASSERT_TRUE(testutil::pollUntil([&] { return feeder.isReady(); }, 5s));
    std::this_thread::sleep_for(300ms); // six periods paused
    EXPECT_EQ(e.videoQueueCount(), 0);
    feeder.setPause(false);
    EXPECT_TRUE(testutil::pollUntil([&] { return e.videoQueueCount() >= 3; }, 5s));
    feeder.stop();
    EXPECT_TRUE(testutil::pollUntil([&] { return !feeder.isReady(); }, 1s));
}

TEST_F(PipelineTest, ProducersAndConsumerAtFullSpeedKeepTheLockOrder)
{
    // Run under the thread sanitizer: feeder (frame lock, then queue lock, never both), a
    // camera thread, an audio thread and the encoder thread all at full speed.
    FFmpegEncode e;
    configure(e, path("busy.mp4"), true, true, 240);
    VideoDataThread feeder;
    std::atomic<bool> go{true};
    long blocks = 0;
    testutil::captureStdout([&] {
        ASSERT_TRUE(startAndOpen(e));
        cv::Mat first = SyntheticCamera::makeFrame(kW, kH, 0, 0);
        feeder.setData(first);
        feeder.start(&e);
        std::thread camera([&] {
            for (long i = 1; go; ++i) {
                cv::Mat f = SyntheticCamera::makeFrame(kW / 2, kH / 2, i, 0); // scaled by the feeder
                feeder.setData(f);
            }
        });
        std::thread audio([&] {
            for (; go; ++blocks) {
                e.addAudio(sineBlock(1024, blocks * 1024));
                std::this_thread::sleep_for(2ms);
            }
        });
        std::this_thread::sleep_for(1500ms);
        go = false;
        camera.join();
        audio.join();
        feeder.stop();
        ASSERT_TRUE(testutil::pollUntil([&] { return !feeder.isReady(); }, 2s));
        ASSERT_TRUE(finish(e));
    });
    const MediaFile f = read(path("busy.mp4"));
    EXPECT_NEAR(double(f.samples.size()), double(blocks) * 1024, 1024);
    EXPECT_GT(f.frames.size(), 10u);
}
