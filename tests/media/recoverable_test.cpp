// Files that survive a crash: what a file being written holds at any moment, the
// standard MP4 a clean stop leaves in place, what a finish cut short at any step leaves,
// and files that finishing refuses or cannot finish.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <string>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>
#include <vector>

#include <opencv2/core.hpp>

#include "media/ffmpegapi.h"
#include "media/inplacemp4.h"
#include "media/mp4fragments.h"
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

struct stat statOf(const std::string &path)
{
    struct stat st {};
    EXPECT_EQ(stat(path.c_str(), &st), 0) << path;
    return st;
}

// Decoded the same: every stream's packet times and start, every picture's pixels, every
// sound sample.
void expectSameDecoding(const std::string &got, const std::string &want)
{
    MediaFile g, w;
    std::string err;
    ASSERT_TRUE(readMediaFile(got, g, &err)) << got << ": " << err;
    ASSERT_TRUE(readMediaFile(want, w, &err)) << want << ": " << err;
    ASSERT_EQ(g.streams.size(), w.streams.size());
    for (size_t i = 0; i < g.streams.size(); ++i) {
        EXPECT_EQ(g.streams[i].packetPts, w.streams[i].packetPts) << "stream " << i;
        EXPECT_EQ(std::isnan(g.streams[i].startSeconds), std::isnan(w.streams[i].startSeconds));
        if (!std::isnan(w.streams[i].startSeconds)) {
            EXPECT_DOUBLE_EQ(g.streams[i].startSeconds, w.streams[i].startSeconds) << "stream " << i;
        }
    }
    EXPECT_EQ(g.framePts, w.framePts);
    ASSERT_EQ(g.frames.size(), w.frames.size());
    for (size_t f = 0; f < g.frames.size(); ++f)
        EXPECT_EQ(cv::norm(g.frames[f], w.frames[f], cv::NORM_INF), 0) << "picture " << f;
    EXPECT_TRUE(g.samples == w.samples) << g.samples.size() << " samples against " << w.samples.size();
    EXPECT_EQ(g.audioStartSeconds, w.audioStartSeconds);
}

// A fragmented recording as a crash leaves it: `c` written in Recoverable mode, the first
// `keep` of its bytes.
void recordFragmented(const std::string &path, const Content &c, double keep = 1)
{
    record(path, c, WriteMode::Recoverable);
    std::filesystem::resize_file(path, uintmax_t(keep * std::filesystem::file_size(path)));
}

// Finished both ways: in place, and by today's copy with its index at the front.
void finishBothWays(const std::string &file, const std::string &copy)
{
    std::filesystem::copy_file(file, copy, std::filesystem::copy_options::overwrite_existing);
    std::string err;
    ASSERT_TRUE(rewriteAsStandardMp4(copy, &err)) << err;
    ASSERT_TRUE(finishMp4InPlace(file, &err)) << err;
}

// The offset of the first box of `type` in `bytes` (its size field).
size_t boxAt(const std::string &bytes, const char *type)
{
    const size_t at = bytes.find(type);
    EXPECT_NE(at, std::string::npos) << type;
    return at == std::string::npos ? 0 : at - 4;
}

void set32(std::string &bytes, size_t at, uint32_t v)
{
    for (int i = 0; i < 4; ++i)
        bytes[at + i] = char(v >> (24 - 8 * i));
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
    // A link planted where a copy would be made is neither followed nor in the way.
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
        // The same file: its inode, and the mode it was given while recording.
        ASSERT_EQ(chmod(file.c_str(), 0600), 0);
        const ino_t inode = statOf(file).st_ino;
        w.flush(); // a failed finish leaves the file fragmented
        EXPECT_EQ(statOf(file).st_ino, inode);
        EXPECT_EQ(statOf(file).st_mode & 07777, 0600u);
        EXPECT_EQ(testutil::readFileBytes(victim), "the user's own");
        const MediaFile got = decoded(file);
        EXPECT_EQ(got.framePts.size(), size_t(c.video ? c.frames : 0));
        if (c.ext != std::string("mp4") && c.ext != std::string("mov"))
            continue;
        EXPECT_EQ(topLevelBoxes(file), "ftyp mdat moov");
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

TEST(RecoverableTest, AFinishInPlaceDecodesAsTheCopyDidAlsoAfterACrash)
{
    testutil::TempDir dir;
    struct Case {
        Content content;
        double keep; // of the fragmented file, what a crash left
    };
    const Case cases[] = {
        {{true, false, 30, 45}, 1}, {{true, true, 30, 45}, 1},  {{false, true, 30, 45}, 1},
        {{true, true, 30, 45, "mov"}, 1}, {{true, true, 1, 3}, 1},
        // Cut inside a fragment's media data, and inside a fragment header (found below).
        {{true, true, 30, 90}, 0.7}, {{true, true, 30, 90}, 0},
    };
    for (const Case &c : cases) {
        const std::string name = std::to_string(&c - cases) + "." + c.content.ext;
        SCOPED_TRACE(name);
        const std::string file = dir.file(name), copy = dir.file("copy" + name);
        recordFragmented(file, c.content, c.keep ? c.keep : 1);
        if (c.keep == 0) {
            const std::string bytes = testutil::readFileBytes(file);
            std::filesystem::resize_file(file, bytes.rfind("moof") + 20);
        }
        finishBothWays(file, copy);
        EXPECT_EQ(topLevelBoxes(file), "ftyp mdat moov");
        expectSameDecoding(file, copy);
    }
}

TEST(RecoverableTest, AFinishCutShortAtAnyStepLeavesAFileThatPlaysAndCanBeFinished)
{
    testutil::TempDir dir;
    const Content c{true, true, 30, 60};
    const std::string fragmented = dir.file("fragmented.mp4"), finished = dir.file("finished.mp4");
    recordFragmented(fragmented, c);
    std::filesystem::copy_file(fragmented, finished);
    std::string err;
    ASSERT_TRUE(finishMp4InPlace(finished, &err)) << err;
    const std::string whole = testutil::readFileBytes(finished);
    const size_t indexBytes = whole.size() - std::filesystem::file_size(fragmented);
    struct Case {
        const char *name;
        FinishStep stopAfter;
        uint64_t cutIndex;  // bytes of the new index cut off at its end, as a crash may
        bool standardAfter; // whether the stop leaves the standard file
    };
    const Case cases[] = {
        {"cut inside the index", FinishStep::IndexAppended, indexBytes / 2, false},
        {"index appended", FinishStep::IndexAppended, 0, false},
        {"index synced", FinishStep::IndexSynced, 0, false},
        {"header rewritten", FinishStep::HeaderRewritten, 0, true},
        {"header synced", FinishStep::HeaderSynced, 0, true},
    };
    for (const Case &k : cases) {
        SCOPED_TRACE(k.name);
        const std::string file = dir.file(std::string(k.name) + ".mp4");
        std::filesystem::copy_file(fragmented, file);
        ASSERT_TRUE(finishMp4InPlace(file, &err, k.stopAfter)) << err;
        std::filesystem::resize_file(file, std::filesystem::file_size(file) - k.cutIndex);
        // It plays as the fragments did until the header is rewritten, then as finished.
        expectSameDecoding(file, k.standardAfter ? finished : fragmented);
        // Finished again (the recovery tool's work): the same bytes as a finish never cut.
        EXPECT_EQ(finishMp4InPlace(file, &err), !k.standardAfter) << err;
        EXPECT_TRUE(testutil::readFileBytes(file) == whole);
    }
}

TEST(RecoverableTest, AFileThatIsNotAFragmentedRecordingIsRefusedAndLeftAsItWas)
{
    testutil::TempDir dir;
    const Content c{true, true, 30, 30};
    recordFragmented(dir.file("fragmented.mp4"), c);
    record(dir.file("standard.mp4"), c, WriteMode::IndexAtEnd);
    recordFragmented(dir.file("faststart.mp4"), c);
    ASSERT_TRUE(rewriteAsStandardMp4(dir.file("faststart.mp4"), nullptr));
    recordFragmented(dir.file("finished.mp4"), c);
    std::string err;
    ASSERT_TRUE(finishMp4InPlace(dir.file("finished.mp4"), &err)) << err;
    const std::string frag = testutil::readFileBytes(dir.file("fragmented.mp4"));
    std::string lyingMoof = frag, lyingTrun = frag, lyingMdat = frag, lyingTrak = frag;
    set32(lyingMoof, boxAt(frag, "moof"), 4);
    set32(lyingTrun, boxAt(frag, "trun") + 12, 0x10000000); // its sample count
    set32(lyingMdat, boxAt(frag, "mdat"), 16);
    set32(lyingTrak, boxAt(frag, "trak"), 0x7fffffff);
    std::string noise(100000, '\0');
    cv::randu(cv::Mat(1, int(noise.size()), CV_8U, noise.data()), 0, 256);
    const struct {
        const char *name;
        std::string bytes;
        const char *why;
    } cases[] = {
        {"empty", "", "not an MP4 file"},
        {"random bytes", noise, "not an MP4 file"},
        {"another MP4", testutil::readFileBytes(dir.file("standard.mp4")), "its index (moov) does not follow"},
        {"another MP4, its index first", testutil::readFileBytes(dir.file("faststart.mp4")),
         "its index declares no fragments"},
        {"already finished", testutil::readFileBytes(dir.file("finished.mp4")), "its index (moov) does not follow"},
        {"cut inside its index", frag.substr(0, boxAt(frag, "trak")), "the file ends inside its index"},
        {"a fragment header of 4 bytes", lyingMoof, "has an impossible size"},
        {"a run of more samples than it holds", lyingTrun, "claims more samples than it holds"},
        {"media data smaller than its samples", lyingMdat, "outside its fragment's media data"},
        {"a track larger than the index", lyingTrak, "has a size that does not fit"},
    };
    for (const auto &k : cases) {
        SCOPED_TRACE(k.name);
        const std::string file = dir.file(std::string(k.name) + ".mp4");
        testutil::writeFileBytes(file, k.bytes);
        EXPECT_FALSE(finishMp4InPlace(file, &err));
        EXPECT_NE(err.find(file + ": "), std::string::npos) << err;
        EXPECT_NE(err.find(k.why), std::string::npos) << err;
        EXPECT_TRUE(testutil::readFileBytes(file) == k.bytes);
    }
}

// Offsets past 4 GiB: a sparse gap (a free box) between the initial index and the
// fragments, which count their data from their own headers and so play as before.
TEST(RecoverableTest, OffsetsPast4GiBTakeA64BitMediaHeaderAndChunkOffsets)
{
    testutil::TempDir dir;
    const std::string small = dir.file("small.mp4"), big = dir.file("big.mp4");
    recordFragmented(small, Content{true, true, 30, 30});
    const std::string bytes = testutil::readFileBytes(small);
    const size_t fragments = boxAt(bytes, "moof");
    const uint64_t gap = (uint64_t(9) << 29) - 8; // 4.5 GiB
    std::string freeBox("\0\0\0\1free", 8);
    for (int i = 7; i >= 0; --i)
        freeBox += char((gap + 16) >> (8 * i));
    {
        std::ofstream out(big, std::ios::binary);
        out << bytes.substr(0, fragments) << freeBox;
        out.seekp(std::streamoff(fragments + 16 + gap));
        out << bytes.substr(fragments);
        ASSERT_TRUE(out.good());
    }
    const uint64_t index = std::filesystem::file_size(big); // where the new one goes
    std::string err;
    ASSERT_TRUE(finishMp4InPlace(small, &err)) << err;
    ASSERT_TRUE(finishMp4InPlace(big, &err)) << err;
    EXPECT_EQ(topLevelBoxes(big), "ftyp mdat moov");
    std::ifstream in(big, std::ios::binary);
    std::string head(64, '\0');
    in.read(head.data(), 64);
    EXPECT_EQ(head.substr(boxAt(bytes, "moov"), 8), std::string("\0\0\0\1mdat", 8));
    std::string moov(std::filesystem::file_size(big) - index, '\0');
    in.seekg(std::streamoff(index));
    in.read(moov.data(), std::streamsize(moov.size()));
    EXPECT_NE(moov.find("co64"), std::string::npos);
    EXPECT_EQ(moov.find("stco"), std::string::npos);
    expectSameDecoding(big, small);
}

// Durations past 32 bits (sound of over 50 days in the movie's milliseconds): the headers
// and the edit list that hold them turn to their 64-bit versions, the other fields kept.
TEST(RecoverableTest, DurationsPast32BitsTakeThe64BitVersionsOfTheHeaders)
{
    testutil::TempDir dir;
    recordFragmented(dir.file("sound.mp4"), Content{false, true, 30, 90});
    const std::string bytes = testutil::readFileBytes(dir.file("sound.mp4"));
    MemoryMp4Source source(reinterpret_cast<const uint8_t *>(bytes.data()), bytes.size());
    FragmentedMp4 file;
    std::string err, moov;
    ASSERT_TRUE(readFragmentedMp4(source, &file, &err)) << err;
    ASSERT_EQ(file.tracks.size(), 1u);
    Mp4Track &t = file.tracks[0];
    for (Mp4Sample &s : t.samples)
        s.duration = 1u << 31;
    ASSERT_TRUE(buildStandardMoov(file, &moov, &err)) << err;
    // The sound as played: from the end of the priming the edit skips (AAC's 1024
    // samples, as before) to the end of the media, in the movie's time scale.
    const uint64_t media = uint64_t(t.samples.size()) << 31;
    const uint64_t shown = ((media - 1024) * file.movieTimescale + t.timescale - 1) / t.timescale;
    // The 64-bit field at `at` bytes into the payload of the first `type` box.
    const auto field = [&](const char *type, size_t at) {
        const size_t payload = moov.find(type) + 4;
        uint64_t v = 0;
        for (size_t i = 0; i < 8; ++i)
            v = v << 8 | uint8_t(moov[payload + at + i]);
        return v;
    };
    for (const char *type : {"mvhd", "tkhd", "mdhd", "elst"})
        EXPECT_EQ(moov[moov.find(type) + 4], 1) << type << " version";
    EXPECT_EQ(field("mdhd", 20) >> 32, t.timescale); // the time scale, then the duration
    EXPECT_EQ(field("mdhd", 24), media);
    EXPECT_EQ(field("mvhd", 24), shown);
    EXPECT_EQ(field("tkhd", 20) >> 32, t.id); // the track's id, then the duration
    EXPECT_EQ(field("tkhd", 28), shown);
    EXPECT_EQ(field("elst", 8), shown);
    EXPECT_EQ(field("elst", 16), 1024u); // where the media starts to play
}

// Full disks (root only: a tmpfs of its own).
TEST(RecoverableTest, ADiskWithRoomForTheIndexNotACopyEndsWithTheStandardFileAndOneWithoutKeepsTheFragments)
{
    testutil::TempDir dir;
    const Content c{true, true, 30, 60};
    recordFragmented(dir.file("measure.mp4"), c);
    const uint64_t size = std::filesystem::file_size(dir.file("measure.mp4"));
    testutil::ScratchDisk disk(dir.file("disk"), 4);
    if (!disk.mounted())
        GTEST_SKIP() << "needs root and a tmpfs mount to make a full disk";
    // Room for the recording and its index (a few KiB), not for a copy of it.
    constexpr uint64_t kMargin = 256 << 10;
    struct statvfs fs {};
    ASSERT_EQ(statvfs(disk.path().c_str(), &fs), 0);
    const uint64_t room = uint64_t(fs.f_bavail) * fs.f_frsize;
    ASSERT_GT(room, 2 * size + kMargin);
    testutil::writeFileBytes(disk.path() + "/filler", std::string(room - size - kMargin, 'f'));
    const std::string file = disk.path() + "/rec.mp4";
    EXPECT_EQ(record(file, c, WriteMode::RecoverableThenStandard), "");
    EXPECT_EQ(topLevelBoxes(file), "ftyp mdat moov");
    EXPECT_EQ(decoded(file).framePts.size(), size_t(c.frames));

    // Room for the recording's whole pages and no more: its index does not fit, the
    // writer says so and keeps the fragmented file as it was.
    std::string err;
    ASSERT_TRUE(finishMp4InPlace(dir.file("measure.mp4"), &err)) << err;
    const uint64_t index = std::filesystem::file_size(dir.file("measure.mp4")) - size;
    const uint64_t page = fs.f_frsize, pages = (size + page - 1) / page;
    ASSERT_GT(index, pages * page - size); // more than the last page has left
    std::filesystem::remove(file);
    std::filesystem::remove(disk.path() + "/filler");
    ASSERT_EQ(statvfs(disk.path().c_str(), &fs), 0);
    testutil::writeFileBytes(disk.path() + "/filler",
                             std::string(uint64_t(fs.f_bavail) * fs.f_frsize - pages * page, 'f'));
    const std::string second = disk.path() + "/second.mp4";
    const std::string said = record(second, c, WriteMode::RecoverableThenStandard);
    EXPECT_NE(said.find("Could not finish " + second + " as a standard MP4: writing the index of "
                        + second + ": No space left on device. The fragmented file is kept"),
              std::string::npos) << said;
    EXPECT_EQ(std::filesystem::file_size(second), size);
    EXPECT_NE(topLevelBoxes(second).find("moof"), std::string::npos) << topLevelBoxes(second);
    EXPECT_EQ(decoded(second).framePts.size(), size_t(c.frames));
}
