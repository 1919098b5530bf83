// Picture and sound in step, end to end: the camera flashes and the simulated card beeps
// at the same steady-clock instants, the card's clock runs fast or slow, overruns, has
// four channels; in the file every flash must come with its beep.
#include <QCoreApplication>
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <thread>
#include <vector>

#include "fakealsa.h"
#include "support/lipsync.h"
#include "support/loadedrecorder.h"
#include "support/mediareader.h"
#include "support/testutil.h"

using namespace std::chrono_literals;

namespace {

struct SyncRun {
    const char *name;
    double ppm;            // the card's clock error
    long overrunEveryMs;   // -1: none
    int channels;          // of the microphone; more than two are mixed down
    int width, height;
    int seconds;           // of recording
};

// The short rows compress time: 3000 ppm for a minute drifts as far as 1000 ppm for three.
const SyncRun kRuns[] = {
    {"ShortFast", 3000, -1, 1, 640, 480, 60},
    {"ShortSlowFourChannelsOverruns", -3000, 15000, 4, 640, 480, 60},
    {"LongFast", 1000, -1, 1, 1280, 720, 600},
    {"LongSlow", -1000, -1, 1, 1280, 720, 600},
    {"LongOverruns", 1000, 30000, 1, 1280, 720, 600},
    {"LongFourChannels", -1000, -1, 4, 1280, 720, 600},
};

// A sanitizer build runs several times slower than the recorder is made for: frames are
// dropped and reads are late, so picture and sound cannot be timed against each other.
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr bool kTimingMeaningful = false;
#else
constexpr bool kTimingMeaningful = true;
#endif

constexpr int kFps = 30;
constexpr double kPeriod = 1.0 / kFps;
constexpr auto kFlashEvery = 2000ms;
// Pairs whose median stands for the offset at the start and at the end of a recording.
constexpr size_t kEndPairs = 5;

// Median of `count` offsets from `first` on.
double medianOf(const std::vector<double> &offsets, size_t first, size_t count)
{
    std::vector<double> v(offsets.begin() + first, offsets.begin() + first + count);
    std::nth_element(v.begin(), v.begin() + count / 2, v.end());
    return v[count / 2];
}

class LipSyncTest : public ::testing::TestWithParam<SyncRun>
{
protected:
    void SetUp() override { ASSERT_TRUE(rec.loaded()) << qPrintable(rec.error()); }

    // A camera microphone of `channels` channels on a card whose clock is off by `ppm`,
    // beeping at every flash instant from `epoch` on.
    static void addMicrophone(const SyncRun &run, std::chrono::steady_clock::time_point epoch)
    {
        fakealsa::reset();
        fakealsa::Capture c;
        c.ppm = run.ppm;
        c.overrunEveryMs = run.overrunEveryMs;
        c.channels = {static_cast<unsigned>(run.channels)};
        c.sameToneOnAllChannels = true;
        // The mixer's "Channel" element tells the capture how many channels the card has.
        fakealsa::Element map;
        map.numid = 3;
        map.name = "Capture Channel Map";
        map.count = static_cast<unsigned>(run.channels);
        fakealsa::addCard("KW-08P USBCamera", {map}, c);
        fakealsa::Beeps beeps;
        beeps.epoch = epoch;
        beeps.periodMs = std::chrono::milliseconds(kFlashEvery).count();
        fakealsa::setBeeps(beeps);
    }

    // Records `seconds` of the flashing camera into `file`; the file, read back.
    MediaFile record(FlashCamera &camera, const SyncRun &run, const std::string &file)
    {
        rec->setHasAudio(true);
        rec->setHasVideo(true);
        rec->vSetRecSize(run.width, run.height);
        rec->setFps(kFps);
        rec->setVideoBitrate(2000000);
        rec->setPluginComponent(&camera);
        rec->setFilename(QString::fromStdString(file));
        testutil::captureStdout([&] {
            rec->startRecord();
            ASSERT_TRUE(rec->waitForRecordStart(30000));
            std::this_thread::sleep_for(std::chrono::seconds(run.seconds));
            EXPECT_TRUE(rec.stopAndWait(120s));
        });
        MediaFile f;
        std::string err;
        EXPECT_TRUE(readMediaFile(file, f, &err, true, false)) << err;
        return f;
    }

    testutil::TempDir dir;
    LoadedRecorder rec{QStringLiteral(RECORDER_PLUGIN_PATH)};
};

} // namespace

TEST_P(LipSyncTest, EveryFlashComesWithItsBeep)
{
    if (!kTimingMeaningful)
        GTEST_SKIP() << "a sanitizer build is too slow to time picture against sound";
    const SyncRun &run = GetParam();
    const auto epoch = std::chrono::steady_clock::now() + 1s;
    addMicrophone(run, epoch);
    FlashCamera camera(run.width, run.height, kFps, epoch, kFlashEvery);
    const MediaFile f = record(camera, run, dir.file("sync.mp4"));
    ASSERT_NE(f.video(), nullptr);
    ASSERT_NE(f.audio(), nullptr);
    EXPECT_EQ(f.audioChannels, 1); // four channels are mixed down to the encoder's one

    const std::vector<double> flashes = flashTimes(f), beeps = beepOnsets(f);
    const std::vector<double> offsets = pairOffsets(flashes, beeps, 0.5);
    // A beep may fall into the sound an overrun lost.
    ASSERT_GE(offsets.size(), size_t(run.seconds / 2 - 2 - fakealsa::overruns()))
        << flashes.size() << " flashes, " << beeps.size() << " beeps, " << fakealsa::overruns()
        << " overruns";
    const auto [lo, hi] = std::minmax_element(offsets.begin(), offsets.end());
    std::printf("%s: %zu pairs, offset (flash - beep) first %+.1f ms, range %+.1f .. %+.1f ms, "
                "last %+.1f ms\n",
                run.name, offsets.size(), 1000 * offsets.front(), 1000 * *lo, 1000 * *hi,
                1000 * offsets.back());
    // The camera and the frame schedule may each hold a frame up to one period.
    for (size_t i = 0; i < offsets.size(); ++i) {
        EXPECT_GE(offsets[i], -kPeriod) << "pair " << i;
        EXPECT_LE(offsets[i], 2 * kPeriod) << "pair " << i;
    }
    // One pair may be a frame late when the flash lands on the instant a frame is due, so
    // the start and the end are each the median of a few pairs.
    EXPECT_NEAR(medianOf(offsets, offsets.size() - kEndPairs, kEndPairs),
                medianOf(offsets, 0, kEndPairs), kPeriod)
        << "the sound drifted from the picture";
}

INSTANTIATE_TEST_SUITE_P(Runs, LipSyncTest, ::testing::ValuesIn(kRuns),
                         [](const ::testing::TestParamInfo<SyncRun> &info) {
                             return std::string(info.param.name);
                         });

// The host's frame source stalls for three seconds: the picture keeps its timeline (the
// last frame stands in), so picture and sound still end together and stay in step.
TEST_F(LipSyncTest, AStallOfTheFrameSourceKeepsPictureAndSoundTogether)
{
    const SyncRun run{"Stall", 0, -1, 1, 640, 480, 9};
    const auto epoch = std::chrono::steady_clock::now() + 1s;
    addMicrophone(run, epoch);
    FlashCamera camera(run.width, run.height, kFps, epoch, kFlashEvery);
    camera.stallOnce(2500ms, 3000ms);
    const MediaFile f = record(camera, run, dir.file("stall.mp4"));
    ASSERT_NE(f.video(), nullptr);
    ASSERT_NE(f.audio(), nullptr);
    EXPECT_NEAR(f.video()->durationSeconds(), f.audio()->durationSeconds(), kPeriod);
    if (!kTimingMeaningful)
        return;
    const std::vector<double> offsets = pairOffsets(flashTimes(f), beepOnsets(f), 0.5);
    // The flash during the stall is not seen; the others are.
    EXPECT_GE(offsets.size(), 2u);
    for (double offset : offsets) {
        EXPECT_GE(offset, -kPeriod);
        EXPECT_LE(offset, 2 * kPeriod);
    }
}

int main(int argc, char **argv)
{
    QCoreApplication app(argc, argv);
    ::testing::InitGoogleTest(&argc, argv);
    return RUN_ALL_TESTS();
}
