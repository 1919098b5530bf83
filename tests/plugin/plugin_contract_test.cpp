// The plugin as a host sees it: metadata, the instance, casts and the recorder's
// controls, through the built library loaded with QPluginLoader.
#include <QCoreApplication>
#include <QJsonArray>
#include <QJsonObject>
#include <QPluginLoader>
#include <QThread>
#include <gtest/gtest.h>

#include "plugin/ffmpegplugin.h"
#include "plugin/recordingstatus.h"
#include "support/qtmessages.h"
#include "support/testutil.h"

namespace host10 {
// What a host built against the status interface's version 1.0 declared: its record and
// its one slot, compiled into that host as they were. Not in an unnamed namespace: there
// the compiler would know no class implements the slot and never call it.
struct HostStatus10 {
    RecordingStatus::State state;
    QString file;
    bool video, audio;
    double seconds;
    qint64 bytes;
    long framesWritten, framesDropped, framesRefused, soundLostMs, soundFilledMs;
    QString endReason;
};
class HostStatusInterface10
{
public:
    virtual HostStatus10 recordingStatus() const = 0;

protected:
    ~HostStatusInterface10() = default;
};
} // namespace host10

namespace {

QObject *loadInstance(QPluginLoader &loader)
{
    QObject *o = loader.instance();
    EXPECT_NE(o, nullptr) << qPrintable(loader.errorString());
    return o;
}

class PluginTest : public ::testing::Test
{
protected:
    void SetUp() override { instance = loadInstance(loader); }
    FFMPEGPlugin *recorder() { return qobject_cast<FFMPEGPlugin *>(instance); }

    QPluginLoader loader{QStringLiteral(RECORDER_PLUGIN_PATH)};
    QObject *instance = nullptr;
};

} // namespace

TEST(PluginMetadata, HostSeesTheInterfaceIdClassNameQtVersionAndEmptyKeys)
{
    QPluginLoader loader(QStringLiteral(RECORDER_PLUGIN_PATH));
    const QJsonObject md = loader.metaData();
    EXPECT_EQ(md.value("IID").toString(), QStringLiteral("com.kw.ffmpegplugin"));
    EXPECT_EQ(md.value("className").toString(), QStringLiteral("RecordThread"));
    // The Qt it was built against, major and minor, as the loader reads it.
    EXPECT_EQ(md.value("version").toInt(), QT_VERSION_CHECK(QT_VERSION_MAJOR, QT_VERSION_MINOR, 0));
    EXPECT_EQ(md.value("debug"), QJsonValue(false));
    const QJsonObject meta = md.value("MetaData").toObject();
    ASSERT_EQ(meta.keys(), QStringList{"Keys"});
    EXPECT_EQ(meta.value("Keys"), QJsonValue(QJsonArray()));
}

TEST_F(PluginTest, CastsAnswerTheInterfaceNamesAndNothingElse)
{
    ASSERT_NE(instance, nullptr);
    void *byName = instance->qt_metacast("FFMPEGPlugin");
    void *byIid = instance->qt_metacast("com.kw.ffmpegplugin");
    ASSERT_NE(byName, nullptr);
    EXPECT_EQ(byName, byIid);
    EXPECT_EQ(static_cast<FFMPEGPlugin *>(byName), recorder());
    EXPECT_EQ(instance->qt_metacast("PluginInterface"), nullptr);
    // The status interface under its id, and under 1.0's for hosts built before
    // waitForRecordEnd: the same first slot answers through both.
    auto *status = static_cast<FFMPEGPluginStatus *>(instance->qt_metacast(FFMPEGPluginStatus_iid));
    auto *status10 = static_cast<host10::HostStatusInterface10 *>(instance->qt_metacast("com.kw.ffmpegplugin.status/1.0"));
    ASSERT_NE(status, nullptr);
    ASSERT_NE(status10, nullptr);
    recorder()->setFilename(QStringLiteral("v1.mp4"));
    recorder()->setHasVideo(false);
    recorder()->setHasAudio(false);
    recorder()->startRecord();
    EXPECT_TRUE(status->waitForRecordEnd(10000));
    // Read as that host's record: every member where it was, the last included.
    const host10::HostStatus10 old = status10->recordingStatus();
    const RecordingStatus now = status->recordingStatus();
    EXPECT_EQ(old.file, QStringLiteral("v1.mp4"));
    EXPECT_EQ(old.state, now.state);
    EXPECT_EQ(old.soundFilledMs, now.soundFilledMs);
    EXPECT_FALSE(now.endReason.isEmpty());
    EXPECT_EQ(old.endReason, now.endReason);
    EXPECT_EQ(instance->qt_metacast(nullptr), nullptr);
    EXPECT_NE(qobject_cast<QThread *>(instance), nullptr);
}

TEST_F(PluginTest, OneInstanceUntilItsOwnerDeletesIt)
{
    ASSERT_NE(instance, nullptr);
    QPluginLoader second(QStringLiteral(RECORDER_PLUGIN_PATH));
    EXPECT_EQ(second.instance(), instance);

    recorder()->setFps(25);
    recorder()->setFilename(QStringLiteral("名字 with spaces.mkv"));
    EXPECT_EQ(recorder()->filename(), QStringLiteral("名字 with spaces.mkv"));
    delete instance;
    FFMPEGPlugin *r = qobject_cast<FFMPEGPlugin *>(loadInstance(loader));
    ASSERT_NE(r, nullptr);
    // Nothing of the deleted instance survives: a new one has the defaults.
    EXPECT_EQ(r->fps(), 10);
    EXPECT_EQ(r->filename(), QStringLiteral("out.mp4"));
}

TEST_F(PluginTest, NothingWantedLogsWhyWakesWaitersAndCanStartAgain)
{
    FFMPEGPlugin *r = recorder();
    ASSERT_NE(r, nullptr);
    // Idle: pause and resume are refused, and a wait for the start answers at once.
    EXPECT_FALSE(r->bPauseRec());
    EXPECT_FALSE(r->bResumeRec());
    EXPECT_FALSE(r->waitForRecordStart(-1));
    QtMessageCollector log;
    r->setHasVideo(false);
    r->setHasAudio(false);
    for (int round = 1; round <= 2; ++round) {
        r->startRecord();
        // No time limit: the session's answer must wake this, or the test hangs.
        EXPECT_FALSE(r->waitForRecordStart(-1));
        EXPECT_FALSE(r->isRecording());
        ASSERT_TRUE(testutil::pollUntil([&] { return log.count("未配置录制视频或者音频") == round; },
                                        std::chrono::seconds(5)))
            << "round " << round;
        // The session gave up; the recorder must accept the next start without a stop.
        ASSERT_TRUE(testutil::pollUntil([&] { return qobject_cast<QThread *>(instance)->isFinished(); },
                                        std::chrono::seconds(5)));
    }
    EXPECT_FALSE(r->bPauseRec());
}

int main(int argc, char **argv)
{
    QCoreApplication app(argc, argv);
    ::testing::InitGoogleTest(&argc, argv);
    return RUN_ALL_TESTS();
}
