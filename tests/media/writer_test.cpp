// The media writer, judged by the files it writes: each is read back and decoded.
#include <gtest/gtest.h>

#include <cmath>
#include <string>
#include <vector>

#include <opencv2/core.hpp>

#include "media/ffmpegapi.h"
#include "support/mediareader.h"
#include "support/testutil.h"

extern "C" {
#include <libavformat/avformat.h>
}

namespace {

struct WriterSettings {
    bool video = true;
    bool audio = true;
    int bitrate = 800000;
    int fps = 25;
    int width = 160;
    int height = 120;
    int channels = 1;
    int rate = 48000;
};

// Opens a writer on `path`; returns its open() result and what it printed.
int openWriter(FFmpegApi &w, const std::string &path, const WriterSettings &s, std::string *printed = nullptr)
{
    int ret = -2;
    std::string name = path;
    const std::string out = testutil::captureStdout([&] {
        w.setHasVideo(s.video);
        w.setHasAudio(s.audio);
        ret = w.open(name.data(), s.bitrate, s.fps, s.width, s.height, s.channels, s.rate);
    });
    if (printed)
        *printed = out;
    return ret;
}

// One block of interleaved S16: channel c carries a sine of freqs[c] Hz, continuing
// from sample `first`.
std::vector<int16_t> sineBlock(int frames, const std::vector<double> &freqs, int rate, long first)
{
    std::vector<int16_t> block(static_cast<size_t>(frames) * freqs.size());
    for (int i = 0; i < frames; ++i)
        for (size_t c = 0; c < freqs.size(); ++c)
            block[i * freqs.size() + c] = static_cast<int16_t>(
                12000 * std::sin(2 * M_PI * freqs[c] * double(first + i) / rate));
    return block;
}

void writeSine(FFmpegApi &w, int blocks, const std::vector<double> &freqs, int rate)
{
    const int fs = w.audioFrameSize();
    for (int b = 0; b < blocks; ++b) {
        std::vector<int16_t> block = sineBlock(fs, freqs, rate, long(b) * fs);
        EXPECT_EQ(w.write_audio(reinterpret_cast<unsigned char *>(block.data())), 0);
    }
}

MediaFile read(const std::string &path, bool pictures = true)
{
    MediaFile f;
    std::string err;
    EXPECT_TRUE(readMediaFile(path, f, &err, pictures)) << err;
    return f;
}

cv::Vec3d meanColour(const cv::Mat &img)
{
    const cv::Scalar m = cv::mean(img);
    return cv::Vec3d(m[0], m[1], m[2]);
}

class WriterTest : public ::testing::Test
{
protected:
    std::string path(const std::string &name) const { return dir.file(name); }
    testutil::TempDir dir;
};

} // namespace

TEST_F(WriterTest, Mp4HoldsH264AndAacWithTheRequestedSizeRateAndChannels)
{
    for (int channels : {1, 2}) {
        FFmpegApi w;
        WriterSettings s;
        s.channels = channels;
        s.width = 320;
        s.height = 240;
        s.fps = 30;
        s.rate = 44100;
        std::string printed;
        const std::string file = path("av" + std::to_string(channels) + ".mp4");
        ASSERT_EQ(openWriter(w, file, s, &printed), 0) << printed;
        EXPECT_NE(printed.find(channels == 2 ? "add stream audioChannel=2,3\n"
                                             : "add stream audioChannel=1,4\n"),
                  std::string::npos)
            << printed;
        EXPECT_NE(printed.find("c->channels=" + std::to_string(channels) + "\n"), std::string::npos);
        EXPECT_EQ(w.audioFrameSize(), 1024); // AAC
        for (int i = 0; i < 15; ++i) {
            ASSERT_EQ(w.write_video(gradientImage(320, 240)), 0);
            writeSine(w, 1, std::vector<double>(channels, 1000.0), 44100);
        }
        testutil::captureStdout([&] { w.flush(); });

        const MediaFile f = read(file);
        EXPECT_NE(f.formatName.find("mp4"), std::string::npos);
        ASSERT_NE(f.video(), nullptr);
        ASSERT_NE(f.audio(), nullptr);
        EXPECT_EQ(f.video()->codecId, AV_CODEC_ID_H264);
        EXPECT_EQ(f.video()->width, 320);
        EXPECT_EQ(f.video()->height, 240);
        EXPECT_EQ(f.audio()->codecId, AV_CODEC_ID_AAC);
        EXPECT_EQ(f.audioSampleRate, 44100);
        EXPECT_EQ(f.audioChannels, channels);
        EXPECT_EQ(f.frames.size(), 15u); // the encoder was drained at flush
        // Video comes first in the container, audio second.
        EXPECT_EQ(f.streams[0].type, AVMEDIA_TYPE_VIDEO);
        EXPECT_EQ(f.streams[1].type, AVMEDIA_TYPE_AUDIO);
    }
}

TEST_F(WriterTest, OtherContainersGetTheirOwnDefaultCodecs)
{
    for (const char *ext : {"mkv", "avi"}) {
        const AVOutputFormat *fmt = av_guess_format(nullptr, (std::string("x.") + ext).c_str(), nullptr);
        ASSERT_NE(fmt, nullptr);
        FFmpegApi w;
        const std::string file = path(std::string("c.") + ext);
        ASSERT_EQ(openWriter(w, file, WriterSettings()), 0) << ext;
        for (int i = 0; i < 5; ++i) {
            ASSERT_EQ(w.write_video(solidImage(160, 120, cv::Scalar(0, 0, 200))), 0);
            writeSine(w, 2, {1000.0}, 48000);
        }
        testutil::captureStdout([&] { w.flush(); });
        const MediaFile f = read(file);
        ASSERT_NE(f.video(), nullptr) << ext;
        ASSERT_NE(f.audio(), nullptr) << ext;
        EXPECT_EQ(f.video()->codecId, fmt->video_codec) << ext;
        EXPECT_EQ(f.audio()->codecId, fmt->audio_codec) << ext;
    }
}

TEST_F(WriterTest, AnUnknownExtensionFallsBackToMpegProgramStream)
{
    FFmpegApi w;
    std::string printed;
    const std::string file = path("clip.unknownext");
    ASSERT_EQ(openWriter(w, file, WriterSettings(), &printed), 0);
    EXPECT_NE(printed.find("Could not deduce output format from file extension: using MPEG.\n"),
              std::string::npos)
        << printed;
    for (int i = 0; i < 5; ++i)
        ASSERT_EQ(w.write_video(solidImage(160, 120, cv::Scalar(90, 90, 90))), 0);
    testutil::captureStdout([&] { w.flush(); });
    const MediaFile f = read(file);
    EXPECT_EQ(f.formatName, "mpeg");
}

TEST_F(WriterTest, FramesAreTimeStampedByCountInOneOverFps)
{
    FFmpegApi w;
    WriterSettings s;
    s.audio = false;
    s.fps = 15;
    const std::string file = path("count.mp4");
    ASSERT_EQ(openWriter(w, file, s), 0);
    EXPECT_TRUE(w.encodeVideo()); // no audio: always video
    for (int i = 0; i < 10; ++i)
        ASSERT_EQ(w.write_video(solidImage(160, 120, cv::Scalar(i * 20, 100, 50))), 0);
    testutil::captureStdout([&] { w.flush(); });
    const MediaFile f = read(file);
    ASSERT_EQ(f.frames.size(), 10u);
    ASSERT_NE(f.video(), nullptr);
    std::vector<int64_t> pts = f.framePts;
    for (size_t i = 0; i < pts.size(); ++i)
        EXPECT_EQ(av_rescale_q(pts[i] - pts[0], f.video()->timeBase, AVRational{1, 15}), int64_t(i));
    EXPECT_EQ(pts[0], 0);
}

TEST_F(WriterTest, DecodedColoursMatchTheInput)
{
    const std::vector<cv::Scalar> colours = {{0, 0, 255}, {0, 255, 0}, {255, 0, 0},
                                             {128, 128, 128}, {255, 255, 255}, {20, 200, 90}};
    FFmpegApi w;
    WriterSettings s;
    s.audio = false;
    s.bitrate = 4000000;
    const std::string file = path("colours.mkv");
    ASSERT_EQ(openWriter(w, file, s), 0);
    for (const cv::Scalar &c : colours)
        for (int i = 0; i < 3; ++i)
            ASSERT_EQ(w.write_video(solidImage(160, 120, c)), 0);
    for (int i = 0; i < 3; ++i)
        ASSERT_EQ(w.write_video(gradientImage(160, 120)), 0);
    testutil::captureStdout([&] { w.flush(); });
    const MediaFile f = read(file);
    ASSERT_EQ(f.frames.size(), colours.size() * 3 + 3);
    // Tolerance: YUV 4:2:0 limited range round trip plus lossy coding, per channel value.
    constexpr double kTolerance = 8.0;
    for (size_t c = 0; c < colours.size(); ++c) {
        const cv::Vec3d got = meanColour(f.frames[c * 3 + 2]);
        for (int ch = 0; ch < 3; ++ch)
            EXPECT_NEAR(got[ch], colours[c][ch], kTolerance) << "colour " << c << " channel " << ch;
    }
    EXPECT_LT(meanAbsDiff(f.frames.back(), gradientImage(160, 120)), 4.0);
}

TEST_F(WriterTest, EachFrameDecodesAsItsOwnConversionWhateverRowsItComesIn)
{
    // One writer keeps one scaler while frames come packed, larger (the top-left part is
    // the picture), with padded rows and packed again: a scaler or stride kept from an
    // earlier frame shows as another picture.
    const cv::Mat larger = textureImage(200, 150, 2);
    const std::vector<cv::Mat> given = {textureImage(160, 120, 1), larger(cv::Rect(0, 0, 160, 120)),
                                        paddedCopy(textureImage(160, 120, 3), 13),
                                        textureImage(160, 120, 4)};
    ASSERT_GT(given[2].step1(), size_t(160 * 3));
    FFmpegApi w;
    WriterSettings s;
    s.audio = false;
    s.bitrate = 8000000;
    const std::string file = path("sources.mkv");
    ASSERT_EQ(openWriter(w, file, s), 0);
    for (size_t i = 0; i < given.size(); ++i)
        ASSERT_EQ(w.write_video(i == 1 ? larger : given[i]), 0) << i;
    testutil::captureStdout([&] { w.flush(); });
    const MediaFile f = read(file);
    ASSERT_EQ(f.frames.size(), given.size());
    // Lossy coding at a high bit rate; another picture differs by tens.
    constexpr double kTolerance = 1.0;
    for (size_t i = 0; i < given.size(); ++i)
        EXPECT_LT(meanAbsDiff(f.frames[i], throughYuv420(given[i])), kTolerance) << "frame " << i;
}

TEST_F(WriterTest, AFrameTheEncoderCannotTakeIsRefusedWithoutATimestamp)
{
    FFmpegApi w;
    WriterSettings s;
    s.audio = false;
    const std::string file = path("refuse.mkv");
    ASSERT_EQ(openWriter(w, file, s), 0);
    EXPECT_EQ(w.write_video(solidImage(80, 60, cv::Scalar(1, 2, 3))), -1);      // too small
    EXPECT_EQ(w.write_video(cv::Mat(120, 160, CV_8UC1, cv::Scalar(9))), -1);    // grey
    EXPECT_EQ(w.write_video(cv::Mat(120, 160, CV_8UC4, cv::Scalar(9))), -1);    // BGRA
    EXPECT_EQ(w.write_video(cv::Mat(120, 160, CV_16UC3, cv::Scalar(9))), -1);   // 16-bit
    EXPECT_EQ(w.write_video(cv::Mat()), -1);
    ASSERT_EQ(w.write_video(solidImage(160, 120, cv::Scalar(0, 0, 255))), 0);
    testutil::captureStdout([&] { w.flush(); });
    const MediaFile f = read(file);
    ASSERT_EQ(f.frames.size(), 1u);
    EXPECT_EQ(f.framePts[0], 0);
}

TEST_F(WriterTest, SineBlocksDecodeToTheSameToneAndLength)
{
    struct Row {
        std::vector<double> freqs; // one tone per input channel
        int outChannels;           // the encoder's: more than two are mixed down to one
        int compensation;          // samples added per block by the drift correction
    };
    const std::vector<Row> rows = {
        {{1000.0}, 1, 0},
        // Different tones per channel: a swapped or mixed interleave shows.
        {{1000.0, 2500.0}, 2, 0},
        // A microphone array: the same sound on every channel, averaged, not misread.
        {{1000.0, 1000.0, 1000.0}, 1, 0},
        {{1000.0, 1000.0, 1000.0, 1000.0}, 1, 0},
        // Stretched by 10 samples a block: more samples, the tone 1 % lower.
        {{1000.0}, 1, 10},
    };
    for (const Row &row : rows) {
        const int channels = int(row.freqs.size());
        SCOPED_TRACE(std::to_string(channels) + " channel(s), compensation "
                     + std::to_string(row.compensation));
        FFmpegApi w;
        WriterSettings s;
        s.video = false;
        s.channels = channels;
        w.setDriftCorrection(row.compensation != 0);
        const std::string file = path("tone" + std::to_string(channels) + "_"
                                      + std::to_string(row.compensation) + ".mp4");
        ASSERT_EQ(openWriter(w, file, s), 0);
        EXPECT_FALSE(w.encodeVideo()); // audio only: never video
        const int blocks = 94;         // about two seconds
        const int fs = w.audioFrameSize();
        for (int b = 0; b < blocks; ++b) {
            AudioBlock block;
            block.frames = fs;
            block.channels = channels;
            block.rate = 48000;
            block.samples = sineBlock(fs, row.freqs, 48000, long(b) * fs);
            ASSERT_EQ(w.write_audio(block, row.compensation), 0);
        }
        testutil::captureStdout([&] { w.flush(); });
        const MediaFile f = read(file);
        ASSERT_NE(f.audio(), nullptr);
        ASSERT_EQ(f.audioChannels, row.outChannels);
        const double stretch = double(fs + row.compensation) / fs;
        const double expected = blocks * fs * stretch;
        const long got = long(f.samples.size()) / row.outChannels;
        // AAC's priming and padding: within one encoder frame either way.
        EXPECT_NEAR(double(got), expected, 1024.0);
        for (int c = 0; c < row.outChannels; ++c)
            EXPECT_NEAR(dominantFrequency(f.samples, row.outChannels, c, 48000),
                        row.freqs[c] / stretch, 3.0)
                << "channel " << c;
    }
}

TEST_F(WriterTest, AnEncoderWithoutAFixedFrameSizeGetsBlocksOf1024)
{
    FFmpegApi w;
    WriterSettings s;
    s.video = false;
    const std::string file = path("pcm.wav");
    ASSERT_EQ(openWriter(w, file, s), 0);
    EXPECT_EQ(w.audioFrameSize(), 1024);
    writeSine(w, 10, {440.0}, 48000);
    testutil::captureStdout([&] { w.flush(); });
    const MediaFile f = read(file);
    // PCM is lossless and unprimed: exactly the samples written.
    ASSERT_EQ(f.samples.size(), 10u * 1024u);
    const std::vector<int16_t> first = sineBlock(1024, {440.0}, 48000, 0);
    EXPECT_TRUE(std::equal(first.begin(), first.end(), f.samples.begin()));
}

TEST_F(WriterTest, EncodeVideoInterleavesByTimestampWithVideoFirstOnATie)
{
    FFmpegApi w;
    WriterSettings s;
    s.fps = 10;
    s.rate = 48000;
    const std::string file = path("order.mp4");
    ASSERT_EQ(openWriter(w, file, s), 0);
    const int fs = w.audioFrameSize();
    // Expected: the earlier of the next video time (k / 10) and the next audio time
    // (j x fs / 48000), video when equal.
    long k = 0, j = 0;
    for (int step = 0; step < 60; ++step) {
        const bool videoDue = k * 48000 <= j * fs * 10;
        ASSERT_EQ(w.encodeVideo(), videoDue) << "step " << step;
        if (videoDue) {
            ASSERT_EQ(w.write_video(solidImage(160, 120, cv::Scalar(5, 5, 5))), 0);
            ++k;
        } else {
            writeSine(w, 1, {1000.0}, 48000);
            ++j;
        }
    }
    EXPECT_GT(k, 5);
    EXPECT_GT(j, 5);
    testutil::captureStdout([&] { w.flush(); });
}

TEST_F(WriterTest, AFileFlushedWithoutFramesIsCompleteAndReadable)
{
    // (Not .mkv: FFmpeg 5.1's Matroska muxer writes an unreadable file without packets,
    // the ffmpeg command line's included.)
    FFmpegApi w;
    const std::string file = path("empty.mp4");
    ASSERT_EQ(openWriter(w, file, WriterSettings()), 0);
    testutil::captureStdout([&] { w.flush(); });
    const MediaFile f = read(file);
    EXPECT_TRUE(f.frames.empty());
    EXPECT_TRUE(f.samples.empty());
}

TEST_F(WriterTest, FailuresOfOpenSayWhatFailedAndReturnMinusOne)
{
    {
        FFmpegApi w;
        std::string printed;
        const std::string file = path("no-such-dir/x.mp4");
        EXPECT_EQ(openWriter(w, file, WriterSettings(), &printed), -1);
        EXPECT_NE(printed.find("cannot open :" + file + "\n"), std::string::npos) << printed;
    }
    {
        FFmpegApi w;
        WriterSettings s;
        s.video = false;
        s.audio = false;
        std::string printed;
        EXPECT_EQ(openWriter(w, path("none.mp4"), s, &printed), -1);
        EXPECT_NE(printed.find("nothing to record"), std::string::npos) << printed;
    }
    {
        FFmpegApi w;
        WriterSettings s;
        s.width = 0;
        s.height = 0;
        std::string printed;
        EXPECT_EQ(openWriter(w, path("zero.mp4"), s, &printed), -1);
        EXPECT_NE(printed.find("open video_codec failed"), std::string::npos) << printed;
        EXPECT_FALSE(w.hasVideo());
    }
}
