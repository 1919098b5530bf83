// FFmpeg's own log as a host of the built plugin sees it: through Qt's logging under the
// plugin's category, warnings by default, the encoders' information and debugging only
// when a logging rule asks for them. (That nothing reaches standard error by default is
// the demo host's test.)
#include <QLoggingCategory>
#include <QPluginLoader>
#include <QRegularExpression>
#include <gtest/gtest.h>

#include <thread>

extern "C" {
#include <libavutil/log.h>
}

#include "simulatedmic.h"
#include "support/loadedrecorder.h"
#include "support/qtmessages.h"
#include "support/testutil.h"
#include "syntheticcamera.h"

TEST(FfmpegLog, EncoderMessagesReachTheCategoryAtTheLevelsTheRulesTurnOn)
{
    // The host's logging rules (the first row none), and whether they turn on information
    // and debugging.
    const struct { const char *rules; bool info, debug; } rows[] = {
        {"", false, false},
        {"kwrecorder.ffmpeg.info=true", true, false},
        {"kwrecorder.ffmpeg.debug=true", false, true}};
    const QString category = QStringLiteral("kwrecorder.ffmpeg");
    // AAC's 64 kbit/s is more than 8 kHz mono can carry: the encoder warns, as it does for
    // any camera microphone this slow.
    simulatedmic::addCameraMicrophone(8000, 1, 440.0);
    for (const auto &row : rows) {
        SCOPED_TRACE(row.rules);
        testutil::TempDir dir;
        CyclingCamera camera({cv::Mat(120, 160, CV_8UC3, cv::Scalar(40, 90, 200))}, 50); // outlives the recorder
        LoadedRecorder rec{QStringLiteral(RECORDER_PLUGIN_PATH)};
        ASSERT_TRUE(rec.loaded()) << qPrintable(rec.error());
        QLoggingCategory::setFilterRules(QString::fromLatin1(row.rules));
        QtMessageCollector log;
        rec->setPluginComponent(&camera);
        rec->setFilename(QString::fromStdString(dir.file("log.mp4")));
        rec->vSetRecSize(160, 120);
        rec->setFps(25);
        rec->startRecord();
        EXPECT_TRUE(rec->waitForRecordStart(20000));
        std::this_thread::sleep_for(std::chrono::seconds(1));
        EXPECT_TRUE(rec.stopAndWait(std::chrono::seconds(60)));

        const QStringList info = log.messages(category, QtInfoMsg);
        const QStringList debug = log.messages(category, QtDebugMsg);
        const QStringList warnings = log.messages(category, QtWarningMsg);
        EXPECT_EQ(warnings.filter("[aac @").filter("Too many bits").size(), 1)
            << qPrintable(log.messages().join('\n'));
        // libx264 picked its level from FFmpeg's when it opened: its statistics come. The
        // stream descriptions are written in pieces: each arrives as one whole line.
        const QRegularExpression shown("\\[libx264 @.*kb/s:|"
                                       "^ +Stream #0:[01]: (Video: h264.*160x120|Audio: aac.*8000 Hz)");
        EXPECT_EQ(info.filter(shown).size(), row.info ? 3 : 0) << qPrintable(info.join('\n'));
        // libx264 reports each frame only when FFmpeg's level was raised before it opened.
        EXPECT_EQ(debug.filter("[libx264 @").filter("frame=").size() >= 10, row.debug)
            << qPrintable(debug.join('\n'));
    }
}

// A host that reads its camera through FFmpeg too logs through FFmpeg after it unloaded
// the plugin: the plugin's log callback must still be there to take the line.
TEST(FfmpegLog, AHostLogsThroughFfmpegAfterUnloadingThePlugin)
{
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_EXIT(
        {
            testutil::TempDir dir;
            CyclingCamera camera({cv::Mat(120, 160, CV_8UC3, cv::Scalar(40, 90, 200))}, 50);
            QPluginLoader loader(QStringLiteral(RECORDER_PLUGIN_PATH));
            auto *rec = qobject_cast<FFMPEGPlugin *>(loader.instance());
            if (!rec)
                std::_Exit(2);
            rec->setHasAudio(false);
            rec->setPluginComponent(&camera);
            rec->setFilename(QString::fromStdString(dir.file("unload.mp4")));
            rec->vSetRecSize(160, 120);
            rec->startRecord();
            if (!rec->waitForRecordStart(20000))
                std::_Exit(3);
            std::this_thread::sleep_for(std::chrono::seconds(1));
            rec->stopRecord();
            auto *status = qobject_cast<FFMPEGPluginStatus *>(loader.instance());
            if (!status || !status->waitForRecordEnd(60000) || !loader.unload())
                std::_Exit(4);
            av_log(nullptr, AV_LOG_ERROR, "the host's own line\n");
            std::_Exit(0);
        },
        ::testing::ExitedWithCode(0), "the host's own line");
}
