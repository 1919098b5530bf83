// The camera's microphone through real sound servers, each started here: PulseAudio, and
// PipeWire with WirePlumber and pipewire-pulse. The camera's source is found beside a decoy
// default microphone, shared with another client, timed against the picture; a server
// that goes away costs the sound only.
#include <QCoreApplication>
#include <QFile>
#include <gtest/gtest.h>

#include <algorithm>
#include <thread>

#include "support/lipsync.h"
#include "support/loadedrecorder.h"
#include "support/soundserver.h"

using namespace std::chrono_literals;

namespace {

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
// A sanitizer build is several times slower than the recorder is made for: picture and
// sound cannot be timed against each other there, so it records briefly and small.
constexpr bool kTimed = false;
constexpr int kSeconds = 8, kWidth = 640, kHeight = 480;
#else
constexpr bool kTimed = true;
constexpr int kSeconds = 30, kWidth = 1280, kHeight = 720;
#endif
constexpr int kLoud = 3000; // reached only by a beep (or the decoy's tone)

class SoundServerTest : public ::testing::TestWithParam<SoundServer::Kind>
{
protected:
    // The camera's source beeping at `epoch` and every flash period after, and a decoy
    // default microphone with a steady 3 kHz tone, for `seconds`.
    void SetUp() override
    {
        server = std::make_unique<SoundServer>(GetParam());
        ASSERT_EQ(server->failure(), QString());
        ASSERT_TRUE(server->addMicrophone("camfeed", "cammic", "KW-08P USBCamera", "KW-08P USBCamera Mono"));
        ASSERT_TRUE(server->addMicrophone("decoyfeed", "decoymic", "HDA Intel PCH", "Built-in Audio"));
        ASSERT_TRUE(server->run("pactl", {"set-default-source", "decoymic"}));
    }
    void play(Clock::time_point epoch, int seconds)
    {
        const QString ns = QString::number(epoch.time_since_epoch().count()), length = QString::number(seconds);
        for (const QStringList &args : {QStringList{"camfeed", ns, QString::number(kFlashEvery * 1000),
                                                    QString::number(kBeepMs), "1000", length},
                                        QStringList{"decoyfeed", ns, "1000", "0", "3000", length}}) {
            players.push_back(server->client(BEEPPLAYER_PATH, args));
            players.back()->setProcessChannelMode(QProcess::ForwardedErrorChannel);
            players.back()->start();
            ASSERT_TRUE(players.back()->waitForStarted());
        }
    }
    // Records `seconds` of the flashing camera into the file `name`, and reads it back;
    // `during` runs once recording.
    MediaFile record(Clock::time_point epoch, const char *name, int seconds, const std::function<void()> &during)
    {
        FlashCamera camera(kWidth, kHeight, epoch, -1ms);
        LoadedRecorder rec{RECORDER_PLUGIN_PATH};
        EXPECT_TRUE(rec.loaded()) << qPrintable(rec.error());
        rec->vSetRecSize(kWidth, kHeight);
        rec->setFps(kFps);
        rec->setPluginComponent(&camera);
        rec->setFilename(QString::fromStdString(dir.file(name)));
        rec->startRecord();
        EXPECT_TRUE(rec->waitForRecordStart(30000));
        const auto until = Clock::now() + std::chrono::seconds(seconds);
        during();
        std::this_thread::sleep_until(until);
        EXPECT_TRUE(rec.stopAndWait(60s));
        MediaFile f;
        std::string err;
        EXPECT_TRUE(readMediaFile(dir.file(name), f, &err, true, false)) << err;
        return f;
    }

    testutil::TempDir dir;
    std::unique_ptr<SoundServer> server;
    std::vector<std::unique_ptr<QProcess>> players; // killed at the end if still playing
};

} // namespace

TEST_P(SoundServerTest, TheCamerasSourceIsRecordedInStepAndSharedWithAnotherClient)
{
    const auto epoch = Clock::now() + 3s;
    play(epoch, kSeconds + 15);
    const QString heard = QString::fromStdString(dir.file("other.raw"));
    const MediaFile f = record(epoch, "sync.mp4", kSeconds, [&] {
        // Another program records the same microphone meanwhile, for two beeps' time.
        const auto other = server->client("parec", {"--device=cammic", "--raw", "--format=s16le", "--channels=1"});
        other->setStandardOutputFile(heard);
        other->start();
        std::this_thread::sleep_for(5s); // its recording time, not a synchronisation
        other->terminate();
        other->waitForFinished();
    });
    QFile otherFile(heard);
    ASSERT_TRUE(otherFile.open(QIODevice::ReadOnly));
    const QByteArray raw = otherFile.readAll();
    const auto *s = reinterpret_cast<const int16_t *>(raw.constData());
    EXPECT_TRUE(std::any_of(s, s + raw.size() / 2, [](int16_t v) { return std::abs(v) >= kLoud; }));
    EXPECT_TRUE(server->running());

    // The camera's beeps, not the decoy's steady tone: whole beeps two seconds apart.
    ASSERT_TRUE(f.video() && f.audio());
    const std::vector<double> beeps = beepOnsets(f);
    ASSERT_GE(beeps.size(), size_t(kSeconds / 2 - 2));
    for (size_t i = 1; i < beeps.size(); ++i)
        EXPECT_NEAR(beeps[i] - beeps[i - 1], kFlashEvery, 0.1) << "beep " << i;
    if (!kTimed)
        return;
    const std::vector<double> offsets = pairOffsets(flashTimes(f), beeps, 0.5);
    ASSERT_GE(offsets.size(), size_t(kSeconds / 2 - 2));
    for (double offset : offsets)
        EXPECT_TRUE(offset >= -kPeriod && offset <= 2 * kPeriod) << "a pair " << offset * 1000 << " ms apart";
    EXPECT_NEAR(offsets.back(), offsets.front(), kPeriod);
}

TEST_P(SoundServerTest, AServerStoppedMidRecordingCostsTheSoundOnly)
{
    const auto epoch = Clock::now() + 1s;
    play(epoch, 15);
    const MediaFile f = record(epoch, "cut.mp4", 6, [&] {
        std::this_thread::sleep_for(2500ms); // into the recording, not a synchronisation
        server->stop();
    });
    ASSERT_TRUE(f.video() && f.audio());
    EXPECT_GT(f.videoSeconds(), 5.0);
    EXPECT_LT(f.audioSeconds(), 4.0);
}

INSTANTIATE_TEST_SUITE_P(Servers, SoundServerTest,
                         ::testing::Values(SoundServer::Kind::PulseAudio, SoundServer::Kind::PipeWire),
                         [](const auto &info) {
                             return info.param == SoundServer::Kind::PulseAudio ? "PulseAudio" : "PipeWire";
                         });

int main(int argc, char **argv)
{
    QCoreApplication app(argc, argv); // for the daemons' and clients' QProcess
    ::testing::InitGoogleTest(&argc, argv);
    return RUN_ALL_TESTS();
}
