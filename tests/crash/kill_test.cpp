// Recordings through the built plugin that end badly or well: one killed at any moment
// leaves a file that plays (a child process records and is sent SIGKILL at pseudo-random
// moments); one stopped cleanly is a standard MP4 by the time isRecording() says false.
#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <poll.h>
#include <random>
#include <signal.h>
#include <spawn.h>
#include <string>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>
#include <vector>

#include "media/standardmp4.h"
#include "simulatedmic.h"
#include "support/loadedrecorder.h"
#include "support/mediareader.h"
#include "support/mp4boxes.h"
#include "support/testutil.h"
#include "syntheticcamera.h"

extern char **environ;

namespace {

using Clock = std::chrono::steady_clock;

constexpr int kKillsPerContainer = 10;
// Kill moments, seconds after the recording answered that it started.
constexpr double kEarliestKill = 1.0;
constexpr double kLatestKill = 10.0;
// Fixed, so that a failure comes back with the same moments.
constexpr unsigned kSeed = 14;
// At most this much before the kill may be missing from the file, seconds.
constexpr double kMostLost = 1.5;
// The child's frame period (crash_recorder records at 30 fps), seconds.
constexpr double kFramePeriod = 1.0 / 30;
// Longest wait for the child to say it records (it loads the plugin first).
constexpr auto kStartWait = std::chrono::seconds(30);

struct Kill {
    std::string file;
    double at = 0;          // planned moment, seconds after the start line
    double actual = 0;      // when SIGKILL went, seconds after the start line
    double startWait = 0;   // seconds from the spawn to the start line
    double reapWait = 0;    // seconds from SIGKILL to the child's end
    std::string failure;    // why the child could not be killed as planned
};

std::string tail(const std::string &path)
{
    std::ifstream in(path);
    std::string all((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    return all.size() > 2000 ? all.substr(all.size() - 2000) : all;
}

// Reads from `fd` until a line "recording" or the deadline; true when it came.
bool waitForStartLine(int fd, Clock::time_point deadline)
{
    std::string got;
    while (got.find("recording\n") == std::string::npos) {
        const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now());
        if (left.count() <= 0)
            return false;
        pollfd p{fd, POLLIN, 0};
        if (poll(&p, 1, int(left.count())) <= 0)
            continue;
        char buf[64];
        const ssize_t n = read(fd, buf, sizeof buf);
        if (n <= 0)
            return false; // the child ended
        got.append(buf, size_t(n));
    }
    return true;
}

// Starts crash_recorder on k.file, waits for its start line, sleeps until the kill moment
// (the sleep is what is tested, not a synchronisation) and kills it.
void recordAndKill(Kill &k, const std::string &log)
{
    int fds[2];
    if (pipe2(fds, O_CLOEXEC) != 0) {
        k.failure = std::string("pipe: ") + strerror(errno);
        return;
    }
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, fds[1], 3);
    posix_spawn_file_actions_addopen(&actions, 1, log.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    posix_spawn_file_actions_adddup2(&actions, 1, 2);
    std::string program = CRASH_RECORDER;
    std::string file = k.file;
    char *argv[] = {program.data(), file.data(), nullptr};
    pid_t pid = -1;
    const int spawned = posix_spawn(&pid, program.c_str(), &actions, nullptr, argv, environ);
    posix_spawn_file_actions_destroy(&actions);
    close(fds[1]);
    if (spawned != 0) {
        close(fds[0]);
        k.failure = std::string("posix_spawn: ") + strerror(spawned);
        return;
    }
    const auto spawnedAt = Clock::now();
    const bool started = waitForStartLine(fds[0], spawnedAt + kStartWait);
    const auto t0 = Clock::now();
    k.startWait = std::chrono::duration<double>(t0 - spawnedAt).count();
    if (started)
        std::this_thread::sleep_until(t0 + std::chrono::duration<double>(k.at));
    kill(pid, SIGKILL);
    k.actual = std::chrono::duration<double>(Clock::now() - t0).count();
    const auto killedAt = Clock::now();
    int status = 0;
    waitpid(pid, &status, 0);
    k.reapWait = std::chrono::duration<double>(Clock::now() - killedAt).count();
    close(fds[0]);
    if (!started)
        k.failure = "the recording did not start; its output:\n" + tail(log);
    else if (!WIFSIGNALED(status))
        k.failure = "the recorder ended by itself; its output:\n" + tail(log);
}

// Where a stream's last packet ends, seconds.
double streamEnd(const MediaStream &s, double fallbackDuration)
{
    const auto last = std::max_element(s.packetPts.begin(), s.packetPts.end());
    const int64_t duration = s.packetDuration[size_t(last - s.packetPts.begin())];
    return *last * av_q2d(s.timeBase) + (duration > 0 ? duration * av_q2d(s.timeBase) : fallbackDuration);
}

// Checks one killed recording.
void expectPlayable(const Kill &k)
{
    SCOPED_TRACE(k.file + " killed " + std::to_string(k.actual) + " s into the recording");
    ASSERT_EQ(k.failure, "");
    MediaFile f;
    std::string err;
    ASSERT_TRUE(readMediaFile(k.file, f, &err)) << err;
    ASSERT_NE(f.video(), nullptr);
    ASSERT_NE(f.audio(), nullptr);
    EXPECT_GE(f.frames.size() * kFramePeriod, k.actual - kMostLost);
    EXPECT_GE(f.audioSeconds(), k.actual - kMostLost);
    const double videoEnd = streamEnd(*f.video(), kFramePeriod);
    const double audioEnd = streamEnd(*f.audio(), 1024.0 / f.audioSampleRate);
    EXPECT_NEAR(videoEnd, audioEnd, kFramePeriod);
    std::printf("%s killed at %.2f s: %.2f s of picture, %.2f s of sound, ends %.3f / %.3f s "
                "(started in %.2f s, gone %.2f s after the kill)\n",
                k.file.c_str(), k.actual, f.frames.size() * kFramePeriod, f.audioSeconds(),
                videoEnd, audioEnd, k.startWait, k.reapWait);

    // A killed MP4 is what the recovery tool is for: its rewrite keeps every frame.
    if (k.file.size() > 4 && k.file.compare(k.file.size() - 4, 4, ".mp4") == 0) {
        ASSERT_TRUE(rewriteAsStandardMp4(k.file, &err)) << err;
        MediaFile standard;
        ASSERT_TRUE(readMediaFile(k.file, standard, &err, false)) << err;
        EXPECT_EQ(indexOf(topLevelBoxes(k.file), "moof"), -1);
        EXPECT_EQ(standard.video()->packetPts.size(), f.frames.size());
        // ...and its index skips the encoder's priming, which the fragments play: AAC's
        // 1024 samples of delay.
        EXPECT_EQ(f.samples.size() - standard.samples.size(), 1024u * f.audioChannels);
    }
}

} // namespace

TEST(KillTest, ARecordingKilledAtAnyMomentPlaysUpToJustBeforeTheKill)
{
    testutil::TempDir dir;
    std::mt19937 random(kSeed);
    std::uniform_real_distribution<double> moment(kEarliestKill, kLatestKill);
    const std::vector<std::string> containers = {"mp4", "mkv"};
    std::vector<std::vector<Kill>> kills(containers.size());
    for (size_t c = 0; c < containers.size(); ++c) {
        for (int i = 0; i < kKillsPerContainer; ++i) {
            Kill k;
            k.file = dir.file("kill" + std::to_string(i) + "." + containers[c]);
            k.at = moment(random);
            std::printf("%s: kill at %.2f s\n", k.file.c_str(), k.at);
            kills[c].push_back(k);
        }
    }
    std::fflush(stdout);
    // One recorder per container at a time, the containers side by side; each file is
    // checked while the other container's recorder runs.
    std::vector<std::thread> runners;
    for (size_t c = 0; c < containers.size(); ++c) {
        runners.emplace_back([&, c] {
            for (size_t i = 0; i < kills[c].size(); ++i) {
                recordAndKill(kills[c][i], dir.file(containers[c] + std::to_string(i) + ".log"));
                expectPlayable(kills[c][i]);
            }
        });
    }
    for (std::thread &t : runners)
        t.join();
}

TEST(CleanStopTest, IsRecordingTurnsFalseOnlyOnceTheStandardFileIsInPlace)
{
    testutil::TempDir dir;
    simulatedmic::reset();
    simulatedmic::addCameraMicrophone(48000, 1, 1000.0);
    SyntheticCamera camera(320, 240, 30);
    LoadedRecorder rec{QStringLiteral(RECORDER_PLUGIN_PATH)};
    ASSERT_TRUE(rec.loaded()) << qPrintable(rec.error());
    const std::string file = dir.file("clean.mp4");
    rec->setPluginComponent(&camera);
    rec->setFilename(QString::fromStdString(file));
    rec->vSetRecSize(320, 240);
    rec->setFps(30);
    testutil::captureStdout([&] {
        rec->startRecord();
        ASSERT_TRUE(rec->waitForRecordStart(20000));
        std::this_thread::sleep_for(std::chrono::seconds(2)); // the recording's length
        rec->stopRecord();
        ASSERT_TRUE(testutil::pollUntil([&] { return !rec->isRecording(); }, std::chrono::seconds(60)));
    });
    // Looked at the moment the recorder says it is done, before the session has ended.
    const std::vector<std::string> boxes = topLevelBoxes(file);
    EXPECT_EQ(indexOf(boxes, "moof"), -1) << joined(boxes);
    EXPECT_GE(indexOf(boxes, "moov"), 0) << joined(boxes);
    EXPECT_LT(indexOf(boxes, "moov"), indexOf(boxes, "mdat")) << joined(boxes);
    EXPECT_FALSE(std::filesystem::exists(standardTempPath(file)));
    EXPECT_TRUE(rec.waitSessionEnd(std::chrono::seconds(30)));
    MediaFile f;
    std::string err;
    ASSERT_TRUE(readMediaFile(file, f, &err, false)) << err;
    EXPECT_GE(f.video()->packetPts.size(), 45u);
    EXPECT_GE(f.audioSeconds(), 1.5);
}
