// Recordings through the built plugin that end badly or well: one killed at any moment
// leaves a file that plays (a child process records and is sent SIGKILL at moments spread
// over its first seconds); one stopped cleanly is a standard MP4 by the time isRecording()
// says false. The child is this program, run as `kill_test --record FILE`.
#include <gtest/gtest.h>

#include <QCoreApplication>
#include <chrono>
#include <cstdio>
#include <filesystem>
#include <signal.h>
#include <string>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>
#include <utility>
#include <vector>

#include "media/standardmp4.h"
#include "simulatedmic.h"
#include "support/loadedrecorder.h"
#include "support/mediareader.h"
#include "support/mp4boxes.h"
#include "support/testutil.h"
#include "syntheticcamera.h"

namespace {

using Clock = std::chrono::steady_clock;

// Kill moments per container, seconds after the recording answered that it started:
// across the first fragments (a group of pictures, 0.4 s at 30 fps) and disk syncs (every
// second), each at another place between them.
const std::pair<std::string, std::vector<double>> kKills[] = {
    {"mp4", {1.05, 1.75, 2.4, 3.3}},
    {"mkv", {1.3, 2.05, 2.85, 3.6}},
};
// At most this much before the kill may be missing from the file, seconds.
constexpr double kMostLost = 1.5;
// The frame period of both recordings, seconds.
constexpr double kFramePeriod = 1.0 / 30;

// Starts recording `file` through the loaded plugin from `camera` and the simulated
// microphone; false when it did not start.
bool startRecording(LoadedRecorder &rec, SyntheticCamera &camera, int width, int height,
                    const std::string &file)
{
    simulatedmic::reset();
    simulatedmic::addCameraMicrophone(48000, 1, 1000.0);
    if (!rec.loaded())
        return false;
    rec->setPluginComponent(&camera);
    rec->setFilename(QString::fromStdString(file));
    rec->vSetRecSize(width, height);
    rec->setFps(30);
    rec->startRecord();
    return rec->waitForRecordStart(20000);
}

// The child: records FILE at 640x480 until SIGKILL, after writing "recording PID" on the
// pipe that is its standard output; later output goes where standard error goes, so that
// the pipe never fills.
int recordUntilKilled(int argc, char **argv)
{
    QCoreApplication app(argc, argv);
    SyntheticCamera camera(640, 480, 30);
    LoadedRecorder rec{QStringLiteral(RECORDER_PLUGIN_PATH)};
    if (!startRecording(rec, camera, 640, 480, argv[2])) {
        std::fprintf(stderr, "the recording did not start %s\n", qPrintable(rec.error()));
        return 1;
    }
    std::printf("recording %d\n", int(getpid()));
    std::fflush(stdout);
    dup2(2, 1);
    for (;;)
        std::this_thread::sleep_for(std::chrono::hours(1));
}

// Runs the child on `file`, reads its output up to the start line, sleeps until `at`
// seconds after it (the sleep is what is tested, not a synchronisation) and kills it.
// Returns when SIGKILL went, seconds after the start line; -1 after a failure.
double recordAndKill(const std::string &file, double at)
{
    const std::string self = std::filesystem::read_symlink("/proc/self/exe");
    FILE *child = popen(("exec '" + self + "' --record '" + file + "'").c_str(), "r");
    std::string out;
    char line[512];
    int pid = 0;
    // A child that cannot start ends by itself (it waits 20 s at most for the recording).
    while (child && pid == 0 && std::fgets(line, sizeof line, child)) {
        out += line;
        std::sscanf(line, "recording %d", &pid);
    }
    const auto startedAt = Clock::now();
    if (pid > 0) {
        std::this_thread::sleep_until(startedAt + std::chrono::duration<double>(at));
        kill(pid, SIGKILL);
    }
    const double killedAt = std::chrono::duration<double>(Clock::now() - startedAt).count();
    const int status = child ? pclose(child) : -1;
    if (pid > 0 && WIFSIGNALED(status))
        return killedAt;
    ADD_FAILURE() << "the recorder did not start, or ended by itself; its output:\n" << out;
    return -1;
}

void expectPlayable(const std::string &file, double killedAt)
{
    SCOPED_TRACE(file + " killed " + std::to_string(killedAt) + " s into the recording");
    MediaFile f;
    std::string err;
    ASSERT_TRUE(readMediaFile(file, f, &err, true, false)) << err;
    ASSERT_TRUE(f.video() && f.audio() && !f.framePts.empty());
    EXPECT_GE(f.framePts.size() * kFramePeriod, killedAt - kMostLost);
    EXPECT_GE(f.audioSeconds(), killedAt - kMostLost);
    EXPECT_NEAR(f.video()->durationSeconds(), f.audio()->durationSeconds(), kFramePeriod);
    if (file.compare(file.size() - 4, 4, ".mp4") != 0)
        return;
    // A killed MP4 is what the recovery tool is for: its rewrite keeps every frame, and
    // its index skips the encoder's priming, which the fragments play: AAC's 1024 samples.
    ASSERT_TRUE(rewriteAsStandardMp4(file, &err)) << err;
    MediaFile standard;
    ASSERT_TRUE(readMediaFile(file, standard, &err, false)) << err;
    EXPECT_TRUE(isStandardLayout(topLevelBoxes(file))) << topLevelBoxes(file);
    EXPECT_EQ(standard.video()->packetPts.size(), f.framePts.size());
    EXPECT_EQ(f.samples.size() - standard.samples.size(), 1024u * f.audioChannels);
}

} // namespace

TEST(KillTest, ARecordingKilledAtAnyMomentPlaysUpToJustBeforeTheKill)
{
    testutil::TempDir dir;
    // One recorder per container at a time, the containers side by side; each file is
    // checked while the other container's recorder runs.
    std::vector<std::thread> runners;
    for (const auto &kills : kKills) {
        runners.emplace_back([&dir, &kills] {
            for (size_t i = 0; i < kills.second.size(); ++i) {
                const std::string file = dir.file("kill" + std::to_string(i) + "." + kills.first);
                const double killedAt = recordAndKill(file, kills.second[i]);
                if (killedAt >= 0)
                    expectPlayable(file, killedAt);
            }
        });
    }
    for (std::thread &t : runners)
        t.join();
}

TEST(CleanStopTest, IsRecordingTurnsFalseOnlyOnceTheStandardFileIsInPlace)
{
    testutil::TempDir dir;
    SyntheticCamera camera(320, 240, 30);
    LoadedRecorder rec{QStringLiteral(RECORDER_PLUGIN_PATH)};
    const std::string file = dir.file("clean.mp4");
    testutil::captureStdout([&] {
        ASSERT_TRUE(startRecording(rec, camera, 320, 240, file)) << qPrintable(rec.error());
        std::this_thread::sleep_for(std::chrono::seconds(2)); // the recording's length
        rec->stopRecord();
        ASSERT_TRUE(testutil::pollUntil([&] { return !rec->isRecording(); }, std::chrono::seconds(60)));
    });
    // Looked at the moment the recorder says it is done, before the session has ended.
    EXPECT_TRUE(isStandardLayout(topLevelBoxes(file))) << topLevelBoxes(file);
    EXPECT_FALSE(std::filesystem::exists(standardTempPath(file)));
    MediaFile f;
    std::string err;
    ASSERT_TRUE(readMediaFile(file, f, &err, false)) << err;
    EXPECT_GE(f.video()->packetPts.size(), 45u);
    EXPECT_GE(f.audioSeconds(), 1.5);
}

int main(int argc, char **argv)
{
    if (argc == 3 && std::string(argv[1]) == "--record")
        return recordUntilKilled(argc, argv);
    testing::InitGoogleTest(&argc, argv);
    return RUN_ALL_TESTS();
}
