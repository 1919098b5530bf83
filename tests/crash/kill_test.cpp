// Recordings through the built plugin that end badly or well: one killed at any moment
// leaves a file that plays (a child process records and is sent SIGKILL at moments spread
// over its first seconds); one stopped cleanly is a standard MP4 by the time isRecording()
// says false. The child is this program, run as `kill_test --record FILE`.
#include <gtest/gtest.h>

#include <QCoreApplication>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <future>
#include <signal.h>
#include <string>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>
#include <utility>
#include <vector>

#include "media/inplacemp4.h"
#include "fakealsa.h"
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
const std::pair<std::string, std::vector<double>> kKills[] = {{"mp4", {1.05, 2.4, 3.3}},
                                                             {"mkv", {1.75, 2.6, 2.85}}};
// At most this much before the kill may be missing from the file, seconds.
constexpr double kMostLost = 1.5;
// The frame period of both recordings, seconds.
constexpr double kFramePeriod = 1.0 / 30;

// Starts recording `file` at 640x480 through the loaded plugin from `camera` (of that
// size) and the simulated microphone, unplugged for good `unplugMs` after it starts (-1:
// never); false when it did not start.
bool startRecording(LoadedRecorder &rec, SyntheticCamera &camera, const std::string &file, long unplugMs = -1)
{
    fakealsa::reset();
    fakealsa::Capture mic;
    mic.rates = {48000};
    mic.channels = {1};
    mic.unplugAfterMs = unplugMs;
    fakealsa::addCard("KW-08P USBCamera", {}, mic);
    if (!rec.loaded())
        return false;
    rec->setPluginComponent(&camera);
    rec->setFilename(QString::fromStdString(file));
    rec->vSetRecSize(640, 480);
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
    if (!startRecording(rec, camera, argv[2], argc > 3 ? std::atol(argv[3]) : -1)) {
        std::fprintf(stderr, "the recording did not start %s\n", qPrintable(rec.error()));
        return 1;
    }
    dprintf(1, "recording %d\n", int(getpid())); // unbuffered, whatever stdout holds
    dup2(2, 1);
    for (;;)
        std::this_thread::sleep_for(std::chrono::hours(1));
}

// What a recording killed `killedAt` s in left in `file`.
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
    // A killed MP4 is what the recovery tool is for: its finish keeps every frame, and
    // its index skips the encoder's priming, which the fragments play: AAC's 1024 samples.
    ASSERT_TRUE(finishMp4InPlace(file, &err)) << err;
    MediaFile standard;
    ASSERT_TRUE(readMediaFile(file, standard, &err, false)) << err;
    EXPECT_EQ(standard.video()->packetPts.size(), f.framePts.size());
    EXPECT_EQ(f.samples.size() - standard.samples.size(), 1024u * f.audioChannels);
}

// Runs the child on `file` (its microphone unplugged `unplugMs` in, -1: never), reads its
// output up to the start line, sleeps until `at` seconds after it (the sleep is what is
// tested, not a synchronisation), kills it and checks what it left.
void recordKillAndCheck(const std::string &file, double at, long unplugMs = -1)
{
    const std::string self = "/proc/" + std::to_string(getpid()) + "/exe"; // this program
    FILE *child = popen(("exec " + self + " --record '" + file + "' " + std::to_string(unplugMs)).c_str(), "r");
    char line[512];
    int pid = 0;
    // A child that cannot start ends by itself (it waits 20 s at most for the recording).
    while (child && pid == 0 && std::fgets(line, sizeof line, child))
        std::sscanf(line, "recording %d", &pid);
    const auto startedAt = Clock::now();
    if (pid > 0) {
        std::this_thread::sleep_until(startedAt + std::chrono::duration<double>(at));
        kill(pid, SIGKILL);
    }
    const double killedAt = std::chrono::duration<double>(Clock::now() - startedAt).count();
    const int status = child ? pclose(child) : -1;
    const bool killed = pid > 0 && WIFSIGNALED(status);
    EXPECT_TRUE(killed) << "the recorder did not start, or ended by itself";
    if (killed)
        expectPlayable(file, killedAt);
}

} // namespace

TEST(KillTest, ARecordingKilledAtAnyMomentPlaysUpToJustBeforeTheKill)
{
    testutil::TempDir dir;
    // One recorder per container at a time, the containers side by side; each file is
    // checked while the other container's recorder runs.
    std::vector<std::future<void>> runners; // each waits for its task as it goes
    for (const auto &kills : kKills) {
        runners.push_back(std::async(std::launch::async, [&dir, &kills] {
            for (size_t i = 0; i < kills.second.size(); ++i)
                recordKillAndCheck(dir.file("kill" + std::to_string(i) + "." + kills.first), kills.second[i]);
        }));
    }
}

// A microphone lost for good never keeps the picture (or the sound's place) out of the file.
TEST(KillTest, ARecordingKilledLongAfterItsMicrophoneWentPlaysUpToJustBeforeTheKill)
{
    testutil::TempDir dir;
    recordKillAndCheck(dir.file("unplugged.mp4"), 8.0, 2000);
}

TEST(CleanStopTest, IsRecordingTurnsFalseOnlyOnceTheStandardFileIsInPlace)
{
    testutil::TempDir dir;
    SyntheticCamera camera(640, 480, 30);
    LoadedRecorder rec{QStringLiteral(RECORDER_PLUGIN_PATH)};
    const std::string file = dir.file("clean.mp4");
    ASSERT_TRUE(startRecording(rec, camera, file)) << qPrintable(rec.error());
    std::this_thread::sleep_for(std::chrono::seconds(1)); // the recording's length
    rec->stopRecord();
    ASSERT_TRUE(testutil::pollUntil([&] { return !rec->isRecording(); }, std::chrono::seconds(60)));
    // Looked at the moment the recorder says it is done, before the session has ended. What
    // the finish keeps is the writer's test's; what a recording holds, the session's.
    EXPECT_TRUE(isStandardLayout(topLevelBoxes(file))) << topLevelBoxes(file);
    // Nothing of the finish is left beside the file.
    for (const auto &entry : std::filesystem::directory_iterator(dir.path()))
        EXPECT_EQ(entry.path().string(), file);
}

int main(int argc, char **argv)
{
    if ((argc == 3 || argc == 4) && std::string(argv[1]) == "--record")
        return recordUntilKilled(argc, argv);
    testing::InitGoogleTest(&argc, argv);
    return RUN_ALL_TESTS();
}
