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
    const auto listed = [&] { return log.messages("recorder.audio.mixer").filter("Mic Capture Volume").size(); };
    AudiocaptureThread cap(&encoder);
    testutil::captureStdout([&] { ASSERT_TRUE(cap.open()); });
    EXPECT_EQ(listed(), 0); // debug is off unless the host turns it on
    EXPECT_EQ(cap.audioChannel(), 4);
    EXPECT_EQ(fakealsa::elementValues(1, 2), std::vector<long>{16});
    EXPECT_EQ(fakealsa::elementValues(1, 3), (std::vector<long>{0, 0, 0}));
    EXPECT_EQ(fakealsa::elementValues(1, 4), std::vector<long>{1});
    EXPECT_EQ(fakealsa::elementValues(0, 2), (std::vector<long>{0, 0}));
    EXPECT_EQ(fakealsa::elementValues(0, 5), std::vector<long>{0});
    QLoggingCategory::setFilterRules(QStringLiteral("recorder.audio.mixer.debug=true"));
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
// the sound lost to each overrun back as silence of its length.
TEST_F(CaptureTest, BlocksHoldTheCardsSoundAndOverrunsLeaveSilenceOfTheirLength)
{
    constexpr int kChannels = 2;
    addCamera([](auto &c) {
        c.channels = {kChannels};
        c.frequency = 500;
        c.overrunEveryMs = 300;
    });
    FFmpegEncode enc;
    const std::string file = dir.file("capture.wav");
    enc.setVideo_path(QString::fromStdString(file));
    enc.setRecVideo(false);
    enc.setAudioChannel(kChannels);
    enc.setaudioSampleRate(48000);
    enc.setRun(true);
    ASSERT_TRUE(enc.waitForOpen());
    AudiocaptureThread cap(&enc);
    // Stopped halfway between the first overrun (after 0.3 s of sound) and the second, not
    // in a gap, whose silence is handed on only when sound comes again.
    const auto enough = [] { return fakealsa::framesDelivered() >= 48000 * 45 / 100; };
    capture(cap, [&] { ASSERT_TRUE(testutil::pollUntil(enough, 10s)); }, enc.audioFrameSize());
    enc.finish();
    MediaFile f;
    std::string err;
    ASSERT_TRUE(readMediaFile(file, f, &err)) << err;
    // The sound before the first overrun (at 0.3 s) is the card's, sample for sample.
    for (int i = 0; i < kChannels * 12000; ++i)
        ASSERT_EQ(f.samples.at(i), fakealsa::sampleAt(i / kChannels, i % kChannels, 48000, 500)) << i;
    // The sound lost to the overruns is back as silence: the file is as long as what the
    // card delivered and lost, but for the blocks cut off at the stop.
    ASSERT_GT(fakealsa::overruns(), 0);
    EXPECT_NEAR(double(f.samples.size() / kChannels), fakealsa::framesDelivered() + fakealsa::framesLost(),
                3 * enc.audioFrameSize());
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

// A microphone that goes, or stays open but delivers nothing (taken for gone after two
// silent seconds), is reopened; capture ends when it stays gone, and a stop is never held.
TEST_F(CaptureTest, AGoneMicrophoneIsReopenedAndCaptureEndsWhenItStaysGone)
{
    struct Row {
        Setting card;
        bool ends; // capture ends by itself
        int minBlocks, maxBlocks;
    };
    const Row rows[] = {
        {[](auto &c) { c.unplugAfterMs = 300; }, true, 1, 30}, // nothing after the unplug
        {[](auto &c) { c.unplugAfterMs = 35; c.replugAfterMs = 0; }, false, 8, 1000},
        {[](auto &c) { c.stallAfterMs = 100; }, false, 0, 10},
    };
    for (const Row &row : rows) {
        SCOPED_TRACE(&row - rows);
        fakealsa::reset();
        addCamera(row.card);
        FFmpegEncode enc;
        AudiocaptureThread cap(&enc);
        capture(cap, [&] {
            EXPECT_TRUE(testutil::pollUntil([&] {
                return cap.isOver() || (fakealsa::pcmOpens() >= 2 && enc.audioQueueCount() >= row.minBlocks);
            }, 10s));
            EXPECT_EQ(cap.isOver(), row.ends);
        });
        EXPECT_TRUE(stopTook < 1s); // a stall never holds a stop
        EXPECT_GE(enc.audioQueueCount(), row.minBlocks);
        EXPECT_LE(enc.audioQueueCount(), row.maxBlocks);
        EXPECT_EQ(fakealsa::pcmOpenHandles(), 0);
    }
}

int main(int argc, char **argv)
{
    QCoreApplication app(argc, argv);
    ::testing::InitGoogleTest(&argc, argv);
    return RUN_ALL_TESTS();
}
