// The media writer, judged by the files it writes: each is read back and decoded.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <filesystem>
#include <sys/stat.h>
#include <functional>

#include <QLoggingCategory>
#include <opencv2/imgproc.hpp>

#include "media/ffmpegapi.h"
#include "support/mediareader.h"
#include "support/qtmessages.h"
#include "support/testutil.h"

extern "C" {
#include <libavformat/avformat.h>
}

namespace {

// What open() is given, in the order the tests spell out the few they change.
struct WriterSettings {
    bool video = true, audio = true;
    int fps = 25, bitrate = 800000;
    int width = 160, height = 120;
    int channels = 1, rate = 48000;
};

// `frames` frames of interleaved S16: channel c carries a sine of freqs[c] Hz, continuing
// from frame `first`.
std::vector<int16_t> sineBlock(int frames, const std::vector<double> &freqs, int rate, long first)
{
    std::vector<int16_t> block(size_t(frames) * freqs.size());
    for (size_t i = 0; i < block.size(); ++i) {
        const double t = double(first + long(i / freqs.size())) / rate;
        block[i] = int16_t(12000 * std::sin(2 * M_PI * freqs[i % freqs.size()] * t));
    }
    return block;
}

// Runs in its own directory: the names given to open() are relative, as users give them.
class WriterTest : public ::testing::Test
{
protected:
    void SetUp() override { std::filesystem::current_path(dir.path()); }
    void TearDown() override { std::filesystem::current_path(home); }
    // Opens `w` on `name` with `s`; open()'s result, with what it printed in `printed`.
    int open(FFmpegApi &w, const std::string &name, const WriterSettings &s)
    {
        int ret = -2;
        std::string path = name;
        printed = testutil::captureStdout([&] {
            w.setHasVideo(s.video);
            w.setHasAudio(s.audio);
            ret = w.open(path.data(), s.bitrate, s.fps, s.width, s.height, s.channels, s.rate);
        });
        return ret;
    }
    // Opens a writer on `name` with `s`, lets `feed` write, flushes and reads the file back.
    MediaFile record(const std::string &name, const WriterSettings &s,
                     const std::function<void(FFmpegApi &)> &feed, bool driftCorrection = false)
    {
        FFmpegApi w;
        w.setDriftCorrection(driftCorrection);
        MediaFile f;
        std::string err;
        if (open(w, name, s) == 0) {
            feed(w);
            testutil::captureStdout([&] { w.flush(); });
        }
        EXPECT_TRUE(readMediaFile(dir.file(name), f, &err)) << err << "; open printed: " << printed;
        return f;
    }
    const std::filesystem::path home = std::filesystem::current_path();
    testutil::TempDir dir;
    std::string printed; // by the last open
};

} // namespace

TEST_F(WriterTest, EachContainerHoldsItsCodecsWithTheRequestedSizeRateAndChannels)
{
    // Each gets its container's default codecs (the recorder's tests check H.264 and AAC in
    // MP4). An unknown extension falls back to the MPEG program stream, after saying so.
    const struct Row {
        const char *name;
        int width, height, rate, channels;
        bool fallback;
    } rows[] = {{"av.mp4", 320, 240, 44100, 2, false},
                {"c.mkv", 160, 120, 48000, 1, false},
                {"c.avi", 160, 120, 48000, 1, false},
                {"c.unknownext", 160, 120, 48000, 1, true}};
    for (const Row &row : rows) {
        SCOPED_TRACE(row.name);
        const WriterSettings s{true, true, 25, 800000, row.width, row.height, row.channels, row.rate};
        const MediaFile f = record(row.name, s, [&](FFmpegApi &w) {
            // Written as encodeVideo() tells (video first on a tie), neither stream runs
            // ahead of the other by more than a frame or a block.
            EXPECT_TRUE(w.encodeVideo());
            const int fs = w.audioFrameSize();
            const cv::Mat picture = textureImage(row.width, row.height, 1);
            std::vector<int16_t> silence(size_t(fs) * row.channels);
            for (long k = 0, j = 0; k < 15;) {
                if (w.encodeVideo()) {
                    ASSERT_EQ(w.write_video(picture), 0);
                    ++k;
                } else {
                    ASSERT_EQ(w.write_audio(reinterpret_cast<unsigned char *>(silence.data())), 0);
                    ++j;
                }
                const double ahead = k / 25.0 - double(j) * fs / row.rate;
                ASSERT_LE(std::abs(ahead), std::max(1 / 25.0, double(fs) / row.rate) + 1e-9);
            }
        });
        const AVOutputFormat *fmt = av_guess_format(row.fallback ? "mpeg" : nullptr, row.name, nullptr);
        EXPECT_EQ(printed.find("Could not deduce output format from file extension: using MPEG.\n")
                      != std::string::npos, row.fallback) << printed;
        ASSERT_EQ(f.streams.size(), 2u); // video first, audio second
        EXPECT_EQ(f.streams[0].codecId, fmt->video_codec);
        EXPECT_EQ(f.streams[1].codecId, fmt->audio_codec);
        EXPECT_EQ(f.audioSampleRate, row.rate);
        EXPECT_EQ(f.audioChannels, row.channels);
        ASSERT_EQ(f.frames.size(), 15u); // the encoder was drained at flush
        EXPECT_EQ(f.frames[0].size(), cv::Size(row.width, row.height));
    }
}

TEST_F(WriterTest, EachPictureDecodesAsGivenAtItsCountInOneOverFps)
{
    // One writer keeps one scaler while frames come packed, larger (the top-left part is
    // the picture), with padded rows and packed again: a scaler or stride kept from an
    // earlier frame shows as another picture, swapped colours or a wrong range everywhere.
    // Gray and BGRA frames, as many cameras and pipelines give them, are taken as well.
    const cv::Mat larger = textureImage(200, 150, 2);
    cv::Mat gray, bgra;
    cv::cvtColor(textureImage(160, 120, 5), gray, cv::COLOR_BGR2GRAY);
    cv::cvtColor(textureImage(160, 120, 6), bgra, cv::COLOR_BGR2BGRA);
    const std::vector<cv::Mat> given = {
        textureImage(160, 120, 1), larger(cv::Rect(0, 0, 160, 120)),
        paddedCopy(textureImage(160, 120, 3), 13), textureImage(160, 120, 4),
        solidImage(160, 120, {0, 0, 255}), gray, bgra, solidImage(160, 120, {20, 200, 90})};
    // Frames the encoder cannot take, each refused without taking a timestamp.
    const cv::Mat refused[] = {solidImage(80, 60, {1, 2, 3}), cv::Mat(120, 160, CV_8UC2),
                               cv::Mat(120, 160, CV_32FC3), cv::Mat(120, 160, CV_16UC3), cv::Mat()};
    const MediaFile f = record("pictures.mkv", {true, false, 15, 8000000}, [&](FFmpegApi &w) {
        EXPECT_TRUE(w.encodeVideo()); // no audio: always video
        for (size_t i = 0; i < given.size(); ++i) {
            ASSERT_EQ(w.write_video(i == 1 ? larger : given[i]), 0) << i;
            EXPECT_EQ(w.write_video(refused[i % 5]), -1) << i;
        }
    });
    ASSERT_EQ(f.frames.size(), given.size());
    for (size_t i = 0; i < given.size(); ++i) {
        EXPECT_EQ(av_rescale_q(f.framePts[i], f.video()->timeBase, AVRational{1, 15}), int64_t(i));
        cv::Mat bgr = given[i];
        if (bgr.channels() != 3)
            cv::cvtColor(given[i], bgr, bgr.channels() == 1 ? cv::COLOR_GRAY2BGR : cv::COLOR_BGRA2BGR);
        // Lossy coding at a high bit rate, and libyuv's fixed-point coefficients rounding
        // up to a level apart from swscale's; another picture differs by tens. Gray and
        // BGRA (other pictures) code a little less well.
        const double bound = given[i].channels() == 3 ? 1.5 : 4.0;
        EXPECT_LT(meanAbsDiff(f.frames[i], throughYuv420(bgr)), bound) << "picture " << i;
    }
}

TEST_F(WriterTest, SoundDecodesToTheSameTonesAndLength)
{
    const struct Row {
        const char *ext;
        std::vector<double> freqs; // one tone per input channel
        int outChannels;           // the encoder's: more than two are mixed down to one
        int compensation;          // samples added per block by the drift correction
    } rows[] = {
        {"mp4", {1000.0}, 1, 0},
        // Different tones per channel: a swapped or mixed interleave shows.
        {"mp4", {1000.0, 2500.0}, 2, 0},
        // A microphone array: the same sound on every channel, averaged, not misread.
        {"mp4", {1000.0, 1000.0, 1000.0, 1000.0}, 1, 0},
        // Stretched by 10 samples a block: more samples, the tone 1 % lower.
        {"mp4", {1000.0}, 1, 10},
        // PCM, lossless and unprimed: exactly the samples written.
        {"wav", {440.0}, 1, 0},
    };
    // Blocks of another size than the encoder's frame, so that the last frame is a partial
    // one left for the stop to write; about two seconds.
    constexpr int kFrames = 1000, kBlocks = 94;
    for (const Row &row : rows) {
        const int channels = int(row.freqs.size());
        const std::string name = "tone" + std::to_string(&row - rows) + "." + row.ext;
        SCOPED_TRACE(name);
        const MediaFile f = record(name, {false, true, 25, 800000, 160, 120, channels}, [&](FFmpegApi &w) {
            EXPECT_FALSE(w.encodeVideo()); // audio only: never video
            EXPECT_EQ(w.audioFrameSize(), 1024); // PCM has no frame size of its own
            for (int b = 0; b < kBlocks; ++b) {
                const AudioBlock block{sineBlock(kFrames, row.freqs, 48000, long(b) * kFrames), kFrames,
                                       channels, 48000};
                ASSERT_EQ(w.write_audio(block, row.compensation), 0);
            }
        }, row.compensation != 0);
        ASSERT_EQ(f.audioChannels, row.outChannels);
        const double stretch = double(kFrames + row.compensation) / kFrames;
        const double expected = kBlocks * kFrames * stretch;
        const double got = double(f.samples.size()) / row.outChannels;
        // Everything written, the last partial frame too, plus at most AAC's padding.
        EXPECT_GE(got, expected - 64);
        EXPECT_LE(got, expected + 1024);
        for (int c = 0; c < row.outChannels; ++c)
            EXPECT_NEAR(dominantFrequency(f.samples, row.outChannels, c, 48000), row.freqs[c] / stretch, 3.0)
                << "channel " << c;
        EXPECT_TRUE(std::string(row.ext) != "wav"
                    || f.samples == sineBlock(kBlocks * kFrames, row.freqs, 48000, 0)) << "PCM changed";
    }
}

// The lines hosts read stay on standard output; the reasons are the library's own
// messages, under its category, which a host may turn off.
TEST_F(WriterTest, FailuresOfOpenSayWhatFailedAndReturnMinusOne)
{
    testutil::writeFileBytes("victim", "the user's own");
    std::filesystem::create_symlink("victim", "link.mp4");
    ASSERT_EQ(mkfifo("fifo.mp4", 0600), 0);
    const struct {
        std::string name;
        WriterSettings settings;
        std::string printed; // on standard output
        std::string logged;  // a warning under kwrecorder.media
    } rows[] = {{"no-such-dir/x.mp4", {}, "cannot open :no-such-dir/x.mp4\n",
                 "cannot open no-such-dir/x.mp4: No such file or directory"},
                {"none.mp4", {false, false}, "", "nothing to record"},
                {"zero.mp4", {true, true, 25, 800000, 0, 0}, "open video_codec failed", ""},
                // Only local files: a planted link is not followed, a FIFO not waited for.
                {"http://127.0.0.1:9/x.mp4", {}, "cannot open :http://127.0.0.1:9/x.mp4\n",
                 "only a local file can be recorded, not a http: name"},
                {"pipe:1", {}, "cannot open :pipe:1\n", "only a local file can be recorded, not a pipe: name"},
                {"link.mp4", {}, "cannot open :link.mp4\n", "cannot open link.mp4: Too many levels of symbolic links"},
                {"fifo.mp4", {}, "cannot open :fifo.mp4\n", "cannot open fifo.mp4: No such device or address"}};
    for (const auto &row : rows) {
        QtMessageCollector log;
        FFmpegApi w;
        EXPECT_EQ(open(w, row.name, row.settings), -1) << row.name;
        EXPECT_NE(printed.find(row.printed), std::string::npos) << printed;
        const QStringList logged = log.messages(QStringLiteral("kwrecorder.media"), QtWarningMsg);
        EXPECT_EQ(logged.filter(QString::fromStdString(row.logged)).size(), row.logged.empty() ? 0 : 1)
            << qPrintable(log.messages().join('\n'));
    }
    {
        QLoggingCategory::setFilterRules(QStringLiteral("kwrecorder.media.warning=false"));
        QtMessageCollector log;
        FFmpegApi w;
        EXPECT_EQ(open(w, "no-such-dir/x.mp4", {}), -1);
        QLoggingCategory::setFilterRules(QString());
        EXPECT_NE(printed.find("cannot open :no-such-dir/x.mp4\n"), std::string::npos) << printed;
        EXPECT_EQ(log.messages(QStringLiteral("kwrecorder.media"), QtWarningMsg), QStringList());
    }
    EXPECT_EQ(testutil::readFileBytes("victim"), "the user's own");
    // A colon is an ordinary character.
    const MediaFile f = record("lesson-12:30.mp4", {true, false}, [](FFmpegApi &w) {
        for (int k = 0; k < 5; ++k)
            ASSERT_EQ(w.write_video(textureImage(160, 120, k)), 0);
    });
    EXPECT_EQ(f.framePts.size(), 5u);
}
