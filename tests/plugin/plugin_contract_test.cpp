// The plugin as a host sees it: metadata, the instance, casts and the recorder's
// controls, through the built library loaded with QPluginLoader.
#include <QCoreApplication>
#include <QJsonArray>
#include <QJsonObject>
#include <QPluginLoader>
#include <QThread>
#include <gtest/gtest.h>

#include <chrono>
#include <thread>

#include "plugin/ffmpegplugin.h"
#include "support/qtmessages.h"
#include "support/testutil.h"

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

TEST(PluginMetadata, HostSeesTheInterfaceIdClassNameAndEmptyKeys)
{
    QPluginLoader loader(QStringLiteral(RECORDER_PLUGIN_PATH));
    const QJsonObject md = loader.metaData();
    EXPECT_EQ(md.value("IID").toString(), QStringLiteral("com.kw.ffmpegplugin"));
    EXPECT_EQ(md.value("className").toString(), QStringLiteral("RecordThread"));
    EXPECT_FALSE(md.value("debug").toBool(true));
    EXPECT_EQ(md.value("version").toInt(), QT_VERSION & 0xFFFF00);
    const QJsonObject meta = md.value("MetaData").toObject();
    ASSERT_EQ(meta.keys(), QStringList{"Keys"});
    EXPECT_TRUE(meta.value("Keys").isArray());
    EXPECT_TRUE(meta.value("Keys").toArray().isEmpty());
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
    EXPECT_EQ(instance->qt_metacast(nullptr), nullptr);
    EXPECT_EQ(instance->qt_metacast("RecordThread"), static_cast<void *>(instance));
    EXPECT_EQ(instance->qt_metacast("QThread"), static_cast<void *>(instance));
    EXPECT_EQ(instance->qt_metacast("NoSuchClass"), nullptr);
    EXPECT_STREQ(instance->metaObject()->className(), "RecordThread");
    EXPECT_STREQ(instance->metaObject()->superClass()->className(), "QThread");
}

TEST_F(PluginTest, OneInstanceUntilItsOwnerDeletesIt)
{
    ASSERT_NE(instance, nullptr);
    QPluginLoader second(QStringLiteral(RECORDER_PLUGIN_PATH));
    EXPECT_EQ(second.instance(), instance);

    recorder()->setFps(25);
    recorder()->setFilename("changed.mkv");
    delete instance;
    QObject *fresh = loadInstance(loader);
    ASSERT_NE(fresh, nullptr);
    FFMPEGPlugin *r = qobject_cast<FFMPEGPlugin *>(fresh);
    ASSERT_NE(r, nullptr);
    // Nothing of the deleted instance survives: a new one has the defaults.
    EXPECT_EQ(r->fps(), 10);
    EXPECT_EQ(r->filename(), QStringLiteral("out.mp4"));
}

TEST_F(PluginTest, FreshRecorderHasTheDefaultsAndStoresSettingsUnchanged)
{
    FFMPEGPlugin *r = recorder();
    ASSERT_NE(r, nullptr);
    EXPECT_TRUE(r->hasVideo());
    EXPECT_TRUE(r->hasAudio());
    EXPECT_EQ(r->fps(), 10);
    EXPECT_EQ(r->videoBitrate(), 500000u);
    EXPECT_EQ(r->filename(), QStringLiteral("out.mp4"));
    EXPECT_FALSE(r->isRecording());

    r->setHasVideo(false);
    r->setHasAudio(false);
    r->setFps(-3);
    r->setVideoBitrate(4000000000u);
    r->setFilename(QStringLiteral("名字 with spaces.mp4"));
    EXPECT_FALSE(r->hasVideo());
    EXPECT_FALSE(r->hasAudio());
    EXPECT_EQ(r->fps(), -3);
    EXPECT_EQ(r->videoBitrate(), 4000000000u);
    EXPECT_EQ(r->filename(), QStringLiteral("名字 with spaces.mp4"));
    r->setHasVideo(true);
    r->setHasAudio(true);
    r->setFps(10);
    r->setVideoBitrate(500000);
    r->setFilename("out.mp4");
}

TEST_F(PluginTest, PauseAndResumeAreRefusedWhenIdle)
{
    FFMPEGPlugin *r = recorder();
    ASSERT_NE(r, nullptr);
    EXPECT_FALSE(r->bPauseRec());
    EXPECT_FALSE(r->bResumeRec());
    EXPECT_FALSE(r->isRecording());
}

TEST_F(PluginTest, WaitForRecordStartWithoutASessionAnswersAtOnce)
{
    FFMPEGPlugin *r = recorder();
    ASSERT_NE(r, nullptr);
    const auto t0 = std::chrono::steady_clock::now();
    EXPECT_FALSE(r->waitForRecordStart(0));
    EXPECT_FALSE(r->waitForRecordStart(-1)); // no session pending: must not block for ever
    EXPECT_LT(std::chrono::steady_clock::now() - t0, std::chrono::seconds(2));
}

TEST_F(PluginTest, NothingWantedLogsWhyWakesWaitersAndCanStartAgain)
{
    FFMPEGPlugin *r = recorder();
    ASSERT_NE(r, nullptr);
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
    r->setHasVideo(true);
    r->setHasAudio(true);
}

int main(int argc, char **argv)
{
    QCoreApplication app(argc, argv);
    ::testing::InitGoogleTest(&argc, argv);
    return RUN_ALL_TESTS();
}
