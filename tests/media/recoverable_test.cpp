// Files that survive a crash: what a file being written holds at any moment, the
// standard MP4 a clean stop leaves, and what happens when that rewrite fails.
#include <gtest/gtest.h>

#include <cerrno>
#include <cmath>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <functional>
#include <string>
#include <sys/mount.h>
#include <sys/statvfs.h>
#include <unistd.h>
#include <vector>

#include "media/ffmpegapi.h"
#include "media/standardmp4.h"
#include "support/mediareader.h"
#include "support/mp4boxes.h"
#include "support/testutil.h"

extern "C" {
#include <libavformat/avformat.h>
}

namespace {

using WriteMode = FFmpegApi::WriteMode;

struct Content {
    bool video = true;
    bool audio = true;
    int fps = 30;
    int frames = 30;   // video frames, or with sound alone the blocks' worth of them
};

constexpr int kWidth = 160;
constexpr int kHeight = 120;
constexpr int kRate = 48000;

// Writes `c` the way the encoder thread does (the earlier timestamp first) into an open
// writer, from frame `from` to frame `to`.
void writeContent(FFmpegApi &w, const Content &c, int from, int to)
{
    const int fs = c.audio ? w.audioFrameSize() : 1;
    // Audio blocks due by the end of frame `to` (or its time, without video).
    const long audioEnd = long(to) * kRate / c.fps;
    long block = long(from) * kRate / c.fps / fs;
    int frame = from;
    while ((c.video && frame < to) || (c.audio && block * fs < audioEnd)) {
        const bool video = c.video && frame < to
            && (!c.audio || block * fs >= audioEnd || w.encodeVideo());
        if (video) {
            ASSERT_EQ(w.write_video(solidImage(kWidth, kHeight, cv::Scalar(frame % 256, 80, 160))), 0);
            ++frame;
            continue;
        }
        std::vector<int16_t> samples(fs);
        for (int i = 0; i < fs; ++i)
            samples[i] = int16_t(9000 * std::sin(2 * M_PI * 1000.0 * double(block * fs + i) / kRate));
        ASSERT_EQ(w.write_audio(reinterpret_cast<unsigned char *>(samples.data())), 0);
        ++block;
    }
}

void openWriter(FFmpegApi &w, const std::string &path, const Content &c, WriteMode mode)
{
    std::string name = path;
    const std::string out = testutil::captureStdout([&] {
        w.setHasVideo(c.video);
        w.setHasAudio(c.audio);
        w.setWriteMode(mode);
        ASSERT_EQ(w.open(name.data(), 800000, c.fps, kWidth, kHeight, 1, kRate), 0);
    });
    ASSERT_TRUE(w.hasVideo() == c.video && w.hasAudio() == c.audio) << out;
}

// Writes `c` into `path` and flushes; returns what flush printed on stderr.
std::string record(const std::string &path, const Content &c, WriteMode mode)
{
    FFmpegApi w;
    openWriter(w, path, c, mode);
    writeContent(w, c, 0, c.frames);
    std::string err;
    testutil::captureStdout([&] { err = testutil::captureStderr([&] { w.flush(); }); });
    return err;
}

// Where a player starts a stream of `type` (the container's start time, which applies
// the edit list that skips the encoder's priming), seconds; NAN when absent.
double streamStart(const std::string &path, AVMediaType type)
{
    AVFormatContext *fmt = nullptr;
    if (avformat_open_input(&fmt, path.c_str(), nullptr, nullptr) < 0)
        return NAN;
    double start = NAN;
    if (avformat_find_stream_info(fmt, nullptr) >= 0) {
        for (unsigned i = 0; i < fmt->nb_streams; ++i) {
            const AVStream *st = fmt->streams[i];
            if (st->codecpar->codec_type == type && st->start_time != AV_NOPTS_VALUE) {
                start = st->start_time * av_q2d(st->time_base);
                break;
            }
        }
    }
    avformat_close_input(&fmt);
    return start;
}

MediaFile decoded(const std::string &path)
{
    MediaFile f;
    std::string err;
    EXPECT_TRUE(readMediaFile(path, f, &err)) << path << ": " << err;
    return f;
}

class RecoverableTest : public ::testing::Test
{
protected:
    std::string path(const std::string &name) const { return dir.file(name); }
    testutil::TempDir dir;
};

} // namespace

TEST_F(RecoverableTest, ACleanStopLeavesAStandardFileWithTheSoundWhereTheIndexAtEndWriterPutsIt)
{
    struct Case {
        const char *ext;
        Content content;
    };
    const Case cases[] = {
        {"mp4", {true, true, 30, 45}},
        {"mov", {true, true, 25, 30}},
        {"mp4", {false, true, 30, 60}}, // sound alone
        {"mp4", {true, false, 12, 30}}, // picture alone
        {"mp4", {true, false, 1000, 3000}},
        {"mp4", {true, true, 30, 0}},   // stopped before any frame
    };
    int n = 0;
    for (const Case &c : cases) {
        const std::string name = std::to_string(n++) + "." + c.ext;
        SCOPED_TRACE(name);
        const std::string ref = path("ref" + name), file = path(name);
        // The reference: the same content written with the index at the end, as before.
        record(ref, c.content, WriteMode::IndexAtEnd);
        const std::string err = record(file, c.content, WriteMode::RecoverableThenStandard);
        EXPECT_EQ(err.find("Could not rewrite"), std::string::npos) << err;

        const std::vector<std::string> boxes = topLevelBoxes(file);
        const int moov = indexOf(boxes, "moov"), mdat = indexOf(boxes, "mdat");
        EXPECT_EQ(indexOf(boxes, "moof"), -1) << joined(boxes);
        ASSERT_GE(moov, 0) << joined(boxes);
        EXPECT_TRUE(mdat < 0 || moov < mdat) << joined(boxes);
        EXPECT_FALSE(std::filesystem::exists(standardTempPath(file)));

        const MediaFile want = decoded(ref), got = decoded(file);
        EXPECT_EQ(got.formatName, want.formatName);
        ASSERT_EQ(got.streams.size(), want.streams.size());
        EXPECT_EQ(got.frames.size(), size_t(c.content.video ? c.content.frames : 0));
        EXPECT_EQ(got.frames.size(), want.frames.size());
        // The priming is skipped as before: the same samples, from the same time.
        EXPECT_EQ(got.samples.size(), want.samples.size());
        if (c.content.audio && c.content.frames > 0) {
            const double wantStart = streamStart(ref, AVMEDIA_TYPE_AUDIO);
            ASSERT_FALSE(std::isnan(wantStart));
            EXPECT_NEAR(streamStart(file, AVMEDIA_TYPE_AUDIO), wantStart, 0.001);
        }
        if (c.content.video && c.content.frames > 0) {
            EXPECT_NEAR(streamStart(file, AVMEDIA_TYPE_VIDEO), streamStart(ref, AVMEDIA_TYPE_VIDEO),
                        0.001);
        }
    }
}

TEST_F(RecoverableTest, AFileBeingWrittenPlaysUpToAboutTheLastSecondAtEveryFrameRate)
{
    struct Case {
        const char *ext;
        Content content;            // frames: three seconds' worth
        double extraSoundDelay = 0; // seconds the muxer holds sound back by design
    };
    // 1-11 fps: a group of 12 pictures lasts over a second; 12: exactly one.
    const Case cases[] = {
        {"mp4", {true, false, 1, 3}},    {"mp4", {true, false, 5, 15}},
        {"mp4", {true, false, 11, 33}},  {"mp4", {true, false, 12, 36}},
        {"mp4", {true, false, 30, 90}},  {"mp4", {true, false, 1000, 3000}},
        {"mp4", {true, true, 1, 3}},     {"mp4", {true, true, 30, 90}},
        {"mov", {true, true, 30, 90}},   {"mp4", {false, true, 30, 90}},
        {"mkv", {true, false, 1, 3}},    {"mkv", {true, false, 5, 15}},
        {"mkv", {true, false, 1000, 3000}}, {"mkv", {true, true, 30, 90}},
        {"avi", {true, true, 30, 90}},
        // The MPEG program stream muxer holds sound for its 0.7 s mux delay.
        {"unknownext", {true, true, 30, 90}, 0.7},
    };
    int n = 0;
    for (const Case &c : cases) {
        const std::string name = std::to_string(n++) + "." + c.ext;
        SCOPED_TRACE(name + " at " + std::to_string(c.content.fps) + " fps");
        const std::string file = path(name);
        FFmpegApi w;
        openWriter(w, file, c.content, WriteMode::RecoverableThenStandard);
        // Looked at after every second written, as a crash would leave it: at most a
        // second and a frame may be missing (so before that, the file may hold nothing).
        const double period = 1.0 / c.content.fps;
        for (int second = 1; second <= 3; ++second) {
            writeContent(w, c.content, (second - 1) * c.content.fps, second * c.content.fps);
            const double least = second - 1.0 - period;
            MediaFile f;
            std::string err;
            const bool read = readMediaFile(file, f, &err, false);
            if (least <= 0 && !read)
                continue;
            ASSERT_TRUE(read) << "after " << second << " s: " << err;
            if (c.content.video) {
                const double seconds = f.video() ? f.video()->packetPts.size() * period : 0;
                EXPECT_GE(seconds, least - 1e-6) << "after " << second << " s";
            }
            if (c.content.audio) {
                // Plus a block of sound that waits in the interleaver for the next frame.
                EXPECT_GE(f.audioSeconds(), least - 1024.0 / kRate - c.extraSoundDelay)
                    << "after " << second << " s";
            }
        }
        testutil::captureStdout([&] { w.flush(); });
        const MediaFile f = decoded(file);
        if (c.content.video) {
            EXPECT_EQ(f.frames.size(), size_t(c.content.frames));
        }
    }
}

namespace {

// A tiny tmpfs mounted for one test; unmounted (lazily) at the end.
struct SmallDisk {
    std::string path;
    int error = 0; // errno of a failed mount

    explicit SmallDisk(const std::string &where)
        : path(where)
    {
        std::filesystem::create_directory(path);
        if (mount("tmpfs", path.c_str(), "tmpfs", 0, "size=1m") != 0)
            error = errno;
    }
    ~SmallDisk()
    {
        if (error == 0)
            umount2(path.c_str(), MNT_DETACH);
    }
    // Takes all free space but `leave` bytes.
    bool fill(uint64_t leave) const
    {
        struct statvfs fs;
        if (statvfs(path.c_str(), &fs) != 0)
            return false;
        const uint64_t free = uint64_t(fs.f_bavail) * fs.f_frsize;
        const int fd = open((path + "/filler").c_str(), O_WRONLY | O_CREAT, 0600);
        const bool ok = fd >= 0 && free > leave && posix_fallocate(fd, 0, off_t(free - leave)) == 0;
        if (fd >= 0)
            close(fd);
        return ok;
    }
};

// Records into `file`, lets `breakIt` spoil the rewrite before flush, and checks that the
// fragmented file stays whole and the message names the failed step.
void expectKeptAfterFailedRewrite(const std::string &file, const Content &c,
                                  const std::function<void()> &breakIt, const std::string &why)
{
    FFmpegApi w;
    openWriter(w, file, c, WriteMode::RecoverableThenStandard);
    writeContent(w, c, 0, c.frames);
    breakIt();
    std::string err;
    testutil::captureStdout([&] { err = testutil::captureStderr([&] { w.flush(); }); });

    EXPECT_NE(err.find("Could not rewrite " + file + " as a standard MP4: "), std::string::npos) << err;
    EXPECT_NE(err.find(why), std::string::npos) << err;
    EXPECT_NE(err.find("The fragmented file is kept"), std::string::npos) << err;
    EXPECT_GE(indexOf(topLevelBoxes(file), "moof"), 0) << joined(topLevelBoxes(file));
    const MediaFile f = decoded(file);
    EXPECT_EQ(f.frames.size(), size_t(c.frames));
    EXPECT_NEAR(f.audioSeconds(), c.frames / double(c.fps), 0.05);
}

} // namespace

TEST_F(RecoverableTest, ARewriteThatCannotCreateItsFileKeepsTheFragmentedOne)
{
    const std::string file = path("taken.mp4");
    const std::string temp = standardTempPath(file);
    expectKeptAfterFailedRewrite(file, {true, true, 30, 45},
                                 [&] { std::filesystem::create_directory(temp); },
                                 "creating " + temp + ": Is a directory");
    EXPECT_TRUE(std::filesystem::is_directory(temp)); // not ours to remove
}

TEST_F(RecoverableTest, ARewriteThatRunsOutOfSpaceKeepsTheFragmentedOneAndRemovesItsCopy)
{
    SmallDisk disk(path("small"));
    if (disk.error != 0)
        GTEST_SKIP() << "cannot mount a small tmpfs here (" << strerror(disk.error)
                     << "): needs root";
    const std::string file = disk.path + "/full.mp4";
    // Ten seconds: some 90 KB, mostly sound, against 4 KiB pages.
    expectKeptAfterFailedRewrite(file, {true, true, 30, 300}, [&] {
        // Room for half a copy of what was written so far.
        ASSERT_TRUE(disk.fill(std::filesystem::file_size(file) / 2));
    }, // the step is the one whose write met the full disk (buffered: at the latest the index)
       " " + standardTempPath(file) + ": No space left on device");
    EXPECT_FALSE(std::filesystem::exists(standardTempPath(file)));
}
