// FFmpeg's own log as a host of the built plugin sees it: through Qt's logging under the
// plugin's category, warnings by default, the encoders' information only when asked for.
#include <QLoggingCategory>
#include <QRegularExpression>
#include <gtest/gtest.h>

#include <chrono>
#include <thread>

#include "simulatedmic.h"
#include "support/loadedrecorder.h"
#include "support/qtmessages.h"
#include "support/testcameras.h"
#include "support/testutil.h"

using namespace std::chrono_literals;

namespace {

const QString kCategory = QStringLiteral("kwrecorder.ffmpeg");

class FfmpegLogTest : public ::testing::Test
{
protected:
    void SetUp() override
    {
        simulatedmic::reset();
        // AAC's 64 kbit/s is more than 8 kHz mono can carry: the encoder warns, as it
        // does for any camera microphone this slow.
        simulatedmic::addCameraMicrophone(8000, 1, 440.0);
        ASSERT_TRUE(rec.loaded()) << qPrintable(rec.error());
    }
    void TearDown() override { QLoggingCategory::setFilterRules(QString()); }

    // Records a second of video and sound; returns what reached standard error.
    std::string record()
    {
        SolidCamera camera(160, 120, cv::Scalar(40, 90, 200));
        rec->setPluginComponent(&camera);
        rec->setFilename(QString::fromStdString(dir.file("log.mp4")));
        rec->vSetRecSize(160, 120);
        rec->setFps(25);
        rec->setHasAudio(true);
        const std::string err = testutil::captureStderr([&] {
            testutil::captureStdout([&] {
                rec->startRecord();
                EXPECT_TRUE(rec->waitForRecordStart(20000));
                std::this_thread::sleep_for(1s);
                EXPECT_TRUE(rec.stopAndWait(60s));
            });
        });
        rec->setPluginComponent(nullptr);
        return err;
    }

    testutil::TempDir dir;
    LoadedRecorder rec{QStringLiteral(RECORDER_PLUGIN_PATH)};
};

} // namespace

TEST_F(FfmpegLogTest, EncoderWarningsReachTheCategoryAndInformationStaysOut)
{
    QtMessageCollector log;
    const std::string err = record();

    const QStringList warnings = log.messages(kCategory, QtWarningMsg);
    EXPECT_EQ(warnings.filter(QStringLiteral("[aac @")).filter(QStringLiteral("Too many bits"))
                  .size(),
              1)
        << qPrintable(log.messages().join('\n'));
    // x264's statistics and the file's description are information: not by default, and
    // not around Qt either (the warning reached standard error once, through Qt).
    for (const char *info : {"kb/s:", "frame I:", "Output #0", "using cpu capabilities"}) {
        EXPECT_EQ(log.count(QString::fromLatin1(info)), 0) << info;
        EXPECT_EQ(err.find(info), std::string::npos) << info << "\n" << err;
    }
    size_t tooMany = 0;
    for (size_t at = err.find("Too many bits"); at != std::string::npos;
         at = err.find("Too many bits", at + 1))
        ++tooMany;
    EXPECT_EQ(tooMany, 1u) << err;
}

TEST_F(FfmpegLogTest, TheHostTurnsTheInformationOnWithALoggingRule)
{
    QLoggingCategory::setFilterRules(QStringLiteral("kwrecorder.ffmpeg.info=true"));
    QtMessageCollector log;
    record();

    const QStringList info = log.messages(kCategory, QtInfoMsg);
    // libx264 picked its level from FFmpeg's when it opened: its statistics come.
    EXPECT_EQ(info.filter(QStringLiteral("[libx264 @")).filter(QStringLiteral("kb/s:")).size(), 1)
        << qPrintable(info.join('\n'));
    // The stream descriptions are written in pieces: each arrives as one whole line.
    EXPECT_EQ(info.filter(QRegularExpression(QStringLiteral("^ +Stream #0:0: Video: h264.*160x120")))
                  .size(),
              1)
        << qPrintable(info.join('\n'));
    EXPECT_EQ(info.filter(QRegularExpression(QStringLiteral("^ +Stream #0:1: Audio: aac.*8000 Hz")))
                  .size(),
              1)
        << qPrintable(info.join('\n'));
    EXPECT_TRUE(log.messages(kCategory, QtDebugMsg).isEmpty());
}

TEST_F(FfmpegLogTest, DebugRulesRaiseTheEncodersOwnLevel)
{
    QLoggingCategory::setFilterRules(QStringLiteral("kwrecorder.ffmpeg.debug=true"));
    QtMessageCollector log;
    record();

    // libx264 reports each frame only when FFmpeg's level was raised before it opened.
    const QStringList debug = log.messages(kCategory, QtDebugMsg);
    EXPECT_GE(debug.filter(QStringLiteral("[libx264 @")).filter(QStringLiteral("frame=")).size(),
              10)
        << qPrintable(debug.join('\n'));
}
