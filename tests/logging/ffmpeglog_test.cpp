// FFmpeg's own log as a host of the built plugin sees it: through Qt's logging under the
// plugin's category, warnings by default, the encoders' information and debugging only
// when a logging rule asks for them. (That nothing reaches standard error by default is
// the demo host's test.)
#include <QLoggingCategory>
#include <QRegularExpression>
#include <gtest/gtest.h>

#include <thread>

#include "simulatedmic.h"
#include "support/loadedrecorder.h"
#include "support/qtmessages.h"
#include "support/testcameras.h"
#include "support/testutil.h"

using namespace std::chrono_literals;

namespace {

struct LogRules {
    const char *rules; // the host's logging rules
    bool info, debug;  // the levels they turn on
};

// Each row sets its own rules, the first none.
using FfmpegLogTest = ::testing::TestWithParam<LogRules>;

} // namespace

TEST_P(FfmpegLogTest, EncoderMessagesReachTheCategoryAtTheLevelsTheRulesTurnOn)
{
    testutil::TempDir dir;
    SolidCamera camera(160, 120, cv::Scalar(40, 90, 200)); // outlives the recorder
    LoadedRecorder rec{QStringLiteral(RECORDER_PLUGIN_PATH)};
    ASSERT_TRUE(rec.loaded()) << qPrintable(rec.error());
    // AAC's 64 kbit/s is more than 8 kHz mono can carry: the encoder warns, as it does for
    // any camera microphone this slow.
    simulatedmic::reset();
    simulatedmic::addCameraMicrophone(8000, 1, 440.0);
    QLoggingCategory::setFilterRules(QString::fromLatin1(GetParam().rules));
    QtMessageCollector log;
    rec->setPluginComponent(&camera);
    rec->setFilename(QString::fromStdString(dir.file("log.mp4")));
    rec->vSetRecSize(160, 120);
    rec->setFps(25);
    testutil::captureStderr([&] { // Qt prints what it is given there too
        rec->startRecord();
        EXPECT_TRUE(rec->waitForRecordStart(20000));
        std::this_thread::sleep_for(1s);
        EXPECT_TRUE(rec.stopAndWait(60s));
    });

    const QString category = QStringLiteral("kwrecorder.ffmpeg");
    const QStringList info = log.messages(category, QtInfoMsg);
    const QStringList debug = log.messages(category, QtDebugMsg);
    const int on = GetParam().info ? 1 : 0;
    EXPECT_EQ(log.messages(category, QtWarningMsg).filter("[aac @").filter("Too many bits").size(), 1)
        << qPrintable(log.messages().join('\n'));
    // libx264 picked its level from FFmpeg's when it opened: its statistics come.
    EXPECT_EQ(info.filter("[libx264 @").filter("kb/s:").size(), on) << qPrintable(info.join('\n'));
    // The stream descriptions are written in pieces: each arrives as one whole line.
    const QRegularExpression streams(
        "^ +Stream #0:[01]: (Video: h264.*160x120|Audio: aac.*8000 Hz)");
    EXPECT_EQ(info.filter(streams).size(), 2 * on);
    // libx264 reports each frame only when FFmpeg's level was raised before it opened.
    EXPECT_EQ(debug.filter("[libx264 @").filter("frame=").size() >= 10, GetParam().debug)
        << qPrintable(debug.join('\n'));
}

INSTANTIATE_TEST_SUITE_P(Rules, FfmpegLogTest,
                         ::testing::Values(LogRules{"", false, false},
                                           LogRules{"kwrecorder.ffmpeg.info=true", true, false},
                                           LogRules{"kwrecorder.ffmpeg.debug=true", false, true}));
