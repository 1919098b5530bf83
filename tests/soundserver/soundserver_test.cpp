// The camera's microphone through real sound servers (PulseAudio; PipeWire with
// WirePlumber and pipewire-pulse), each started here: the camera's source is found among a
// decoy default microphone and monitors, shared with another client, timed against the
// picture, and a server that goes away costs the sound only.
#include <QCoreApplication>
#include <QFile>
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <thread>

#include "support/lipsync.h"
#include "support/loadedrecorder.h"
#include "support/mediareader.h"
#include "support/soundserver.h"
#include "support/testutil.h"

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
// The decoy default microphone plays a steady tone at this frequency.
constexpr double kDecoyHz = 3000;
// Loudness that only a beep (or the decoy's tone) reaches.
constexpr int kLoud = 3000;

const QString kCameraCard = QStringLiteral("KW-08P USBCamera");

struct Server {
    const char *name;
    SoundServer::Kind kind;
};

class SoundServerTest : public ::testing::TestWithParam<Server>
{
protected:
    void SetUp() override
    {
        server = std::make_unique<SoundServer>(GetParam().kind);
        ASSERT_TRUE(server->ok()) << qPrintable(server->why());
        ASSERT_TRUE(server->addMicrophone(QStringLiteral("camfeed"), QStringLiteral("cammic"), kCameraCard,
                                          kCameraCard + QStringLiteral(" Analog Mono")));
        ASSERT_TRUE(server->addMicrophone(QStringLiteral("decoyfeed"), QStringLiteral("decoymic"),
                                          QStringLiteral("HDA Intel PCH"), QStringLiteral("Built-in Audio")));
        ASSERT_TRUE(server->setDefaultSource(QStringLiteral("decoymic")));
    }

    // Starts the beeps into the camera's source (at `epoch` and every flash period after)
    // and the decoy's tone, for `seconds`.
    void play(Clock::time_point epoch, int seconds)
    {
        const QString ns = QString::number(epoch.time_since_epoch().count());
        const QString length = QString::number(seconds);
        players.push_back(server->client(QStringLiteral(BEEPPLAYER_PATH),
                                         {QStringLiteral("camfeed"), ns, QString::number(kFlashEvery * 1000),
                                          QString::number(kBeepMs), QStringLiteral("1000"), length}));
        players.push_back(server->client(QStringLiteral(BEEPPLAYER_PATH),
                                         {QStringLiteral("decoyfeed"), ns, QStringLiteral("1000"), QStringLiteral("0"),
                                          QString::number(kDecoyHz), length}));
        for (auto &p : players) {
            p->setProcessChannelMode(QProcess::ForwardedErrorChannel);
            p->start();
            ASSERT_TRUE(p->waitForStarted());
        }
    }

    // Records `seconds` of the flashing camera into `file`; `during` runs once recording.
    void record(Clock::time_point epoch, const std::string &file, int seconds, const std::function<void()> &during)
    {
        FlashCamera camera(kWidth, kHeight, epoch, -1ms);
        LoadedRecorder rec{QStringLiteral(RECORDER_PLUGIN_PATH)};
        ASSERT_TRUE(rec.loaded()) << qPrintable(rec.error());
        rec->vSetRecSize(kWidth, kHeight);
        rec->setFps(kFps);
        rec->setPluginComponent(&camera);
        rec->setFilename(QString::fromStdString(file));
        rec->startRecord();
        ASSERT_TRUE(rec->waitForRecordStart(30000));
        const auto until = Clock::now() + std::chrono::seconds(seconds);
        during();
        std::this_thread::sleep_until(until);
        ASSERT_TRUE(rec.stopAndWait(60s));
    }

    void TearDown() override
    {
        for (auto &p : players) {
            p->terminate();
            p->waitForFinished();
        }
    }

    testutil::TempDir dir;
    std::unique_ptr<SoundServer> server;
    std::vector<std::unique_ptr<QProcess>> players;
};

// Raw mono S16 recorded by another client of the server: whether any sample is loud.
bool hasLoudSamples(const QByteArray &raw)
{
    const auto *s = reinterpret_cast<const int16_t *>(raw.constData());
    return std::any_of(s, s + raw.size() / 2, [](int16_t v) { return std::abs(v) >= kLoud; });
}

} // namespace

TEST_P(SoundServerTest, TheCamerasSourceIsRecordedInStepAndSharedWithAnotherClient)
{
    const auto epoch = Clock::now() + 3s;
    play(epoch, kSeconds + 15);
    record(epoch, dir.file("sync.mp4"), kSeconds, [&] {
        // Another program records the same microphone meanwhile, for two beeps' time.
        const auto other = server->client(QStringLiteral("parec"),
                                          {QStringLiteral("--device=cammic"), QStringLiteral("--raw"),
                                           QStringLiteral("--format=s16le"), QStringLiteral("--rate=48000"),
                                           QStringLiteral("--channels=1")});
        other->setStandardOutputFile(QString::fromStdString(dir.file("other.raw")));
        other->start();
        ASSERT_TRUE(other->waitForStarted());
        std::this_thread::sleep_for(5s); // the other client's recording time, not a synchronisation
        other->terminate();
        other->waitForFinished();
    });
    QFile otherFile(QString::fromStdString(dir.file("other.raw")));
    ASSERT_TRUE(otherFile.open(QIODevice::ReadOnly));
    const QByteArray heardByOther = otherFile.readAll();
    EXPECT_TRUE(hasLoudSamples(heardByOther)) << heardByOther.size() << " bytes heard by the other client";
    EXPECT_TRUE(server->running());

    MediaFile f;
    std::string err;
    ASSERT_TRUE(readMediaFile(dir.file("sync.mp4"), f, &err, true, false)) << err;
    ASSERT_TRUE(f.video() && f.audio());
    // The camera's beeps, not the decoy's steady tone: whole beeps two seconds apart.
    const std::vector<double> beeps = beepOnsets(f);
    ASSERT_GE(beeps.size(), size_t(kSeconds / 2 - 2));
    for (size_t i = 1; i < beeps.size(); ++i)
        EXPECT_NEAR(beeps[i] - beeps[i - 1], kFlashEvery, 0.1) << "beep " << i;
    if (!kTimed)
        return;
    const std::vector<double> flashes = flashTimes(f);
    const std::vector<double> offsets = pairOffsets(flashes, beeps, 0.5);
    ASSERT_GE(offsets.size(), size_t(kSeconds / 2 - 2))
        << "first flash " << (flashes.empty() ? -1 : flashes[0]) << " s, first beep " << beeps[0] << " s";
    std::string listed;
    for (double offset : offsets)
        listed += " " + std::to_string(std::lround(offset * 1000));
    for (double offset : offsets) {
        EXPECT_GE(offset, -kPeriod) << "pair offsets in ms:" << listed;
        EXPECT_LE(offset, 2 * kPeriod) << "pair offsets in ms:" << listed;
    }
    EXPECT_NEAR(offsets.back(), offsets.front(), kPeriod) << "pair offsets in ms:" << listed;
}

TEST_P(SoundServerTest, AServerStoppedMidRecordingCostsTheSoundOnly)
{
    constexpr int kLength = 6;
    const auto epoch = Clock::now() + 1s;
    play(epoch, kLength + 10);
    record(epoch, dir.file("cut.mp4"), kLength, [&] {
        std::this_thread::sleep_for(2500ms); // into the recording, not a synchronisation
        server->stop();
    });
    MediaFile f;
    std::string err;
    ASSERT_TRUE(readMediaFile(dir.file("cut.mp4"), f, &err, true, false)) << err;
    ASSERT_TRUE(f.video());
    EXPECT_GT(f.videoSeconds(), kLength - 1.0);
    ASSERT_TRUE(f.audio());
    EXPECT_LT(f.audioSeconds(), 4.0);
}

INSTANTIATE_TEST_SUITE_P(Servers, SoundServerTest,
                         ::testing::Values(Server{"PulseAudio", SoundServer::Kind::PulseAudio},
                                           Server{"PipeWire", SoundServer::Kind::PipeWire}),
                         [](const auto &info) { return std::string(info.param.name); });

int main(int argc, char **argv)
{
    QCoreApplication app(argc, argv); // for the daemons' and clients' QProcess
    ::testing::InitGoogleTest(&argc, argv);
    return RUN_ALL_TESTS();
}
