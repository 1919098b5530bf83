// Finding, opening and reading the camera's microphone, on simulated sound hardware.
#include <QCoreApplication>
#include <QLoggingCategory>
#include <gtest/gtest.h>

#include <atomic>
#include <cerrno>
#include <future>
#include <thread>

#include "audio/audiocapturethread.h"
#include "encode/ffmpegencode.h"
#include "fakealsa.h"
#include "support/mediareader.h"
#include "support/qtmessages.h"
#include "support/testutil.h"

using namespace std::chrono_literals;
using Setting = std::function<void(fakealsa::Capture &)>;

class CaptureTest : public ::testing::Test
{
protected:
    void SetUp() override { fakealsa::reset(); }

    // Opens the card and captures blocks (10 ms by default) while `during` runs, then
    // stops the thread.
    void capture(AudiocaptureThread &cap, const std::function<void()> &during, int frames = 480)
    {
        testutil::captureStdout([&] {
            ASSERT_TRUE(cap.open());
            cap.setFrameSize(frames);
            cap.startThread();
            cap.startRecord();
            during();
            const auto stopAt = std::chrono::steady_clock::now();
            cap.stopThread();
            ASSERT_TRUE(testutil::pollUntil([&] { return cap.isOver(); }, 5s));
            stopTook = std::chrono::steady_clock::now() - stopAt;
        });
    }

    // The camera's card, shaped by `shape`.
    static void addCamera(const Setting &shape)
    {
        fakealsa::Capture c;
        shape(c);
        fakealsa::addCard("KW-08P USBCamera", {}, c);
    }

    FFmpegEncode encoder; // not started: blocks just queue
    testutil::TempDir dir;
    std::chrono::steady_clock::duration stopTook{};
};

TEST_F(CaptureTest, TheCameraCardIsFoundByNameThenByTheFallBackNamesInOrder)
{
    struct Row {
        std::vector<std::string> cards;
        int controlFails;                 // card whose control device does not open; -1: none
        std::vector<std::string> opened;  // devices opened
    };
    const Row rows[] = {
        {{"HDA Intel PCH", "USB audio kw-08p usbcamera front", "Loopback"}, -1, {"hw:1"}},
        {{"KW-08P USBCamera A", "Other", "kw-08p usbcamera B"}, -1, {"hw:2"}}, // the last match
        {{"kw-08p usbcamera spare", "KW-08P USBCamera"}, 1, {"hw:0"}},
        {{"USB camera", "My KWVizDesk mic"}, -1, {"hw:1"}}, // kwvizdesk before camera
        {{"Web CAMERA audio"}, -1, {"hw:0"}},
        {{}, -1, {}},
    };
    for (const Row &row : rows) {
        SCOPED_TRACE(row.cards.empty() ? "no card" : row.cards.back());
        fakealsa::reset();
        for (const std::string &card : row.cards)
            fakealsa::addCard(card);
        if (row.controlFails >= 0)
            fakealsa::setControlOpenFails(row.controlFails);
        AudiocaptureThread cap(&encoder);
        testutil::captureStdout([&] { EXPECT_EQ(cap.open(), !row.opened.empty()); });
        EXPECT_EQ(fakealsa::pcmOpenAttempts(), row.opened);
    }
}

// Only the camera's own card is written, and only its capture controls; the channel count
// is what the device accepts, whatever a mixer element's name says; the listing is debug.
TEST_F(CaptureTest, OnlyTheCamerasCaptureControlsAreRaisedAndTheDeviceGivesTheChannels)
{
    const auto knob = [](unsigned numid, const char *name, int type, unsigned count, long max) {
        return fakealsa::Element{numid, name, type, count, 0, max, {}};
    };
    fakealsa::addCard("Other", {knob(2, "Master Playback Volume", 2, 2, 31), knob(5, "Capture Volume", 2, 1, 9)});
    fakealsa::Capture four;
    four.channels = {4};
    fakealsa::addCard("KW-08P USBCamera", {knob(2, "Mic Capture Volume", 2, 1, 16),
                      knob(3, "Capture Channel Map", 2, 3, 5), knob(4, "Mic Capture Switch", 1, 1, 1)}, four);
    QtMessageCollector log;
    const auto listed = [&] { return log.messages("kwrecorder.audio.mixer").filter("Mic Capture Volume").size(); };
    AudiocaptureThread cap(&encoder);
    testutil::captureStdout([&] { ASSERT_TRUE(cap.open()); });
    EXPECT_EQ(listed(), 0); // debug is off unless the host turns it on
    EXPECT_EQ(cap.audioChannel(), 4);
    EXPECT_EQ(fakealsa::elementValues(1, 2), std::vector<long>{16});
    EXPECT_EQ(fakealsa::elementValues(1, 3), (std::vector<long>{0, 0, 0}));
    EXPECT_EQ(fakealsa::elementValues(1, 4), std::vector<long>{1});
    EXPECT_EQ(fakealsa::elementValues(0, 2), (std::vector<long>{0, 0}));
    EXPECT_EQ(fakealsa::elementValues(0, 5), std::vector<long>{0});
    QLoggingCategory::setFilterRules(QStringLiteral("kwrecorder.audio.mixer.debug=true"));
    AudiocaptureThread again(&encoder);
    testutil::captureStdout([&] { ASSERT_TRUE(again.open()); });
    QLoggingCategory::setFilterRules(QString());
    EXPECT_EQ(listed(), 1);
}

// A device is kept with what it grants, or closed, and one that another program holds is
// never waited on in the kernel: retried for two seconds at most, a stop cutting that
// short. A thread stopped before recording ends promptly and closes the device unread.
TEST_F(CaptureTest, TheDeviceIsKeptWithWhatItGrantsOrClosedAndAHeldOneIsNeverWaitedOn)
{
    struct Row {
        Setting card;
        long stopAfterMs; // -1: no stop
        int rate, channels; // granted; 0: refused
        std::chrono::milliseconds within;
    } const rows[] = {
        {[](auto &c) { c.rates = {32000, 44100, 96000}; c.channels = {2}; }, -1, 44100, 2, 1000ms},
        {[](auto &c) { c.openError = -EACCES; }, -1, 0, 0, 1000ms},
        {[](auto &c) { c.heldMs = -1; }, -1, 0, 0, 3000ms},
        {[](auto &c) { c.heldMs = -1; }, 300, 0, 0, 800ms},
    };
    for (const Row &row : rows) {
        SCOPED_TRACE(&row - rows);
        fakealsa::reset();
        addCamera(row.card);
        AudiocaptureThread cap(&encoder);
        const auto since = std::chrono::steady_clock::now();
        const auto stop = [&] {
            return row.stopAfterMs >= 0 && std::chrono::steady_clock::now() - since >= std::chrono::milliseconds(row.stopAfterMs);
        };
        std::atomic<bool> done{false}, opened{false};
        std::thread opener([&] {
            testutil::captureStdout([&] { opened = cap.open(stop); });
            done = true;
        });
        EXPECT_TRUE(testutil::pollUntil([&] { return done.load(); }, 5s));
        EXPECT_LT(std::chrono::steady_clock::now() - since, row.within);
        fakealsa::release(0); // an open blocked in the kernel returns now
        opener.join();
        EXPECT_EQ(opened, row.rate > 0);
        EXPECT_EQ(fakealsa::blockedOpens(), 0);
        EXPECT_EQ(fakealsa::pcmOpenHandles(), row.rate > 0 ? 1 : 0);
        if (row.rate == 0)
            continue;
        EXPECT_EQ(cap.sampleRate(), row.rate);
        EXPECT_EQ(cap.audioChannel(), row.channels);
        cap.startThread();
        cap.stopThread();
        EXPECT_TRUE(testutil::pollUntil([&] { return cap.isOver(); }, 2s));
        EXPECT_EQ(fakealsa::framesDelivered(), 0);
        EXPECT_EQ(fakealsa::pcmOpenHandles(), 0);
    }
}

// Through the real encoder into a WAV, so that what was handed on can be compared sample
// for sample with what the card delivered: interleaved reads cut into whole blocks, and
// the sound lost to each overrun or suspend back as silence of its length, the stream
// recovered in place (never re-opened) on short periods and a buffer of 200 ms or more.
TEST_F(CaptureTest, BlocksHoldTheCardsSoundAndOverrunsOrASuspendLeaveSilenceOfTheirLength)
{
    constexpr int kChannels = 2;
    const struct {
        const char *what;
        Setting card;
        long stopAfterMs; // of sound delivered: between two losses, never in one
    } rows[] = {
        {"overruns", [](auto &c) { c.overrunEveryMs = 300; }, 450},
        {"overrun mid-read", [](auto &c) { c.overrunEveryMs = 300; c.overrunMidRead = true; }, 450},
        {"suspend", [](auto &c) { c.suspendAfterMs = 300; c.suspendForMs = 500; }, 600},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(row.what);
        fakealsa::reset();
        addCamera([&](auto &c) {
            c.channels = {kChannels};
            c.frequency = 500;
            row.card(c);
        });
        FFmpegEncode enc;
        const std::string file = dir.file(std::string(row.what) + ".wav");
        enc.setVideo_path(QString::fromStdString(file));
        enc.setRecVideo(false);
        enc.setAudioChannel(kChannels);
        enc.setaudioSampleRate(48000);
        enc.setRun(true);
        ASSERT_TRUE(enc.waitForOpen());
        AudiocaptureThread cap(&enc);
        // Whose silence is handed on only when sound comes again.
        const auto enough = [&] { return fakealsa::framesDelivered() >= 48 * row.stopAfterMs; };
        capture(cap, [&] { ASSERT_TRUE(testutil::pollUntil(enough, 10s)); }, enc.audioFrameSize());
        enc.finish();
        EXPECT_GT(fakealsa::lastPeriodFrames(), 0);
        EXPECT_LE(fakealsa::lastPeriodFrames(), 48000 / 40);
        EXPECT_GE(fakealsa::lastBufferFrames(), 48000 / 5);
        EXPECT_EQ(fakealsa::pcmOpens(), 1);
        ASSERT_GT(fakealsa::overruns() + fakealsa::suspends(), 0);
        MediaFile f;
        std::string err;
        ASSERT_TRUE(readMediaFile(file, f, &err)) << err;
        // The sound before the first loss (at 0.3 s) is the card's, sample for sample.
        for (int i = 0; i < kChannels * 12000; ++i)
            ASSERT_EQ(f.samples.at(i), fakealsa::sampleAt(i / kChannels, i % kChannels, 48000, 500)) << i;
        // The file is as long as what the card delivered and lost, but for the blocks cut
        // off at the stop.
        EXPECT_NEAR(double(f.samples.size() / kChannels), fakealsa::framesDelivered() + fakealsa::framesLost(),
                    3 * enc.audioFrameSize());
    }
}

TEST_F(CaptureTest, PausedBlocksAreDroppedAndResumingHandsOnTheNextRead)
{
    fakealsa::addCard("KW-08P USBCamera");
    AudiocaptureThread cap(&encoder);
    cap.setPause(true);
    capture(cap, [&] {
        ASSERT_TRUE(testutil::pollUntil([&] { return fakealsa::framesDelivered() >= 10 * 480; }, 10s));
        EXPECT_EQ(encoder.audioQueueCount(), 0);
        cap.setPause(false);
        EXPECT_TRUE(testutil::pollUntil([&] { return encoder.audioQueueCount() >= 3; }, 10s));
    });
    // Every block handed on came from a read after the resume.
    EXPECT_LE(encoder.audioQueueCount(), int(fakealsa::framesDelivered() / 480) - 10);
}

// A microphone that goes is looked for again until the stop, silence handed on meanwhile;
// it is found by its name at whatever index it comes back, and a stop waits for one look
// at most. One that stays open but delivers nothing is taken for gone after two silent
// seconds, re-opened, and never ends the capture either.
TEST_F(CaptureTest, AGoneMicrophoneIsRecordedAsSilenceAndLookedForUntilTheStop)
{
    struct Row {
        const char *what;
        Setting card;
        double lostAt;    // seconds into the capture it goes
        double backAfter; // seconds it is away; < 0: for good
    };
    const Row rows[] = {
        {"unplugged", [](auto &c) { c.unplugAfterMs = 300; }, 0.3, -1},
        {"replugged elsewhere", [](auto &c) {
             c.unplugAfterMs = 300;
             c.replugAfterMs = 1000;
             c.replugElsewhere = true;
         }, 0.3, 1.0},
    };
    constexpr double kWatch = 4.0;                 // seconds of capture looked at
    constexpr double kBlock = 480.0 / 48000;       // seconds
    for (const Row &row : rows) {
        SCOPED_TRACE(row.what);
        fakealsa::reset();
        addCamera(row.card);
        FFmpegEncode enc;
        AudiocaptureThread cap(&enc);
        capture(cap, [&] {
            EXPECT_TRUE(testutil::pollUntil([&] { return cap.outage().losses > 0; }, 10s));
            std::this_thread::sleep_for(std::chrono::duration<double>(kWatch - row.lostAt)); // the capture's length
            EXPECT_FALSE(cap.isOver());
        });
        EXPECT_TRUE(stopTook < 700ms); // one look at most
        const AudiocaptureThread::Outage o = cap.outage();
        EXPECT_EQ(o.losses, 1);
        EXPECT_NEAR(o.lostAt, row.lostAt, 0.3);
        if (row.backAfter < 0) {
            EXPECT_EQ(o.backAt, -1);
        } else {
            EXPECT_GE(o.backAt, row.lostAt + row.backAfter - 0.1);
            EXPECT_LE(o.backAt, row.lostAt + row.backAfter + 0.7);
            EXPECT_EQ(fakealsa::pcmOpenAttempts().back(), "hw:1");
        }
        // Blocks on the timeline for the whole capture, the gap's silence among them.
        EXPECT_NEAR(enc.audioQueueCount() * kBlock, kWatch, 0.6);
        const double missing = (row.backAfter < 0 ? kWatch : o.backAt) - o.lostAt;
        EXPECT_NEAR(o.missingMs / 1000.0, missing, 0.6);
        EXPECT_EQ(fakealsa::pcmOpenHandles(), 0);
    }
    fakealsa::reset();
    addCamera([](auto &c) { c.stallAfterMs = 100; });
    AudiocaptureThread cap(&encoder);
    capture(cap, [&] {
        EXPECT_TRUE(testutil::pollUntil([&] { return fakealsa::pcmOpens() >= 2; }, 10s));
        EXPECT_FALSE(cap.isOver());
    });
    EXPECT_TRUE(stopTook < 700ms);
    EXPECT_GE(cap.outage().losses, 1);
    EXPECT_EQ(fakealsa::pcmOpenHandles(), 0);
}

int main(int argc, char **argv)
{
    QCoreApplication app(argc, argv);
    ::testing::InitGoogleTest(&argc, argv);
    return RUN_ALL_TESTS();
}
