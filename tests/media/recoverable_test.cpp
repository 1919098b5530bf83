// Files that survive a crash: what a file being written holds at any moment, the
// standard MP4 a clean stop leaves, and what happens when that rewrite fails.
#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <string>
#include <vector>

#include "media/ffmpegapi.h"
#include "media/standardmp4.h"
#include "support/mediareader.h"
#include "support/mp4boxes.h"
#include "support/testutil.h"

namespace {

using WriteMode = FFmpegApi::WriteMode;

struct Content {
    bool video, audio;
    int fps;
    int frames; // video frames, or with sound alone the blocks' worth of them
    const char *ext = "mp4";
    double extraSoundDelay = 0; // seconds the muxer holds sound back by design
};

constexpr int kRate = 48000;

// Writes `c` the way the encoder thread does (the earlier timestamp first) into an open
// writer, from frame `from` to frame `to`.
void writeContent(FFmpegApi &w, const Content &c, int from, int to)
{
    const int fs = c.audio ? w.audioFrameSize() : 1;
    // Audio blocks due by the end of frame `to` (or its time, without video).
    const long audioEnd = long(to) * kRate / c.fps;
    long block = (long(from) * kRate / c.fps + fs - 1) / fs; // the first not written yet
    std::vector<int16_t> silence(fs, 0); // only lengths and times are looked at
    for (int frame = from; (c.video && frame < to) || (c.audio && block * fs < audioEnd);) {
        if (c.video && frame < to && (!c.audio || block * fs >= audioEnd || w.encodeVideo())) {
            ASSERT_EQ(w.write_video(solidImage(160, 120, cv::Scalar(frame++ % 256, 80, 160))), 0);
            continue;
        }
        ASSERT_EQ(w.write_audio(reinterpret_cast<unsigned char *>(silence.data())), 0);
        ++block;
    }
}

void openWriter(FFmpegApi &w, std::string path, const Content &c, WriteMode mode)
{
    w.setHasVideo(c.video);
    w.setHasAudio(c.audio);
    w.setWriteMode(mode);
    testutil::captureStdout([&] { ASSERT_EQ(w.open(path.data(), 800000, c.fps, 160, 120, 1, kRate), 0); });
}

// Writes `c` into `path` and flushes; returns what flush printed on stderr.
std::string record(const std::string &path, const Content &c, WriteMode mode)
{
    FFmpegApi w;
    openWriter(w, path, c, mode);
    writeContent(w, c, 0, c.frames);
    return testutil::captureStderr([&] { w.flush(); });
}

// The file decoded, without keeping the pictures: framePts counts them.
MediaFile decoded(const std::string &path)
{
    MediaFile f;
    std::string err;
    EXPECT_TRUE(readMediaFile(path, f, &err, true, false)) << path << ": " << err;
    return f;
}

// Records into `file` (its rewrite spoilt beforehand) and checks that the fragmented file
// stays whole and the message names the failed step.
void expectKeptAfterFailedRewrite(const std::string &file, const std::string &why)
{
    const Content c{true, true, 30, 45};
    const std::string err = record(file, c, WriteMode::RecoverableThenStandard);
    EXPECT_NE(err.find("Could not rewrite " + file + " as a standard MP4: "), std::string::npos) << err;
    EXPECT_NE(err.find(why + ". The fragmented file is kept"), std::string::npos) << err;
    EXPECT_NE(topLevelBoxes(file).find("moof"), std::string::npos) << topLevelBoxes(file);
    EXPECT_EQ(decoded(file).framePts.size(), size_t(c.frames));
}

} // namespace

TEST(RecoverableTest, AFileBeingWrittenPlaysUpToAboutTheLastSecondAndAStopLeavesAStandardOne)
{
    testutil::TempDir dir;
    // Whole seconds (two or three), or none. 1-11 fps: a group of 12 pictures lasts over a
    // second; 12: exactly one.
    const Content cases[] = {
        {true, false, 1, 3},    {true, false, 11, 33},  {true, false, 12, 36},
        {true, false, 30, 90},  {true, false, 1000, 2000}, {true, true, 1, 3},
        {true, true, 30, 90},   {true, true, 30, 90, "mov"},
        {false, true, 30, 90},  {true, true, 30, 0}, // stopped before any frame
        {true, false, 1, 3, "mkv"}, {true, false, 5, 15, "mkv"},
        {true, false, 1000, 2000, "mkv"}, {true, true, 30, 90, "mkv"},
        {true, true, 30, 90, "avi"},
        // The MPEG program stream muxer holds sound for its 0.7 s mux delay.
        {true, true, 30, 90, "unknownext", 0.7},
    };
    // A link planted where the copy would be made is neither followed nor in the way.
    const std::string victim = dir.file("victim");
    testutil::writeFileBytes(victim, "the user's own");
    for (const Content &c : cases) {
        const std::string name = std::to_string(&c - cases) + "." + c.ext, file = dir.file(name);
        SCOPED_TRACE(name + " at " + std::to_string(c.fps) + " fps");
        std::filesystem::create_symlink(victim, standardTempPath(file));
        FFmpegApi w;
        openWriter(w, file, c, WriteMode::RecoverableThenStandard);
        // Looked at after every second written, as a crash would leave it: at most a
        // second and a frame may be missing (so before that, the file may hold nothing).
        const double period = 1.0 / c.fps;
        for (int second = 1; second * c.fps <= c.frames; ++second) {
            writeContent(w, c, (second - 1) * c.fps, second * c.fps);
            const double least = second - 1.0 - period;
            MediaFile f;
            if (!readMediaFile(file, f, nullptr, false) && least <= 0)
                continue;
            // Seconds of each stream in the file (one not recorded counts as whole), the
            // sound with a block that waits in the interleaver for the next frame.
            const double picture = !c.video ? second : f.video() ? f.video()->packetPts.size() * period : 0;
            const double sound = c.audio ? f.audioSeconds() + 1024.0 / kRate + c.extraSoundDelay : second;
            EXPECT_GE(std::min(picture, sound), least - 1e-6) << "after " << second << " s";
        }
        w.flush(); // a failed rewrite leaves the file fragmented
        EXPECT_EQ(testutil::readFileBytes(victim), "the user's own");
        // Public as the user's other files are, no more than rw-r--r--.
        EXPECT_EQ(std::filesystem::status(file).permissions() & ~std::filesystem::perms(0644),
                  std::filesystem::perms::none);
        const MediaFile got = decoded(file);
        EXPECT_EQ(got.framePts.size(), size_t(c.video ? c.frames : 0));
        if (c.ext != std::string("mp4") && c.ext != std::string("mov"))
            continue;
        EXPECT_TRUE(isStandardLayout(topLevelBoxes(file))) << topLevelBoxes(file);
        // Against the same content written with the index at the end, as before: the same
        // streams, and the sound's priming skipped as before (the same samples from the
        // same time).
        record(dir.file("ref" + name), c, WriteMode::IndexAtEnd);
        const MediaFile want = decoded(dir.file("ref" + name));
        ASSERT_EQ(got.streams.size(), want.streams.size());
        EXPECT_EQ(got.samples.size(), want.samples.size());
        for (size_t i = 0; i < got.streams.size() && c.frames > 0; ++i)
            EXPECT_NEAR(got.streams[i].startSeconds, want.streams[i].startSeconds, 0.001) << i;
    }
}

// Sound that stops (a microphone lost for good) never holds the picture back: what was
// encoded after it is in the file within the fragment's second and the muxer's wait.
TEST(RecoverableTest, PictureAfterTheSoundStoppedReachesTheFileBeingWritten)
{
    testutil::TempDir dir;
    constexpr int kFps = 30, kSoundSeconds = 1, kSeconds = 6;
    // A fragment or cluster (1 s), the muxer's wait for the silent stream (0.5 s), a frame.
    constexpr double kMostMissing = 1.5 + 1.0 / kFps;
    for (const char *ext : {"mp4", "mkv"}) {
        SCOPED_TRACE(ext);
        const std::string file = dir.file(std::string("stopped.") + ext);
        FFmpegApi w;
        const Content c{true, true, kFps, kSeconds * kFps, ext};
        openWriter(w, file, c, WriteMode::RecoverableThenStandard);
        writeContent(w, c, 0, kSoundSeconds * kFps);
        writeContent(w, Content{true, false, kFps, 0, ext}, kSoundSeconds * kFps, kSeconds * kFps);
        MediaFile f;
        std::string err;
        ASSERT_TRUE(readMediaFile(file, f, &err, false)) << err;
        ASSERT_NE(f.video(), nullptr);
        EXPECT_GE(f.video()->packetPts.size() / double(kFps), kSeconds - kMostMissing);
        w.flush();
    }
}

TEST(RecoverableTest, AFailedRewriteKeepsTheFragmentedFileAndSaysWhy)
{
    testutil::TempDir dir;
    // A name the file system takes, whose temporary copy's name it does not.
    const std::string longName = dir.file(std::string(240, 'n') + ".mp4");
    expectKeptAfterFailedRewrite(longName, "creating a file beside " + longName + ": File name too long");
}
