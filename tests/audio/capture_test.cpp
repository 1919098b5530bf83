// Finding, opening and reading the camera's microphone, on simulated sound hardware.
#include <QCoreApplication>
#include <gtest/gtest.h>

#include <atomic>
#include <cerrno>
#include <fstream>
#include <numeric>
#include <thread>

#include "audio/audiocapturethread.h"
#include "encode/ffmpegencode.h"
#include "fakealsa.h"
#include "support/mediareader.h"
#include "support/qtmessages.h"
#include "support/testutil.h"

using namespace std::chrono_literals;
using fakealsa::Element;

namespace {

// An integer mixer element whose values are all 1.
Element knob(unsigned numid, const char *name, unsigned count, long max)
{
    Element e;
    e.numid = numid;
    e.name = name;
    e.count = count;
    e.max = max;
    e.values.assign(count, 1);
    return e;
}

class CaptureTest : public ::testing::Test
{
protected:
    // A busy device makes the capture restart the sound server: killall is a stand-in
    // that logs its calls.
    void SetUp() override
    {
        fakealsa::reset();
        qputenv("FAKE_KILLALL_LOG", QByteArray::fromStdString(killallLog));
        savedPath = qgetenv("PATH");
        qputenv("PATH", QByteArray(FAKE_KILLALL_DIR ":") + savedPath);
    }
    void TearDown() override { qputenv("PATH", savedPath); }

    std::vector<std::string> killallCalls() const
    {
        std::vector<std::string> lines;
        std::ifstream in(killallLog);
        for (std::string line; std::getline(in, line);)
            lines.push_back(line);
        return lines;
    }

    bool open(AudiocaptureThread &cap)
    {
        bool ok = false;
        testutil::captureStdout([&] { ok = cap.open(); });
        return ok;
    }

    // Opens the card and captures 10 ms blocks into `encoder` while `during` runs, then
    // stops the thread; what was printed.
    std::string capture(AudiocaptureThread &cap, const std::function<void()> &during)
    {
        return testutil::captureStdout([&] {
            ASSERT_TRUE(cap.open());
            cap.setFrameSize(480);
            cap.startThread();
            cap.startRecord();
            during();
            const auto stopAt = std::chrono::steady_clock::now();
            cap.stopThread();
            ASSERT_TRUE(testutil::pollUntil([&] { return cap.isOver(); }, 5s));
            stopTook = std::chrono::steady_clock::now() - stopAt;
        });
    }

    FFmpegEncode encoder; // not started: blocks just queue
    testutil::TempDir dir;
    const std::string killallLog = dir.file("killall.log");
    QByteArray savedPath;
    std::chrono::steady_clock::duration stopTook{};
};

} // namespace

TEST_F(CaptureTest, TheCameraCardIsFoundByNameThenByTheFallBackNamesInOrder)
{
    struct Row {
        std::vector<std::string> cards;
        int controlFails;                 // card whose control device does not open; -1: none
        std::vector<std::string> opened;  // devices opened
        std::string name;                 // the name it settles on
    };
    const Row rows[] = {
        {{"HDA Intel PCH", "USB audio kw-08p usbcamera front", "Loopback"}, -1, {"hw:1"}, "KW-08P USBCamera"},
        {{"KW-08P USBCamera A", "Other", "kw-08p usbcamera B"}, -1, {"hw:2"}, "KW-08P USBCamera"},
        {{"kw-08p usbcamera spare", "KW-08P USBCamera"}, 1, {"hw:0"}, "KW-08P USBCamera"},
        {{"USB camera", "My KWVizDesk mic"}, -1, {"hw:1"}, "kwvizdesk"},
        {{"Web CAMERA audio"}, -1, {"hw:0"}, "camera"},
        {{}, -1, {}, "camera"},
    };
    for (const Row &row : rows) {
        SCOPED_TRACE(row.cards.empty() ? "no card" : row.cards.back());
        fakealsa::reset();
        for (const std::string &card : row.cards)
            fakealsa::addCard(card);
        if (row.controlFails >= 0)
            fakealsa::setControlOpenFails(row.controlFails);
        AudiocaptureThread cap(&encoder);
        EXPECT_EQ(open(cap), !row.opened.empty());
        EXPECT_EQ(fakealsa::pcmOpenAttempts(), row.opened);
        EXPECT_EQ(cap.soundCardName().toStdString(), row.name);
    }
}

TEST_F(CaptureTest, TheCamerasMixerGivesTheChannelsAndNumidTwoIsRaisedOnTheFirstHundredElements)
{
    fakealsa::Capture c;
    c.channels = {1, 2, 3};
    fakealsa::addCard("KW-08P USBCamera",
                      {knob(2, "Mic Capture Volume", 1, 16), knob(3, "Capture Channel Map", 2, 5),
                       knob(4, "Mic Channel Layout", 3, 5)},
                      c);
    fakealsa::addCard("Other", {knob(2, "Master Playback Volume", 2, 31), knob(5, "Channel Mode", 1, 5)});
    std::vector<Element> many;
    for (unsigned i = 0; i < 150; ++i)
        many.push_back(knob(i == 120 ? 2 : 1000 + i, "Knob", 1, 9));
    fakealsa::addCard("Big mixer", many);
    AudiocaptureThread cap(&encoder);
    ASSERT_TRUE(open(cap));
    // The camera's last "Channel" element gives the count, and the device is asked for it.
    EXPECT_EQ(cap.audioChannel(), 3);
    EXPECT_EQ(fakealsa::elementValues(0, 2), std::vector<long>{16});
    EXPECT_EQ(fakealsa::elementValues(0, 3), (std::vector<long>{1, 1}));
    EXPECT_EQ(fakealsa::elementValues(1, 2), (std::vector<long>{31, 31}));
    EXPECT_EQ(fakealsa::elementValues(2, 2), std::vector<long>{1});
}

TEST_F(CaptureTest, TheDeviceIsKeptWithWhatItGrantsOrClosed)
{
    struct Row {
        std::vector<unsigned> rates, channels;
        int busyOpens, openError;
        size_t attempts;        // opens tried
        int rate, channelsGot;  // granted; 0: refused
    };
    const Row rows[] = {
        {{32000, 44100, 96000}, {2}, 0, 0, 1, 44100, 2}, // the nearest rate, the other count
        {{48000}, {4}, 0, 0, 1, 0, 0},                   // neither count
        {{48000}, {1}, 0, -EACCES, 1, 0, 0},             // not busy: not retried
        {{48000}, {1}, 1, 0, 2, 48000, 1},               // busy once: retried
    };
    for (const Row &row : rows) {
        SCOPED_TRACE(row.attempts);
        fakealsa::reset();
        fakealsa::Capture c;
        c.rates = row.rates;
        c.channels = row.channels;
        c.busyOpens = row.busyOpens;
        c.openError = row.openError;
        fakealsa::addCard("KW-08P USBCamera", {}, c);
        AudiocaptureThread cap(&encoder);
        EXPECT_EQ(open(cap), row.rate > 0);
        EXPECT_EQ(fakealsa::pcmOpenAttempts().size(), row.attempts);
        EXPECT_EQ(fakealsa::pcmOpenHandles(), row.rate > 0 ? 1 : 0);
        if (row.rate > 0) {
            EXPECT_EQ(cap.sampleRate(), row.rate);
            EXPECT_EQ(cap.audioChannel(), row.channelsGot);
        }
    }
}

// Each retry of a busy device restarts the sound server first, in an environment of its
// own: the host's threads read the process's.
TEST_F(CaptureTest, ABusyDeviceRestartsTheSoundServerBetweenRetriesUntilAStop)
{
    fakealsa::Capture c;
    c.busyOpens = 1000;
    fakealsa::addCard("KW-08P USBCamera", {}, c);
    qputenv("LD_LIBRARY_PATH", "/opt/camera/lib");
    AudiocaptureThread cap(&encoder);
    std::atomic<bool> stop{false};
    bool opened = true;
    std::chrono::steady_clock::time_point stopAt, returnedAt;
    testutil::captureStdout([&] {
        std::thread opener([&] {
            opened = cap.open([&] { return stop.load(); });
            returnedAt = std::chrono::steady_clock::now();
        });
        EXPECT_TRUE(testutil::pollUntil([&] { return fakealsa::pcmOpenAttempts().size() >= 2; }, 10s));
        stopAt = std::chrono::steady_clock::now();
        stop = true;
        opener.join();
    });
    EXPECT_FALSE(opened);
    EXPECT_LT(returnedAt - stopAt, 1s); // not the eight seconds of all retries
    EXPECT_EQ(qgetenv("LD_LIBRARY_PATH"), QByteArray("/opt/camera/lib"));
    qunsetenv("LD_LIBRARY_PATH");
    // Started detached: poll for the record.
    ASSERT_TRUE(testutil::pollUntil([&] { return !killallCalls().empty(); }, 10s));
    for (const std::string &call : killallCalls())
        EXPECT_EQ(call, "pulseaudio|"); // LD_LIBRARY_PATH defined and empty
}

// Through the real encoder into a WAV, so that what was handed on can be compared sample
// for sample with what the card delivered: interleaved reads cut into whole blocks, and
// the sound lost to each overrun back as silence of its length.
TEST_F(CaptureTest, BlocksHoldTheCardsSoundAndOverrunsLeaveSilenceOfTheirLength)
{
    constexpr int kChannels = 2;
    fakealsa::Capture c;
    c.channels = {kChannels};
    c.frequency = 500;
    c.overrunEveryMs = 300;
    c.overrunLossMs = 200;
    fakealsa::addCard("KW-08P USBCamera", {}, c);
    FFmpegEncode enc;
    const std::string file = dir.file("capture.wav");
    enc.setVideo_path(QString::fromStdString(file));
    enc.setRecVideo(false);
    AudiocaptureThread capture(&enc);
    QtMessageCollector log;
    testutil::captureStdout([&] {
        ASSERT_TRUE(capture.open());
        enc.setAudioChannel(static_cast<unsigned>(capture.audioChannel()));
        enc.setaudioSampleRate(static_cast<unsigned>(capture.sampleRate()));
        enc.setRun(true);
        ASSERT_TRUE(enc.waitForOpen());
        capture.setFrameSize(enc.audioFrameSize());
        capture.startThread();
        capture.startRecord();
        ASSERT_TRUE(testutil::pollUntil([&] { return fakealsa::framesDelivered() >= 48 * 1024; }, 10s));
        capture.stopThread();
        ASSERT_TRUE(testutil::pollUntil([&] { return capture.isOver(); }, 5s));
        enc.finish();
    });
    MediaFile f;
    std::string err;
    ASSERT_TRUE(readMediaFile(file, f, &err)) << err;
    ASSERT_EQ(f.audioChannels, kChannels);
    ASSERT_EQ(f.samples.size() % (enc.audioFrameSize() * kChannels), 0u); // whole blocks only
    // The sound up to the first silence is the card's, sample for sample.
    const size_t frames = f.samples.size() / kChannels;
    const auto at = [&](size_t frame) { return f.samples[frame * kChannels]; };
    size_t i = 0;
    long mismatches = 0;
    for (; i + 1 < frames && (at(i) != 0 || at(i + 1) != 0); ++i) // a 500 Hz sine has no two zeros
        for (int ch = 0; ch < kChannels; ++ch)
            mismatches += f.samples[i * kChannels + ch] != fakealsa::sampleAt(long(i), ch, 48000, 500);
    EXPECT_EQ(mismatches, 0);
    // Every overrun left one stretch of silence (over 50 ms: no sine has that), together
    // as long as the sound lost.
    std::vector<double> silences;
    for (size_t run = 0; i < frames; ++i) {
        run = at(i) == 0 ? run + 1 : 0;
        if (run == 48000 / 20)
            silences.push_back(0);
        if (run >= 48000 / 20)
            silences.back() = double(run) / 48000;
    }
    ASSERT_GT(fakealsa::overruns(), 0);
    ASSERT_EQ(int(silences.size()), fakealsa::overruns());
    EXPECT_NEAR(std::accumulate(silences.begin(), silences.end(), 0.0),
                double(fakealsa::framesLost()) / 48000, 0.005 * silences.size());
    EXPECT_EQ(log.count(QStringLiteral("overruns): filled with silence")), 1);
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

TEST_F(CaptureTest, AnUnpluggedMicrophoneThatStaysGoneEndsTheCapture)
{
    fakealsa::Capture c;
    c.unplugAfterMs = 300;
    fakealsa::addCard("KW-08P USBCamera", {}, c);
    AudiocaptureThread cap(&encoder);
    capture(cap, [&] { EXPECT_TRUE(testutil::pollUntil([&] { return cap.isOver(); }, 10s)); });
    EXPECT_GT(encoder.audioQueueCount(), 0);
    EXPECT_LE(encoder.audioQueueCount(), 30); // nothing after the unplug
    EXPECT_EQ(fakealsa::pcmOpenHandles(), 0);
}

TEST_F(CaptureTest, AMicrophoneThatComesBackAtOnceIsReopenedAndKeepsDelivering)
{
    fakealsa::Capture c;
    c.unplugAfterMs = 35;
    c.replugAfterMs = 0;
    fakealsa::addCard("KW-08P USBCamera", {}, c);
    AudiocaptureThread cap(&encoder);
    capture(cap, [&] {
        EXPECT_TRUE(testutil::pollUntil([&] { return encoder.audioQueueCount() >= 8; }, 10s));
        EXPECT_FALSE(cap.isOver());
    });
    EXPECT_EQ(fakealsa::pcmOpens(), 2);
}

// A device that stays open but delivers nothing must neither hold a stop nor keep the
// thread waiting for ever: after two silent seconds it is taken for gone and reopened.
TEST_F(CaptureTest, AStalledMicrophoneIsTakenForGoneAndNeverHoldsAStop)
{
    fakealsa::Capture c;
    c.stallAfterMs = 100;
    fakealsa::addCard("KW-08P USBCamera", {}, c);
    AudiocaptureThread cap(&encoder);
    capture(cap, [&] { EXPECT_TRUE(testutil::pollUntil([&] { return fakealsa::pcmOpens() >= 2; }, 10s)); });
    EXPECT_LT(stopTook, 1s);
    EXPECT_LE(encoder.audioQueueCount(), 10);
    EXPECT_EQ(fakealsa::pcmOpenHandles(), 0);
}

TEST_F(CaptureTest, StoppingBeforeRecordingEndsTheThreadPromptly)
{
    fakealsa::addCard("KW-08P USBCamera");
    AudiocaptureThread cap(&encoder);
    ASSERT_TRUE(open(cap));
    testutil::captureStdout([&] {
        cap.startThread();
        cap.stopThread();
        EXPECT_TRUE(testutil::pollUntil([&] { return cap.isOver(); }, 2s));
    });
    EXPECT_EQ(fakealsa::framesDelivered(), 0);
    EXPECT_EQ(fakealsa::pcmOpenHandles(), 0);
}

int main(int argc, char **argv)
{
    QCoreApplication app(argc, argv);
    ::testing::InitGoogleTest(&argc, argv);
    return RUN_ALL_TESTS();
}
