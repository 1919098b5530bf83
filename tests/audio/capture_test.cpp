// Finding, opening and reading the camera's microphone, on simulated sound hardware.
#include <QCoreApplication>
#include <QFile>
#include <alsa/asoundlib.h>
#include <gtest/gtest.h>

#include <atomic>
#include <cerrno>
#include <thread>
#include <fstream>
#include <numeric>
#include <regex>

#include "audio/audiocapturethread.h"
#include "encode/ffmpegencode.h"
#include "fakealsa.h"
#include "support/mediareader.h"
#include "support/qtmessages.h"
#include "support/testutil.h"

using namespace std::chrono_literals;
using fakealsa::Element;

namespace {

const std::string kSeparator = "==========================================";

int count(const std::string &text, const std::string &what)
{
    int n = 0;
    for (size_t at = text.find(what); at != std::string::npos; at = text.find(what, at + 1))
        ++n;
    return n;
}

Element integer(unsigned numid, const char *name, unsigned count, long min, long max, long value)
{
    Element e;
    e.numid = numid;
    e.name = name;
    e.type = SND_CTL_ELEM_TYPE_INTEGER;
    e.count = count;
    e.min = min;
    e.max = max;
    e.values.assign(count, value);
    return e;
}

Element boolean(unsigned numid, const char *name, bool value)
{
    Element e;
    e.numid = numid;
    e.name = name;
    e.type = SND_CTL_ELEM_TYPE_BOOLEAN;
    e.values = {value ? 1 : 0};
    return e;
}

class CaptureTest : public ::testing::Test
{
protected:
    void SetUp() override { fakealsa::reset(); }

    // open() with its printed lines.
    bool open(AudiocaptureThread &cap, std::string &out)
    {
        bool ok = false;
        out = testutil::captureStdout([&] { ok = cap.open(); });
        return ok;
    }

    FFmpegEncode encoder; // not started: blocks just queue
    testutil::TempDir dir;
};

} // namespace

TEST_F(CaptureTest, ANewCaptureHasTheDefaults)
{
    AudiocaptureThread cap(&encoder);
    EXPECT_EQ(cap.frameSize(), 1152);
    EXPECT_EQ(cap.audioChannel(), 1);
    EXPECT_EQ(cap.sampleRate(), 48000);
    EXPECT_EQ(cap.soundCardName(), QStringLiteral("KW-08P USBCamera"));
    EXPECT_FALSE(cap.isOver());
}

TEST_F(CaptureTest, TheCameraCardIsFoundByNameInAnyCase)
{
    fakealsa::addCard("HDA Intel PCH");
    fakealsa::addCard("USB audio kw-08p usbcamera front");
    fakealsa::addCard("Loopback");
    AudiocaptureThread cap(&encoder);
    std::string out;
    ASSERT_TRUE(open(cap, out)) << out;
    EXPECT_EQ(fakealsa::pcmOpenAttempts(), std::vector<std::string>{"hw:1"});
    EXPECT_EQ(cap.soundCardName(), QStringLiteral("KW-08P USBCamera"));
    EXPECT_NE(out.find("find sound card\ncard name: USB audio kw-08p usbcamera front\n"), std::string::npos);
    EXPECT_NE(out.find("find:hw:1KW-08P USBCamera\n" + kSeparator + "\n"), std::string::npos) << out;
    EXPECT_NE(out.find("音频接口打开成功.KW-08P USBCamera:hw:1\n"), std::string::npos);
    EXPECT_NE(out.find("音频接口准备好.\n" + kSeparator + "\n"), std::string::npos);
}

TEST_F(CaptureTest, TheLastOfSeveralMatchesWinsAndAnEmptyNameMatchesEveryCard)
{
    fakealsa::addCard("KW-08P USBCamera A");
    fakealsa::addCard("Other");
    fakealsa::addCard("kw-08p usbcamera B");
    AudiocaptureThread cap(&encoder);
    std::string out;
    out = testutil::captureStdout([&] { EXPECT_EQ(cap.snd_card_find("KW-08P USBCamera"), "hw:2"); });
    out = testutil::captureStdout([&] { EXPECT_EQ(cap.snd_card_find(""), "hw:2"); });
    EXPECT_EQ(count(out, "find sound card"), 3);
}

TEST_F(CaptureTest, FallBackNamesAreTriedInOrder)
{
    {
        fakealsa::addCard("HDA Intel");
        fakealsa::addCard("My KWVizDesk mic");
        AudiocaptureThread cap(&encoder);
        std::string out;
        ASSERT_TRUE(open(cap, out));
        EXPECT_EQ(cap.soundCardName(), QStringLiteral("kwvizdesk"));
        EXPECT_EQ(fakealsa::pcmOpenAttempts(), std::vector<std::string>{"hw:1"});
    }
    fakealsa::reset();
    {
        fakealsa::addCard("Web CAMERA audio");
        AudiocaptureThread cap(&encoder);
        std::string out;
        ASSERT_TRUE(open(cap, out));
        EXPECT_EQ(cap.soundCardName(), QStringLiteral("camera"));
    }
}

TEST_F(CaptureTest, WithoutACardNothingIsOpenedAndOnlyTheSearchIsPrinted)
{
    AudiocaptureThread cap(&encoder);
    std::string out = testutil::captureStdout([&] { EXPECT_EQ(cap.snd_card_find("mic"), ""); });
    EXPECT_EQ(out, "find:mic\n" + kSeparator + "\n");
    ASSERT_FALSE(open(cap, out));
    EXPECT_EQ(cap.soundCardName(), QStringLiteral("camera"));
    EXPECT_TRUE(fakealsa::pcmOpenAttempts().empty());
}

TEST_F(CaptureTest, TheMixerGivesTheChannelCountAndNumidTwoIsRaisedOnEveryCard)
{
    fakealsa::addCard("Other card", {integer(2, "Master Playback Volume", 2, 0, 31, 5)});
    fakealsa::addCard("KW-08P USBCamera",
                      {boolean(1, "Mic Capture Switch", true),
                       integer(2, "Mic Capture Volume", 1, 0, 16, 3),
                       integer(3, "Capture Channel Map", 2, 0, 5, 0),
                       integer(4, "Mic Channel Layout", 3, 0, 5, 0)},
                      [] {
                          fakealsa::Capture c;
                          c.channels = {1, 2, 3};
                          return c;
                      }());
    AudiocaptureThread cap(&encoder);
    std::string out;
    ASSERT_TRUE(open(cap, out)) << out;
    // The later "Channel" element's count wins, and the device is asked for it.
    EXPECT_NE(out.find("set audioChannel2\n"), std::string::npos);
    EXPECT_NE(out.find("set audioChannel3\n"), std::string::npos);
    EXPECT_NE(out.find("声道数设置:3\n"), std::string::npos);
    EXPECT_EQ(cap.audioChannel(), 3);
    EXPECT_NE(out.find("numid: 1\nname: Mic Capture Switch\niface: MIXER\ntype: BOOLEAN\ncount: 1\n"
                       "value 0 : true\n" + kSeparator + "\n"),
              std::string::npos)
        << out;
    EXPECT_NE(out.find("min: 0\nmax: 16\nvalue 0 : 3\n"), std::string::npos);
    EXPECT_EQ(fakealsa::elementValues(0, 2), (std::vector<long>{31, 31}));
    EXPECT_EQ(fakealsa::elementValues(1, 2), std::vector<long>{16});
    EXPECT_EQ(fakealsa::elementValues(1, 3), (std::vector<long>{0, 0})); // not numid 2
    // Element 2 of the other card is written once per value, on each card search.
    int writesCard0 = 0;
    for (const fakealsa::MixerWrite &w : fakealsa::mixerWrites())
        writesCard0 += w.card == 0 && w.numid == 2;
    EXPECT_EQ(writesCard0, 2);
}

TEST_F(CaptureTest, OnlyTheFirstHundredElementsAreSeen)
{
    std::vector<Element> many;
    for (unsigned i = 0; i < 150; ++i)
        many.push_back(integer(i == 120 ? 2 : 1000 + i, "Knob", 1, 0, 9, 1));
    fakealsa::addCard("Big mixer", many);
    AudiocaptureThread cap(&encoder);
    const std::string out = testutil::captureStdout([&] { cap.snd_card_find("nothing"); });
    EXPECT_NE(out.find("list used: 100\n\n"), std::string::npos);
    EXPECT_EQ(count(out, "numid: "), 100);
    EXPECT_EQ(fakealsa::elementValues(0, 2), std::vector<long>{1}); // beyond 100: untouched
}

TEST_F(CaptureTest, AControlDeviceThatDoesNotOpenIsSkipped)
{
    fakealsa::addCard("KW-08P USBCamera");
    fakealsa::setControlOpenFails(0);
    fakealsa::addCard("kw-08p usbcamera spare");
    AudiocaptureThread cap(&encoder);
    std::string out = testutil::captureStdout([&] { EXPECT_EQ(cap.snd_card_find("KW-08P USBCamera"), "hw:1"); });
    EXPECT_NE(out.find("open ret: -13\n"), std::string::npos);
}

TEST_F(CaptureTest, TheGrantedRateAndTheChannelFallBackAreKept)
{
    fakealsa::Capture c;
    c.rates = {44100};
    c.channels = {2};
    fakealsa::addCard("KW-08P USBCamera", {}, c);
    AudiocaptureThread cap(&encoder);
    std::string out;
    ASSERT_TRUE(open(cap, out)) << out;
    EXPECT_EQ(cap.sampleRate(), 44100);
    EXPECT_EQ(cap.audioChannel(), 2);
    EXPECT_NE(out.find("采样率设置:48000\n采样率设置成功:44100\n"), std::string::npos) << out;
    EXPECT_NE(out.find("声道数设置:1\n1无法设置声道数(Invalid argument)\n声道数设置成功.:2\n"),
              std::string::npos)
        << out;
}

TEST_F(CaptureTest, ADeviceThatRefusesBothChannelCountsIsClosedAndRefused)
{
    fakealsa::Capture c;
    c.channels = {4};
    fakealsa::addCard("KW-08P USBCamera", {}, c);
    AudiocaptureThread cap(&encoder);
    std::string out;
    EXPECT_FALSE(open(cap, out));
    EXPECT_NE(out.find("1无法设置声道数(Invalid argument)\n"), std::string::npos);
    EXPECT_NE(out.find("2无法设置声道数(Invalid argument)\n"), std::string::npos);
    EXPECT_EQ(fakealsa::pcmOpenHandles(), 0);
}

class BusyDeviceTest : public CaptureTest
{
protected:
    void SetUp() override
    {
        CaptureTest::SetUp();
        log = dir.file("killall.log");
        qputenv("FAKE_KILLALL_LOG", QByteArray::fromStdString(log));
        savedPath = qgetenv("PATH");
        qputenv("PATH", QByteArray(FAKE_KILLALL_DIR ":") + savedPath);
    }
    void TearDown() override { qputenv("PATH", savedPath); }

    std::vector<std::string> killallCalls() const
    {
        std::vector<std::string> lines;
        std::ifstream in(log);
        for (std::string line; std::getline(in, line);)
            lines.push_back(line);
        return lines;
    }

    std::string log;
    QByteArray savedPath;
};

TEST_F(BusyDeviceTest, AnotherErrorIsNotRetried)
{
    fakealsa::Capture c;
    c.openError = -EACCES;
    fakealsa::addCard("KW-08P USBCamera", {}, c);
    AudiocaptureThread cap(&encoder);
    std::string out;
    EXPECT_FALSE(open(cap, out));
    EXPECT_EQ(fakealsa::pcmOpenAttempts().size(), 1u);
    EXPECT_NE(out.find("无法打开音频设备: hw:0 (Permission denied) -13\n"), std::string::npos) << out;
    EXPECT_TRUE(killallCalls().empty());
}

TEST_F(BusyDeviceTest, ABusyDeviceRestartsTheSoundServerEightTimesThenGivesUp)
{
    fakealsa::Capture c;
    c.busyOpens = 1000;
    fakealsa::addCard("KW-08P USBCamera", {}, c);
    qputenv("LD_LIBRARY_PATH", "/opt/camera/lib");
    AudiocaptureThread cap(&encoder);
    std::string out;
    EXPECT_FALSE(open(cap, out));
    EXPECT_EQ(fakealsa::pcmOpenAttempts().size(), 9u);
    EXPECT_EQ(count(out, "无法打开音频设备: hw:0 (Device or resource busy) -16\n"), 9);
    EXPECT_EQ(qgetenv("LD_LIBRARY_PATH"), QByteArray("/opt/camera/lib"));
    // Started detached: poll for the eighth record.
    ASSERT_TRUE(testutil::pollUntil([&] { return killallCalls().size() >= 8; }, 10s));
    const std::vector<std::string> calls = killallCalls();
    EXPECT_EQ(calls.size(), 8u);
    for (const std::string &call : calls)
        EXPECT_EQ(call, "pulseaudio|"); // run with LD_LIBRARY_PATH defined and empty
    qunsetenv("LD_LIBRARY_PATH");
}

TEST_F(BusyDeviceTest, TheRestartNeverTouchesTheProcesssEnvironment)
{
    fakealsa::Capture c;
    c.busyOpens = 1;
    fakealsa::addCard("KW-08P USBCamera", {}, c);
    qunsetenv("LD_LIBRARY_PATH");
    AudiocaptureThread cap(&encoder);
    std::string out;
    EXPECT_TRUE(open(cap, out)) << out;
    EXPECT_EQ(fakealsa::pcmOpenAttempts().size(), 2u);
    // The host's threads read the environment: only the helper's own one is changed.
    EXPECT_FALSE(qEnvironmentVariableIsSet("LD_LIBRARY_PATH"));
    ASSERT_TRUE(testutil::pollUntil([&] { return killallCalls().size() >= 1; }, 10s));
    EXPECT_EQ(killallCalls(), std::vector<std::string>{"pulseaudio|"});
}

TEST_F(BusyDeviceTest, AStopEndsTheRetriesOfABusyDeviceAtOnce)
{
    fakealsa::Capture c;
    c.busyOpens = 1000;
    fakealsa::addCard("KW-08P USBCamera", {}, c);
    AudiocaptureThread cap(&encoder);
    std::atomic<bool> stop{false};
    std::atomic<bool> opened{true};
    std::chrono::steady_clock::time_point stopAt, returnedAt;
    testutil::captureStdout([&] {
        std::thread opener([&] {
            opened = cap.open([&] { return stop.load(); });
            returnedAt = std::chrono::steady_clock::now();
        });
        ASSERT_TRUE(testutil::pollUntil([&] { return fakealsa::pcmOpenAttempts().size() >= 2; }, 10s));
        stopAt = std::chrono::steady_clock::now();
        stop = true;
        opener.join();
    });
    EXPECT_FALSE(opened);
    // Eight retries a second apart would take eight seconds.
    EXPECT_LT(returnedAt - stopAt, 1s);
}

// Captures into an audio-only WAV through the real encoder, so that what was handed on
// can be compared sample for sample with what the card delivered; an overrun's lost
// sound must come back as silence of its length.
TEST_F(CaptureTest, BlocksHoldWholeInterleavedReadsAndOverrunsLeaveSilenceOfTheirLength)
{
    struct Row {
        int channels;
        long overrunEveryMs; // -1: none
    };
    for (const Row row : {Row{1, -1}, Row{2, -1}, Row{1, 300}}) {
        const int channels = row.channels;
        SCOPED_TRACE(std::to_string(channels) + " channel(s), overrun every "
                     + std::to_string(row.overrunEveryMs) + " ms");
        fakealsa::reset();
        fakealsa::Capture c;
        c.channels = {static_cast<unsigned>(channels)};
        c.frequency = 500;
        c.overrunEveryMs = row.overrunEveryMs;
        c.overrunLossMs = 200;
        fakealsa::addCard("KW-08P USBCamera", {}, c);

        FFmpegEncode enc;
        const std::string file = dir.file("cap" + std::to_string(channels) + "_"
                                          + std::to_string(row.overrunEveryMs) + ".wav");
        enc.setVideo_path(QString::fromStdString(file));
        enc.setRecVideo(false);
        AudiocaptureThread capture(&enc);
        QtMessageCollector log;
        const std::string out = testutil::captureStdout([&] {
            ASSERT_TRUE(capture.open());
            ASSERT_EQ(capture.audioChannel(), channels);
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
        EXPECT_NE(out.find("开始采集音频数据:" + std::to_string(1024 * 2 * channels) + "\n"),
                  std::string::npos)
            << out;
        EXPECT_NE(out.find("AudiocaptureThread over\n"), std::string::npos);
        MediaFile f;
        std::string err;
        ASSERT_TRUE(readMediaFile(file, f, &err)) << err;
        ASSERT_EQ(f.audioChannels, channels);
        ASSERT_EQ(f.samples.size() % (1024 * channels), 0u); // whole blocks only
        // The sound up to the first silence is the card's, sample for sample.
        const size_t frames = f.samples.size() / channels;
        size_t i = 0;
        long mismatches = 0;
        const auto silenceAt = [&](size_t k) { // two zeros: a sine of 500 Hz has none
            return k + 1 < frames && f.samples[k * channels] == 0 && f.samples[(k + 1) * channels] == 0;
        };
        for (; i < frames && !silenceAt(i); ++i)
            for (int ch = 0; ch < channels; ++ch)
                mismatches += f.samples[i * channels + ch] != fakealsa::sampleAt(long(i), ch, 48000, 500);
        EXPECT_EQ(mismatches, 0);
        // Every overrun left one stretch of silence, together as long as the sound lost
        // (the card's restart, and what was unread when it ran over).
        std::vector<double> silences;
        for (size_t run = 0; i < frames; ++i) {
            run = f.samples[i * channels] == 0 ? run + 1 : 0;
            if (run == size_t(48000 / 20)) // 50 ms: no sine has that
                silences.push_back(0);
            if (run >= size_t(48000 / 20))
                silences.back() = double(run) / 48000;
        }
        ASSERT_EQ(int(silences.size()), fakealsa::overruns());
        const double lost = double(fakealsa::framesLost()) / 48000;
        EXPECT_NEAR(std::accumulate(silences.begin(), silences.end(), 0.0), lost,
                    0.005 * silences.size());
        if (row.overrunEveryMs > 0) {
            EXPECT_EQ(log.count(QStringLiteral("overruns): filled with silence")), 1);
        }
    }
}

TEST_F(CaptureTest, PausedBlocksAreDroppedAndResumingHandsOnTheNextRead)
{
    fakealsa::addCard("KW-08P USBCamera");
    AudiocaptureThread cap(&encoder);
    std::string out = testutil::captureStdout([&] {
        ASSERT_TRUE(cap.open());
        cap.setFrameSize(480); // 10 ms blocks
        cap.startThread();
        cap.setPause(true);
        cap.startRecord();
        ASSERT_TRUE(testutil::pollUntil([&] { return fakealsa::framesDelivered() >= 10 * 480; }, 10s));
        EXPECT_EQ(encoder.audioQueueCount(), 0);
        cap.setPause(false);
        EXPECT_TRUE(testutil::pollUntil([&] { return encoder.audioQueueCount() >= 3; }, 10s));
        cap.stopThread();
        ASSERT_TRUE(testutil::pollUntil([&] { return cap.isOver(); }, 5s));
    });
    // Every block handed on came from a read after the resume.
    EXPECT_LE(encoder.audioQueueCount(), int(fakealsa::framesDelivered() / 480) - 10);
}

TEST_F(CaptureTest, AnUnpluggedMicrophoneIsReopenedElevenTimesThenCaptureEnds)
{
    fakealsa::Capture c;
    c.unplugAfterMs = 300;
    fakealsa::addCard("KW-08P USBCamera", {}, c);
    AudiocaptureThread cap(&encoder);
    std::string out = testutil::captureStdout([&] {
        ASSERT_TRUE(cap.open());
        cap.setFrameSize(480);
        cap.startThread();
        cap.startRecord();
        ASSERT_TRUE(testutil::pollUntil([&] { return cap.isOver(); }, 10s));
    });
    EXPECT_GT(encoder.audioQueueCount(), 0);
    EXPECT_LE(encoder.audioQueueCount(), 30); // nothing after the unplug
    const size_t failure = out.find("从音频接口读取失败(No such device)\n");
    ASSERT_NE(failure, std::string::npos) << out;
    // Each open() walks the cards for the three names: 11 re-opens, 33 searches.
    EXPECT_EQ(count(out.substr(failure), "find:"), 33);
    EXPECT_NE(out.find("AudiocaptureThread over\n"), std::string::npos);
    EXPECT_EQ(fakealsa::pcmOpenHandles(), 0);
    cap.stopThread();
    EXPECT_TRUE(cap.isOver());
}

TEST_F(CaptureTest, AMicrophoneThatComesBackAtOnceKeepsDelivering)
{
    fakealsa::Capture c;
    c.unplugAfterMs = 35;
    c.replugAfterMs = 0;
    fakealsa::addCard("KW-08P USBCamera", {}, c);
    AudiocaptureThread cap(&encoder);
    testutil::captureStdout([&] {
        ASSERT_TRUE(cap.open());
        cap.setFrameSize(480);
        cap.startThread();
        cap.startRecord();
        EXPECT_TRUE(testutil::pollUntil([&] { return encoder.audioQueueCount() >= 8; }, 10s));
        EXPECT_FALSE(cap.isOver());
        cap.stopThread();
        ASSERT_TRUE(testutil::pollUntil([&] { return cap.isOver(); }, 5s));
    });
}

// A device that stays open but delivers nothing must neither hold a stop nor keep the
// thread waiting for ever: after two silent seconds it is taken for gone.
TEST_F(CaptureTest, AStalledMicrophoneIsTakenForGoneAndNeverHoldsAStop)
{
    fakealsa::Capture c;
    c.stallAfterMs = 100;
    fakealsa::addCard("KW-08P USBCamera", {}, c);
    AudiocaptureThread cap(&encoder);
    std::string out = testutil::captureStdout([&] {
        ASSERT_TRUE(cap.open());
        cap.setFrameSize(480);
        cap.startThread();
        cap.startRecord();
        ASSERT_TRUE(testutil::pollUntil([&] { return fakealsa::pcmOpens() >= 2; }, 10s));
        const auto stopAt = std::chrono::steady_clock::now();
        cap.stopThread();
        ASSERT_TRUE(testutil::pollUntil([&] { return cap.isOver(); }, 5s));
        EXPECT_LT(std::chrono::steady_clock::now() - stopAt, 1s);
    });
    // The stall is reported and the device is opened again, as after a failed read.
    EXPECT_NE(out.find("从音频接口读取失败(Connection timed out)\n"), std::string::npos) << out;
    EXPECT_LE(encoder.audioQueueCount(), 10);
    EXPECT_EQ(fakealsa::pcmOpenHandles(), 0);
}

TEST_F(CaptureTest, StoppingBeforeRecordingEndsTheThreadPromptly)
{
    fakealsa::addCard("KW-08P USBCamera");
    AudiocaptureThread cap(&encoder);
    std::string out = testutil::captureStdout([&] {
        ASSERT_TRUE(cap.open());
        cap.startThread();
        cap.stopThread();
        EXPECT_TRUE(testutil::pollUntil([&] { return cap.isOver(); }, 2s));
    });
    EXPECT_EQ(fakealsa::framesDelivered(), 0);
    EXPECT_EQ(out.find("开始采集音频数据"), std::string::npos);
    EXPECT_EQ(fakealsa::pcmOpenHandles(), 0);
}

int main(int argc, char **argv)
{
    QCoreApplication app(argc, argv);
    ::testing::InitGoogleTest(&argc, argv);
    return RUN_ALL_TESTS();
}
