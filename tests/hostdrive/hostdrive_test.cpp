// The plugin as hosts drive it, right or wrong: outputs that cannot be opened, and every
// public operation from several threads at once in random order. Nothing may crash,
// hang or leave a file that does not play.
#include <QCoreApplication>
#include <gtest/gtest.h>

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <fcntl.h>
#include <filesystem>
#include <random>
#include <sys/stat.h>
#include <thread>
#include <unistd.h>
#include <vector>

#include "support/loadedrecorder.h"
#include "support/mediareader.h"
#include "support/testutil.h"
#include "tools/syntheticcamera.h"

using namespace std::chrono_literals;

namespace {

// Longest a host may wait for a start to be answered or a stop to be done.
constexpr auto kAnswerBound = 20s;
// Threads driving the plugin at once.
constexpr int kDrivers = 4;

QString qpath(const std::string &path)
{
    return QString::fromStdString(path);
}

// One random public operation; `serial` numbers the files it names.
void randomOperation(FFMPEGPlugin *rec, std::mt19937 &rng, const testutil::TempDir &dir,
                     std::atomic<int> &serial, PluginComponent *cameras[2])
{
    const auto pick = [&](int n) { return int(rng() % unsigned(n)); };
    switch (pick(12)) {
    case 0:
    case 1:
        rec->setFilename(qpath(dir.file("take" + std::to_string(serial++) + ".mp4")));
        rec->startRecord();
        break;
    case 2: rec->stopRecord(); break;
    case 3: rec->bPauseRec(); break;
    case 4: rec->bResumeRec(); break;
    case 5: rec->setHasVideo(pick(4) != 0); break;
    case 6: rec->setHasAudio(pick(2) != 0); break;
    case 7: rec->vSetRecSize(64 * (1 + pick(3)), 48 * (1 + pick(3))); break;
    case 8: rec->setFps(1 + pick(30)); break;
    case 9: rec->setVideoBitrate(100000u * unsigned(1 + pick(10))); break;
    case 10: rec->setPluginComponent(cameras[pick(2)]); break;
    default:
        rec->waitForRecordStart(pick(50));
        (void)rec->isRecording();
        (void)rec->filename();
        break;
    }
}

} // namespace

TEST(HostDrive, AnOutputThatCannotBeOpenedFailsTheStartAndStopNeverHangs)
{
    testutil::TempDir dir;
    const std::string fifo = dir.file("fifo.mp4"); // no reader: opening it for writing blocks
    ASSERT_EQ(mkfifo(fifo.c_str(), 0600), 0);
    SyntheticCamera camera(64, 48, 30);
    LoadedRecorder rec{QStringLiteral(RECORDER_PLUGIN_PATH)};
    ASSERT_TRUE(rec.loaded()) << qPrintable(rec.error());
    rec->setPluginComponent(&camera);
    rec->setHasAudio(false);
    rec->vSetRecSize(64, 48);
    rec->setFilename(qpath(fifo));
    testutil::captureStdout([&] {
        rec->startRecord();
        EXPECT_FALSE(rec->waitForRecordStart(int(std::chrono::milliseconds(kAnswerBound).count())));
        EXPECT_TRUE(rec.stopAndWait(kAnswerBound));
    });
    // Whatever was left waiting for a reader is let go, so that a failure ends cleanly.
    const int reader = open(fifo.c_str(), O_RDONLY | O_NONBLOCK);
    if (reader >= 0)
        close(reader);
}

TEST(HostDrive, PublicOperationsInRandomOrderFromSeveralThreads)
{
    const char *wanted = std::getenv("RECORDER_DRIVE_SECONDS");
    const auto length = std::chrono::seconds(wanted ? std::atoi(wanted) : 4);
    const unsigned seed = std::random_device()();
    testutil::TempDir dir;
    SyntheticCamera first(64, 48, 30), second(160, 120, 15);
    PluginComponent *cameras[2] = {&first, &second};
    std::atomic<int> serial{0};
    LoadedRecorder rec{QStringLiteral(RECORDER_PLUGIN_PATH)};
    ASSERT_TRUE(rec.loaded()) << qPrintable(rec.error());
    FFMPEGPlugin *plugin = rec.operator->();
    plugin->setPluginComponent(&first);
    testutil::captureStdout([&] {
        std::vector<std::thread> drivers;
        const auto end = std::chrono::steady_clock::now() + length;
        for (int d = 0; d < kDrivers; ++d)
            drivers.emplace_back([&, d] {
                std::mt19937 rng(seed + unsigned(d));
                while (std::chrono::steady_clock::now() < end) {
                    randomOperation(plugin, rng, dir, serial, cameras);
                    std::this_thread::sleep_for(std::chrono::milliseconds(rng() % 20)); // a host's pace
                }
            });
        for (std::thread &t : drivers)
            t.join();
        EXPECT_TRUE(rec.stopAndWait(kAnswerBound));
    });
    SCOPED_TRACE("seed " + std::to_string(seed));
    EXPECT_GT(serial.load(), 0);
    // Every file a recording left plays; nothing half-made is left beside them.
    int files = 0;
    for (const auto &entry : std::filesystem::directory_iterator(dir.path())) {
        ++files;
        const std::string name = entry.path().filename().string();
        EXPECT_NE(name[0], '.') << name;
        MediaFile f;
        std::string err;
        EXPECT_TRUE(readMediaFile(entry.path().string(), f, &err, false)) << name << ": " << err;
    }
    EXPECT_EQ(first.beginCount() + second.beginCount(), first.endCount() + second.endCount());
    std::printf("%d starts asked, %d files recorded\n", serial.load(), files);
}

int main(int argc, char **argv)
{
    QCoreApplication app(argc, argv);
    ::testing::InitGoogleTest(&argc, argv);
    return RUN_ALL_TESTS();
}
