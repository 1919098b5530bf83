// Recordings end to end through the built plugin, as a host makes them: the file is
// decoded and checked, and so are the lines the user reads and the host contract.
#include <QCoreApplication>
#include <QFile>
#include <QRegularExpression>
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <thread>

#include "simulatedmic.h"
#include "support/loadedrecorder.h"
#include "support/mediareader.h"
#include "support/qtmessages.h"
#include "support/testcameras.h"
#include "support/testutil.h"
#include "syntheticcamera.h"

using namespace std::chrono_literals;

namespace {

// The duration the session printed ("msecs:%d" or "msec:%d"); INT_MIN if absent.
int printedDuration(const std::string &out, const char *label)
{
    const QRegularExpression re(QStringLiteral("^%1:(-?\\d+)$").arg(label),
                                QRegularExpression::MultilineOption);
    const auto m = re.match(QString::fromStdString(out));
    return m.hasMatch() ? m.captured(1).toInt() : INT_MIN;
}

class SessionTest : public ::testing::Test
{
protected:
    void SetUp() override
    {
        simulatedmic::reset();
        ASSERT_TRUE(rec.loaded()) << qPrintable(rec.error());
    }
    QString path(const char *name) const { return QString::fromStdString(dir.file(name)); }

    struct Recording {
        std::string out; // stdout of the whole session
        double wall = 0; // seconds from the start answer to stopRecord
    };
    // Records for `duration` with the current settings.
    Recording record(std::chrono::milliseconds duration)
    {
        Recording r;
        r.out = testutil::captureStdout([&] {
            rec->startRecord();
            EXPECT_TRUE(rec->waitForRecordStart(20000));
            const auto t0 = std::chrono::steady_clock::now();
            std::this_thread::sleep_for(duration);
            r.wall = std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count();
            EXPECT_TRUE(rec.stopAndWait(60s));
        });
        return r;
    }

    testutil::TempDir dir;
    LoadedRecorder rec{QStringLiteral(RECORDER_PLUGIN_PATH)};
};

} // namespace

TEST_F(SessionTest, VideoAndSoundGoIntoOneMp4WhoseStreamsLastTheRecordingTime)
{
    simulatedmic::addCameraMicrophone(48000, 1, 1000.0);
    SyntheticCamera camera(320, 240, 15);
    rec->setPluginComponent(&camera);
    rec->setFilename(path("both.mp4"));
    rec->vSetRecSize(319, 239); // odd sizes are rounded up to even
    rec->setFps(15);
    const Recording r = record(3000ms);

    EXPECT_TRUE(rec->hasAudio());
    EXPECT_EQ(camera.beginCount(), 1);
    EXPECT_EQ(camera.endCount(), 1);
    // The printed duration runs from the first frame to the stop: no grace period (a
    // sanitizer build takes its time to see the stop).
    EXPECT_GE(printedDuration(r.out, "msecs"), r.wall * 1000 - 300) << r.out;
    EXPECT_LE(printedDuration(r.out, "msecs"), r.wall * 1000 + 1000) << r.out;

    MediaFile f;
    std::string err;
    ASSERT_TRUE(readMediaFile(path("both.mp4").toStdString(), f, &err)) << err;
    ASSERT_NE(f.video(), nullptr);
    ASSERT_NE(f.audio(), nullptr);
    EXPECT_EQ(f.video()->codecId, AV_CODEC_ID_H264);
    EXPECT_EQ(f.audio()->codecId, AV_CODEC_ID_AAC);
    EXPECT_EQ(f.video()->width, 320);
    EXPECT_EQ(f.video()->height, 240);
    EXPECT_EQ(f.audioSampleRate, 48000);
    EXPECT_EQ(f.audioChannels, 1);
    // Both timelines cover the time between the start answer and the stop request.
    EXPECT_NEAR(f.videoSeconds(), r.wall, 0.5);
    EXPECT_NEAR(f.audioSeconds(), r.wall, 0.5);
    EXPECT_NEAR(dominantFrequency(f.samples, f.audioChannels, 0, f.audioSampleRate), 1000.0, 30.0);
}

TEST_F(SessionTest, VideoOnlyTouchesNoSoundCard)
{
    simulatedmic::addCameraMicrophone(48000, 1, 1000.0);
    SyntheticCamera camera(160, 120, 20);
    rec->setPluginComponent(&camera);
    rec->setFilename(path("video.mkv"));
    rec->vSetRecSize(160, 120);
    rec->setFps(20);
    rec->setHasAudio(false);
    record(1500ms);

    EXPECT_EQ(simulatedmic::pcmOpens(), 0);
    MediaFile f;
    std::string err;
    ASSERT_TRUE(readMediaFile(path("video.mkv").toStdString(), f, &err)) << err;
    ASSERT_NE(f.video(), nullptr);
    EXPECT_EQ(f.audio(), nullptr);
    EXPECT_GE(f.frames.size(), 15u);
    // The frames are the camera's, in order: the marks read back increasing.
    long last = -1;
    int readable = 0;
    for (const cv::Mat &img : f.frames) {
        const long n = SyntheticCamera::readFrameNumber(img);
        if (n < 0)
            continue;
        ++readable;
        EXPECT_GE(n, last);
        last = n;
    }
    EXPECT_GT(readable, int(f.frames.size()) / 2);
}

TEST_F(SessionTest, AudioOnlyNeverAsksForAFrame)
{
    simulatedmic::addCameraMicrophone(48000, 2, 440.0);
    SolidCamera camera(64, 48, cv::Scalar(0, 0, 255));
    rec->setPluginComponent(&camera);
    rec->setFilename(path("sound.mp4"));
    rec->setHasVideo(false);
    const Recording r = record(2000ms);

    EXPECT_EQ(camera.frames, 0);
    EXPECT_EQ(camera.begins, 1);
    EXPECT_EQ(camera.ends, 1);
    const int ms = printedDuration(r.out, "msec");
    EXPECT_NEAR(ms, r.wall * 1000, 300) << r.out;
    MediaFile f;
    std::string err;
    ASSERT_TRUE(readMediaFile(path("sound.mp4").toStdString(), f, &err)) << err;
    EXPECT_EQ(f.video(), nullptr);
    ASSERT_NE(f.audio(), nullptr);
    EXPECT_EQ(f.audioChannels, 2);
    // The capture ends at the stop request: the sound lasts what was recorded.
    EXPECT_NEAR(f.audioSeconds(), ms / 1000.0, 0.2);
    // Left carries 440 Hz and right 880 Hz: the channels arrive unswapped.
    EXPECT_NEAR(dominantFrequency(f.samples, 2, 0, f.audioSampleRate), 440.0, 20.0);
    EXPECT_NEAR(dominantFrequency(f.samples, 2, 1, f.audioSampleRate), 880.0, 20.0);
}

TEST_F(SessionTest, WithoutAMicrophoneVideoIsRecordedAloneAndTheUserIsTold)
{
    SyntheticCamera camera(160, 120, 20);
    QtMessageCollector log;
    rec->setPluginComponent(&camera);
    rec->setFilename(path("nomic.mp4"));
    rec->vSetRecSize(160, 120);
    const Recording r = record(1200ms);

    EXPECT_NE(r.out.find("打开麦失败，将不录音"), std::string::npos) << r.out;
    EXPECT_EQ(log.count("打开麦失败，将不录音"), 1);
    EXPECT_FALSE(rec->hasAudio());
    MediaFile f;
    std::string err;
    ASSERT_TRUE(readMediaFile(path("nomic.mp4").toStdString(), f, &err)) << err;
    EXPECT_NE(f.video(), nullptr);
    EXPECT_EQ(f.audio(), nullptr);
}

TEST_F(SessionTest, AudioOnlyWithoutAMicrophoneAnswersFalseAtOnce)
{
    DarkCamera camera;
    rec->setPluginComponent(&camera);
    rec->setFilename(path("never.mp4"));
    rec->setHasVideo(false);
    testutil::captureStdout([&] {
        rec->startRecord();
        const auto t0 = std::chrono::steady_clock::now();
        EXPECT_FALSE(rec->waitForRecordStart(30000));
        EXPECT_LT(std::chrono::steady_clock::now() - t0, 10s);
        EXPECT_TRUE(rec.waitSessionEnd(30s));
    });
    EXPECT_FALSE(rec->isRecording());
    EXPECT_EQ(camera.begins, 1);
    EXPECT_EQ(camera.ends, 1);
    EXPECT_EQ(camera.asked, 0);
    EXPECT_FALSE(QFile::exists(path("never.mp4")));
}

TEST_F(SessionTest, PausedTimeIsNotRecorded)
{
    SyntheticCamera camera(160, 120, 20);
    rec->setPluginComponent(&camera);
    rec->setFilename(path("pause.mp4"));
    rec->vSetRecSize(160, 120);
    rec->setFps(20);
    rec->setHasAudio(false);
    std::chrono::steady_clock::time_point t0, t1;
    testutil::captureStdout([&] {
        rec->startRecord();
        ASSERT_TRUE(rec->waitForRecordStart(20000));
        t0 = std::chrono::steady_clock::now();
        std::this_thread::sleep_for(1000ms);
        ASSERT_TRUE(rec->bPauseRec());
        std::this_thread::sleep_for(1500ms);
        ASSERT_TRUE(rec->bResumeRec());
        std::this_thread::sleep_for(1000ms);
        t1 = std::chrono::steady_clock::now();
        EXPECT_TRUE(rec.stopAndWait(60s));
    });
    const double wall = std::chrono::duration<double>(t1 - t0).count();
    MediaFile f;
    std::string err;
    ASSERT_TRUE(readMediaFile(path("pause.mp4").toStdString(), f, &err)) << err;
    // The picture lasts the time recorded, without the 1.5 s paused.
    EXPECT_NEAR(f.videoSeconds(), wall - 1.5, 0.5);
}

TEST_F(SessionTest, StopBeforeTheFirstFrameEndsCleanlyWithoutADuration)
{
    simulatedmic::addCameraMicrophone(48000, 1, 1000.0);
    DarkCamera camera;
    rec->setPluginComponent(&camera);
    rec->setFilename(path("dark.mp4"));
    const Recording r = record(500ms);
    EXPECT_FALSE(rec->isRecording());
    EXPECT_GT(camera.asked, 0);
    EXPECT_EQ(camera.begins, 1);
    EXPECT_EQ(camera.ends, 1);
    // No first frame: a duration that cannot be taken for a real one.
    EXPECT_EQ(printedDuration(r.out, "msecs"), -1) << r.out;
}

TEST_F(SessionTest, AnUnwritableOutputEndsTheSessionAndAnswersFalse)
{
    SolidCamera camera(64, 48, cv::Scalar(0, 255, 0));
    rec->setPluginComponent(&camera);
    rec->setHasAudio(false);
    rec->setFilename(path("missing-dir/x.mp4"));
    const std::string out = testutil::captureStdout([&] {
        rec->startRecord();
        EXPECT_FALSE(rec->waitForRecordStart(20000));
        EXPECT_TRUE(rec.waitSessionEnd(30s));
    });
    EXPECT_NE(out.find("cannot open :" + path("missing-dir/x.mp4").toStdString()), std::string::npos)
        << out;
    EXPECT_FALSE(rec->isRecording());
    EXPECT_EQ(camera.begins, 1);
    EXPECT_EQ(camera.ends, 1);
    // The recorder can be used again.
    rec->setFilename(path("ok.mp4"));
    record(800ms);
    EXPECT_TRUE(QFile::exists(path("ok.mp4")));
}

TEST_F(SessionTest, SwitchingTheComponentTakesFramesFromTheNewOneAndEndsTheOld)
{
    SolidCamera red(64, 48, cv::Scalar(0, 0, 255));
    SolidCamera blue(64, 48, cv::Scalar(255, 0, 0));
    rec->setPluginComponent(&red);
    rec->setFilename(path("switch.mkv"));
    rec->vSetRecSize(64, 48);
    rec->setFps(20);
    rec->setHasAudio(false);
    testutil::captureStdout([&] {
        rec->startRecord();
        ASSERT_TRUE(rec->waitForRecordStart(20000));
        ASSERT_TRUE(testutil::pollUntil([&] { return red.frames > 20; }, 10s));
        rec->setPluginComponent(&blue);
        ASSERT_TRUE(testutil::pollUntil([&] { return blue.frames > 30; }, 10s));
        EXPECT_TRUE(rec.stopAndWait(60s));
    });
    EXPECT_EQ(red.begins, 1);
    EXPECT_EQ(red.ends, 1);
    EXPECT_EQ(blue.begins, 0);
    EXPECT_EQ(blue.ends, 0);
    MediaFile f;
    std::string err;
    ASSERT_TRUE(readMediaFile(path("switch.mkv").toStdString(), f, &err)) << err;
    ASSERT_GE(f.frames.size(), 10u);
    const cv::Vec3b first = f.frames.front().at<cv::Vec3b>(24, 32);
    const cv::Vec3b last = f.frames.back().at<cv::Vec3b>(24, 32);
    EXPECT_GT(first[2], 200);
    EXPECT_LT(first[0], 60);
    EXPECT_GT(last[0], 200);
    EXPECT_LT(last[2], 60);
}

TEST_F(SessionTest, TwentyRecordingsInARowLeaveNoThreadsOrMemoryBehind)
{
    SolidCamera camera(64, 48, cv::Scalar(40, 80, 120));
    rec->setPluginComponent(&camera);
    rec->vSetRecSize(64, 48);
    rec->setHasAudio(false);
    int threadsAfterFirst = 0;
    long rssAfterFifth = 0;
    for (int i = 1; i <= 20; ++i) {
        rec->setFilename(path("loop.mp4"));
        testutil::captureStdout([&] {
            rec->startRecord();
            ASSERT_TRUE(rec->waitForRecordStart(20000)) << "recording " << i;
            std::this_thread::sleep_for(100ms);
            ASSERT_TRUE(rec.stopAndWait(60s)) << "recording " << i;
        });
        if (i == 1)
            threadsAfterFirst = testutil::threadCount();
        if (i == 5)
            rssAfterFifth = testutil::residentKiB();
    }
    EXPECT_EQ(camera.begins, 20);
    EXPECT_EQ(camera.ends, 20);
    // A thread that has returned from run() still takes a moment to leave the process.
    EXPECT_TRUE(testutil::pollUntil([&] { return testutil::threadCount() <= threadsAfterFirst; },
                                    5s))
        << testutil::threadCount() << " threads, " << threadsAfterFirst << " after the first";
    EXPECT_LE(testutil::residentKiB(), rssAfterFifth * 11 / 10 + 2048);
}

int main(int argc, char **argv)
{
    QCoreApplication app(argc, argv);
    ::testing::InitGoogleTest(&argc, argv);
    return RUN_ALL_TESTS();
}
