// Bad paths, driven through the built plugin as a host would: every case must end with
// the session over, isRecording() false, endUse called once, and a file that is either
// complete and readable or absent.
#include <QCoreApplication>
#include <QFile>
#include <QRegularExpression>
#include <gtest/gtest.h>

#include <atomic>
#include <filesystem>
#include <stdexcept>
#include <thread>
#include <unistd.h>

#include <opencv2/core.hpp>

#include "fakealsa.h"
#include "simulatedmic.h"
#include "encode/ffmpegencode.h"
#include "support/loadedrecorder.h"
#include "support/mediareader.h"
#include "support/heavyrecording.h"
#include "support/qtmessages.h"
#include "support/testcameras.h"
#include "support/testutil.h"
#include "syntheticcamera.h"

using namespace std::chrono_literals;

namespace {

// A camera whose frames the test shapes: a function of the frame number.
class ScriptedCamera : public PluginComponent
{
public:
    using Maker = std::function<cv::Mat(long)>;
    explicit ScriptedCamera(Maker make, std::chrono::milliseconds period = 20ms)
        : m_make(std::move(make)), m_period(period) {}
    void beginUse() override { ++begins; }
    bool getFrame(cv::Mat &frame) override
    {
        std::this_thread::sleep_for(m_period);
        frame = m_make(frames++);
        return true;
    }
    void endUse() override { ++ends; }
    std::atomic<int> begins{0}, ends{0};
    std::atomic<long> frames{0};

private:
    Maker m_make;
    std::chrono::milliseconds m_period;
};

cv::Mat solid(int w, int h, cv::Scalar c = cv::Scalar(20, 120, 220))
{
    return cv::Mat(h, w, CV_8UC3, c);
}

class HardeningTest : public ::testing::Test
{
protected:
    void SetUp() override
    {
        simulatedmic::reset();
        ASSERT_TRUE(rec.loaded()) << qPrintable(rec.error());
        rec->setHasAudio(false);
        rec->vSetRecSize(160, 120);
        rec->setFps(20);
    }
    std::string path(const std::string &name) const { return dir.file(name); }

    // Starts, waits for the answer, runs `during` for the recording, stops; returns the
    // start answer. The session must always end.
    bool run(ScriptedCamera &camera, const std::string &file, std::chrono::milliseconds length,
             const std::function<void()> &during = {}, std::string *out = nullptr)
    {
        rec->setPluginComponent(&camera);
        rec->setFilename(QString::fromStdString(file));
        bool started = false;
        const std::string printed = testutil::captureStdout([&] {
            rec->startRecord();
            started = rec->waitForRecordStart(30000);
            const auto until = std::chrono::steady_clock::now() + length;
            if (during)
                during();
            std::this_thread::sleep_until(until);
            EXPECT_TRUE(rec.stopAndWait(60s));
        });
        if (out)
            *out = printed;
        EXPECT_FALSE(rec->isRecording());
        EXPECT_TRUE(testutil::pollUntil([&] { return camera.ends == 1; }, 10s));
        EXPECT_EQ(camera.begins, 1);
        return started;
    }

    // The file is complete and readable (returns it), or absent.
    MediaFile readableOrAbsent(const std::string &file)
    {
        MediaFile f;
        if (!QFile::exists(QString::fromStdString(file)))
            return f;
        std::string err;
        EXPECT_TRUE(readMediaFile(file, f, &err)) << file << ": " << err;
        return f;
    }

    testutil::TempDir dir;
    LoadedRecorder rec{QStringLiteral(RECORDER_PLUGIN_PATH)};
};

} // namespace

TEST_F(HardeningTest, OutputInAMissingDirectoryEndsWithoutAFile)
{
    ScriptedCamera cam([](long) { return solid(160, 120); });
    EXPECT_FALSE(run(cam, path("gone/x.mp4"), 300ms));
    EXPECT_FALSE(QFile::exists(QString::fromStdString(path("gone/x.mp4"))));
}

TEST_F(HardeningTest, OutputInAReadOnlyDirectoryEndsWithoutAFile)
{
    if (geteuid() == 0)
        GTEST_SKIP() << "root writes into read-only directories";
    std::filesystem::create_directory(path("ro"));
    std::filesystem::permissions(path("ro"), std::filesystem::perms::owner_read
                                                 | std::filesystem::perms::owner_exec);
    ScriptedCamera cam([](long) { return solid(160, 120); });
    EXPECT_FALSE(run(cam, path("ro/x.mp4"), 300ms));
}

TEST_F(HardeningTest, AnOutputWhereEveryWriteFailsEndsTheSession)
{
    ScriptedCamera cam([](long) { return solid(160, 120); });
    const std::string err = testutil::captureStderr([&] { run(cam, "/dev/full", 800ms); });
    // Nothing could be stored, and the user is told why.
    EXPECT_NE(err.find("No space left on device (/dev/full)"), std::string::npos) << err;
}

TEST_F(HardeningTest, TheOutputDirectoryRemovedDuringTheRecordingEndsTheSession)
{
    std::filesystem::create_directory(path("out"));
    ScriptedCamera cam([](long) { return solid(160, 120); });
    QtMessageCollector log;
    EXPECT_TRUE(run(cam, path("out/x.mp4"), 1000ms,
                    [&] { std::filesystem::remove_all(path("out")); }));
    // The file went with its directory; the user is told, not left to look for it.
    EXPECT_EQ(log.count(QStringLiteral("record failed: the output file ")), 1);
    EXPECT_FALSE(QFile::exists(QString::fromStdString(path("out/x.mp4"))));
}

TEST_F(HardeningTest, AThrowingFrameSourceEndsTheRecordingAndKeepsWhatWasRecorded)
{
    ScriptedCamera cam([](long n) {
        if (n == 30)
            throw std::runtime_error("camera unplugged");
        return SyntheticCamera::makeFrame(160, 120, n, 0);
    });
    const std::string file = path("throw.mp4");
    EXPECT_TRUE(run(cam, file, 3000ms));
    const MediaFile f = readableOrAbsent(file);
    ASSERT_NE(f.video(), nullptr);
    EXPECT_GE(f.frames.size(), 10u); // the frames before the throw are in the file
}

TEST_F(HardeningTest, FramesOfAnotherTypeAreRefusedAndOthersScaled)
{
    // Grey, BGRA, 16-bit and changing sizes among good frames: no crash, no garbage. Each
    // kind lasts ten frames of the camera (50 ms), so that the recording's due instants
    // cannot fall in step with one kind of frame.
    ScriptedCamera cam([](long n) {
        switch (n / 10 % 6) {
        case 0: return cv::Mat(120, 160, CV_8UC1, cv::Scalar(200));
        case 1: return cv::Mat(120, 160, CV_8UC4, cv::Scalar(1, 2, 3, 4));
        case 2: return cv::Mat(120, 160, CV_16UC3, cv::Scalar(9000, 9000, 9000));
        case 3: return solid(320, 200, cv::Scalar(0, 0, 255));
        case 4: return solid(33, 17, cv::Scalar(0, 0, 255));
        default: return solid(160, 120, cv::Scalar(0, 0, 255));
        }
    }, 5ms);
    const std::string file = path("types.mkv");
    EXPECT_TRUE(run(cam, file, 1500ms));
    const MediaFile f = readableOrAbsent(file);
    ASSERT_GE(f.frames.size(), 8u); // the good ones, about half, are recorded
    for (const cv::Mat &img : f.frames) {
        ASSERT_EQ(img.size(), cv::Size(160, 120));
        const cv::Scalar m = cv::mean(img);
        EXPECT_GT(m[2], 200) << "a frame that is not one of the red ones was encoded";
        EXPECT_LT(m[0], 60);
    }
}

TEST_F(HardeningTest, AComponentSwitchedToNullLeavesTheRecordingStoppable)
{
    ScriptedCamera cam([](long) { return solid(160, 120); });
    const std::string file = path("null.mp4");
    EXPECT_TRUE(run(cam, file, 1200ms, [&] {
        std::this_thread::sleep_for(500ms);
        rec->setPluginComponent(nullptr);
    }));
    EXPECT_NE(readableOrAbsent(file).video(), nullptr);
}

TEST_F(HardeningTest, SettingsAtTheEdgesNeverCrashOrHang)
{
    struct Edge {
        long w, h;
        int fps;
        unsigned bitrate;
        const char *name;
    };
    const std::vector<Edge> edges = {
        {0, 0, 20, 500000, "zero.mp4"},          {2, 2, 20, 500000, "two.mp4"},
        {160, 120, 0, 500000, "fps0.mp4"},        {160, 120, 1, 500000, "fps1.mp4"},
        {160, 120, 240, 500000, "fps240.mp4"},    {160, 120, -5, 500000, "fpsneg.mp4"},
        {160, 120, 20, 0, "bitrate0.mp4"},        {160, 120, 20, 4000000000u, "bitrate4g.mp4"},
        {160, 120, 20, 500000, ""},               {160, 120, 20, 500000, "名 with spaces é.mp4"},
    };
    for (const Edge &e : edges) {
        SCOPED_TRACE(std::string(e.name) + " " + std::to_string(e.w) + "x" + std::to_string(e.h)
                     + " fps " + std::to_string(e.fps));
        ScriptedCamera cam([](long n) { return SyntheticCamera::makeFrame(160, 120, n, 0); });
        rec->vSetRecSize(e.w, e.h);
        rec->setFps(e.fps);
        rec->setVideoBitrate(e.bitrate);
        const std::string file = *e.name ? path(e.name) : std::string();
        const bool started = run(cam, file, 600ms);
        if (started && !file.empty()) {
            const MediaFile f = readableOrAbsent(file);
            ASSERT_NE(f.video(), nullptr);
            if (e.fps <= 0) { // taken as 10 frames per second
                EXPECT_EQ(f.video()->timeBase.den % 10, 0);
            }
        }
    }
    rec->vSetRecSize(160, 120);
    rec->setFps(20);
    rec->setVideoBitrate(500000);
}

TEST_F(HardeningTest, AnEightKFrameIsRecorded)
{
    rec->vSetRecSize(7680, 4320);
    rec->setFps(5);
    ScriptedCamera cam([](long) { return solid(640, 360); }, 200ms);
    const std::string file = path("8k.mp4");
    EXPECT_TRUE(run(cam, file, 1500ms));
    const MediaFile f = readableOrAbsent(file);
    ASSERT_NE(f.video(), nullptr);
    EXPECT_EQ(f.video()->width, 7680);
}

TEST_F(HardeningTest, StopDuringStartUpEndsCleanly)
{
    ScriptedCamera cam([](long) { return solid(160, 120); });
    rec->setPluginComponent(&cam);
    rec->setFilename(QString::fromStdString(path("early.mp4")));
    testutil::captureStdout([&] {
        rec->startRecord();
        rec->stopRecord();
        EXPECT_TRUE(rec.stopAndWait(60s));
    });
    // Stopped before its session began, the recording may never touch the camera.
    EXPECT_TRUE(testutil::pollUntil([&] { return cam.ends == cam.begins; }, 10s));
    EXPECT_LE(cam.begins, 1);
    EXPECT_FALSE(rec->waitForRecordStart(0));
    readableOrAbsent(path("early.mp4"));
}

TEST_F(HardeningTest, StopWhilePausedEndsAndTheNextRecordingIsNotPaused)
{
    ScriptedCamera cam([](long n) { return SyntheticCamera::makeFrame(160, 120, n, 0); });
    run(cam, path("p1.mp4"), 1000ms, [&] {
        std::this_thread::sleep_for(400ms);
        EXPECT_TRUE(rec->bPauseRec());
    });
    ScriptedCamera cam2([](long n) { return SyntheticCamera::makeFrame(160, 120, n, 0); });
    run(cam2, path("p2.mp4"), 1000ms);
    EXPECT_GE(readableOrAbsent(path("p2.mp4")).frames.size(), 10u);
}

TEST_F(HardeningTest, AThousandPausesAndResumes)
{
    ScriptedCamera cam([](long n) { return SyntheticCamera::makeFrame(160, 120, n, 0); }, 2ms);
    const std::string file = path("flicker.mp4");
    run(cam, file, 500ms, [&] {
        for (int i = 0; i < 1000; ++i) {
            EXPECT_TRUE(rec->bPauseRec());
            EXPECT_TRUE(rec->bResumeRec());
        }
    });
    EXPECT_NE(readableOrAbsent(file).video(), nullptr);
}

TEST_F(HardeningTest, StartAndStopFromSeveralThreadsAtOnce)
{
    ScriptedCamera cam([](long) { return solid(160, 120); });
    rec->setPluginComponent(&cam);
    rec->setFilename(QString::fromStdString(path("race.mp4")));
    testutil::captureStdout([&] {
        std::vector<std::thread> hosts;
        for (int t = 0; t < 4; ++t)
            hosts.emplace_back([&, t] {
                for (int i = 0; i < 50; ++i) {
                    if ((i + t) % 2)
                        rec->startRecord();
                    else
                        rec->stopRecord();
                }
            });
        for (std::thread &h : hosts)
            h.join();
        EXPECT_TRUE(rec.stopAndWait(120s));
    });
    EXPECT_FALSE(rec->isRecording());
    EXPECT_EQ(cam.begins.load(), cam.ends.load());
}

TEST_F(HardeningTest, DeletingTheInstanceRightAfterStopWaitsForTheSession)
{
    ScriptedCamera cam([](long) { return solid(160, 120); });
    rec->setPluginComponent(&cam);
    rec->setFilename(QString::fromStdString(path("del.mp4")));
    testutil::captureStdout([&] {
        rec->startRecord();
        ASSERT_TRUE(rec->waitForRecordStart(30000));
        std::this_thread::sleep_for(300ms);
        rec->stopRecord();
        // The owner deletes the instance while the session is still finishing the file.
        delete rec.thread();
    });
    EXPECT_EQ(cam.ends, 1);
    EXPECT_NE(readableOrAbsent(path("del.mp4")).video(), nullptr);
}

TEST_F(HardeningTest, AMicrophoneUnpluggedForGoodLeavesTheVideoGoingOn)
{
    fakealsa::Capture c;
    c.unplugAfterMs = 1000;
    fakealsa::addCard("KW-08P USBCamera", {}, c);
    rec->setHasAudio(true);
    ScriptedCamera cam([](long n) { return SyntheticCamera::makeFrame(160, 120, n, 0); });
    const std::string file = path("unplug.mp4");
    std::chrono::steady_clock::time_point t0;
    ASSERT_TRUE(run(cam, file, 3000ms, [&] { t0 = std::chrono::steady_clock::now(); }));
    const MediaFile f = readableOrAbsent(file);
    ASSERT_NE(f.video(), nullptr);
    ASSERT_NE(f.audio(), nullptr);
    EXPECT_LT(f.audioSeconds(), 1.5);
    EXPECT_GT(f.videoSeconds(), 2.3); // the picture went on after the sound stopped
}

TEST_F(HardeningTest, ABusyMicrophoneAnswersWithinTheHostsTimeOut)
{
    fakealsa::Capture c;
    c.busyOpens = 1000;
    fakealsa::addCard("KW-08P USBCamera", {}, c);
    qputenv("PATH", QByteArray(FAKE_KILLALL_DIR ":") + qgetenv("PATH"));
    rec->setHasAudio(true);
    ScriptedCamera cam([](long) { return solid(160, 120); });
    rec->setPluginComponent(&cam);
    rec->setFilename(QString::fromStdString(path("busy.mp4")));
    testutil::captureStdout([&] {
        rec->startRecord();
        const auto t0 = std::chrono::steady_clock::now();
        EXPECT_TRUE(rec->waitForRecordStart(20000)); // video goes on without the sound
        EXPECT_LT(std::chrono::steady_clock::now() - t0, 20s);
        EXPECT_TRUE(rec.stopAndWait(60s));
    });
    EXPECT_FALSE(rec->hasAudio());
}

TEST_F(HardeningTest, AMicrophoneUnpluggedAndBackAfterThreeSecondsLeavesTheVideoGoingOn)
{
    fakealsa::Capture c;
    c.unplugAfterMs = 1000;
    c.replugAfterMs = 3000;
    fakealsa::addCard("KW-08P USBCamera", {}, c);
    rec->setHasAudio(true);
    ScriptedCamera cam([](long n) { return SyntheticCamera::makeFrame(160, 120, n, 0); });
    const std::string file = path("replug.mp4");
    ASSERT_TRUE(run(cam, file, 6000ms));
    const MediaFile f = readableOrAbsent(file);
    ASSERT_NE(f.video(), nullptr);
    ASSERT_NE(f.audio(), nullptr);
    // The eleven re-opens come in quick succession while the card is gone, so none finds
    // it: the sound ends at the unplug and is not taken up again when the card comes back.
    EXPECT_EQ(fakealsa::pcmOpens(), 1);
    EXPECT_LT(f.audioSeconds(), 1.5);
    EXPECT_GT(f.videoSeconds(), 5.0);
    EXPECT_EQ(fakealsa::pcmOpenHandles(), 0);
}

// The sanitizers' allocators keep freed memory in quarantine: resident size says nothing
// about leaks there (LeakSanitizer checks those instead).
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr bool kResidentSizeMeaningful = false;
#else
constexpr bool kResidentSizeMeaningful = true;
#endif


// A "split into a new file" button: stop, a new name and start at once, again and
// again. Each start must answer for its own session, also while the last one is still
// finishing its file, and each file must exist with frames of its own.
TEST_F(HardeningTest, StopRenameStartAtOnceGivesEveryFileItsOwnFrames)
{
    constexpr int kFiles = 100;
    SyntheticCamera camera(160, 120, 100);
    rec->setPluginComponent(&camera);
    const auto file = [&](int i) { return path("split" + std::to_string(i) + ".mp4"); };
    int startsDuringAStop = 0;
    testutil::captureStdout([&] {
        for (int i = 0; i < kFiles; ++i) {
            rec->setFilename(QString::fromStdString(file(i)));
            rec->startRecord();
            startsDuringAStop += rec->isRecording(); // the last file is still being finished
            ASSERT_TRUE(rec->waitForRecordStart(30000)) << "file " << i;
            ASSERT_TRUE(rec->isRecording()) << "file " << i;
            const long from = camera.framesDelivered();
            ASSERT_TRUE(testutil::pollUntil([&] { return camera.framesDelivered() >= from + 3; }, 10s));
            rec->stopRecord();
        }
        EXPECT_TRUE(rec.stopAndWait(60s));
    });
    EXPECT_GT(startsDuringAStop, 0); // the case this test is about did happen
    long last = -1;
    for (int i = 0; i < kFiles; ++i) {
        SCOPED_TRACE("file " + std::to_string(i));
        const MediaFile f = readableOrAbsent(file(i));
        ASSERT_NE(f.video(), nullptr);
        ASSERT_FALSE(f.frames.empty());
        for (const cv::Mat &img : f.frames) {
            const long n = SyntheticCamera::readFrameNumber(img);
            EXPECT_GT(n, last); // later than every frame of the files before
            last = std::max(last, n);
        }
    }
}

TEST_F(HardeningTest, AContainerThatCannotHoldTheVideoRecordsTheSoundAndSaysSo)
{
    simulatedmic::addCameraMicrophone(48000, 1, 1000.0);
    rec->setHasAudio(true);
    ScriptedCamera cam([](long) { return solid(160, 120); });
    std::string out;
    EXPECT_TRUE(run(cam, path("sound.wav"), 1000ms, {}, &out));
    EXPECT_NE(out.find("the container wav cannot hold video"), std::string::npos) << out;
    EXPECT_FALSE(rec->hasVideo()); // the host sees what is recorded
    EXPECT_EQ(cam.frames, 0);      // nothing is taken, let alone queued, for the picture
    const MediaFile f = readableOrAbsent(path("sound.wav"));
    EXPECT_EQ(f.video(), nullptr);
    ASSERT_NE(f.audio(), nullptr);
    EXPECT_NEAR(f.audioSeconds(), 1.0, 0.3);

    // Without a microphone nothing is left to record: the recording does not start.
    rec->setHasVideo(true);
    fakealsa::reset();
    ScriptedCamera cam2([](long) { return solid(160, 120); });
    EXPECT_FALSE(run(cam2, path("nothing.wav"), 300ms));
    EXPECT_FALSE(QFile::exists(QString::fromStdString(path("nothing.wav"))));
    rec->setHasVideo(true);
}

TEST_F(HardeningTest, AMicrophoneThatStopsDeliveringNeverHoldsTheStop)
{
    fakealsa::Capture c;
    c.stallAfterMs = 1500;
    fakealsa::addCard("KW-08P USBCamera", {}, c);
    rec->setHasAudio(true);
    ScriptedCamera cam([](long n) { return SyntheticCamera::makeFrame(160, 120, n, 0); });
    rec->setPluginComponent(&cam);
    rec->setFilename(QString::fromStdString(path("stall.mp4")));
    std::chrono::steady_clock::duration stopping{};
    testutil::captureStdout([&] {
        rec->startRecord();
        ASSERT_TRUE(rec->waitForRecordStart(30000));
        std::this_thread::sleep_for(3500ms); // the stall comes at 1.5 s, and is taken for gone at 3.5 s
        const auto t0 = std::chrono::steady_clock::now();
        EXPECT_TRUE(rec.stopAndWait(60s));
        stopping = std::chrono::steady_clock::now() - t0;
    });
    EXPECT_LT(stopping, 3s);
    const MediaFile f = readableOrAbsent(path("stall.mp4"));
    ASSERT_NE(f.video(), nullptr);
    ASSERT_NE(f.audio(), nullptr);
    EXPECT_GT(f.video()->durationSeconds(), 3.0); // the picture went on
    EXPECT_LT(f.audioSeconds(), 2.0);
}

// A machine that cannot encode the size in real time: frames are dropped and counted,
// memory stays bounded, and the picture still ends with the sound.
TEST_F(HardeningTest, OverloadDropsFramesButKeepsMemoryBoundedAndThePictureWithTheSound)
{
    constexpr int kW = 3840, kH = 2160, kFps = 30;
    simulatedmic::addCameraMicrophone(48000, 1, 1000.0);
    rec->setHasAudio(true);
    const std::string file = path("overload.mp4");
    const HeavyRecordingReport r = recordHeavy(rec, file, kW, kH, kFps, 8000000, 8s, 2s);
    ASSERT_TRUE(r.started);
    ASSERT_TRUE(r.stopped);
    std::printf("overload %dx%d@%d for %.1f s: %ld frames dropped, peak %ld frames queued "
                "(%.1f MiB), RSS %.1f -> %.1f MiB, drained in %.1f s\n",
                kW, kH, kFps, r.wallSeconds, r.framesDropped, r.peakQueuedFrames, r.peakQueuedMiB,
                r.rssKiB.front() / 1024.0, r.rssKiB.back() / 1024.0, r.drainSeconds);
    EXPECT_GT(r.framesDropped, 0);
    EXPECT_LE(r.peakQueuedFrames, kFps);
    EXPECT_LE(r.peakQueuedMiB, double(FFmpegEncode::kMaxQueuedVideoBytes >> 20));
    for (long kib : r.rssKiB)
        std::printf("  RSS %.1f MiB\n", kib / 1024.0);
    if (kResidentSizeMeaningful) {
        // No growth once the queue is full (unbounded, it would grow by 500 MiB a second).
        EXPECT_LT(r.rssKiB.back() - r.rssKiB[1], 128 * 1024);
    }
    MediaFile f;
    std::string err;
    ASSERT_TRUE(readMediaFile(file, f, &err, false)) << err;
    ASSERT_NE(f.video(), nullptr);
    ASSERT_NE(f.audio(), nullptr);
    EXPECT_NEAR(f.video()->durationSeconds(), f.audio()->durationSeconds(), 1.0 / kFps);
}

// Without sound the writer never waits for it: the queue stays short for a whole
// recording of a size this machine encodes in real time.
TEST_F(HardeningTest, AVideoOnlyFullHdRecordingKeepsItsQueueShort)
{
    constexpr int kFps = 30;
    PrerenderedCamera camera(1920, 1080, kFps);
    rec->vSetRecSize(1920, 1080);
    rec->setFps(kFps);
    rec->setVideoBitrate(4000000);
    rec->setPluginComponent(&camera);
    rec->setFilename(QString::fromStdString(path("fullhd.mp4")));
    QtMessageCollector log;
    testutil::captureStdout([&] {
        rec->startRecord();
        ASSERT_TRUE(rec->waitForRecordStart(30000));
        std::this_thread::sleep_for(30s);
        EXPECT_TRUE(rec.stopAndWait(60s));
    });
    long peak = -1, dropped = 0;
    const QRegularExpression peakLine(QStringLiteral("at most (\\d+) video frames"));
    const QRegularExpression droppedLine(QStringLiteral("(\\d+) video frames dropped"));
    for (const QString &m : log.messages()) {
        if (const auto match = peakLine.match(m); match.hasMatch())
            peak = match.captured(1).toLong();
        if (const auto match = droppedLine.match(m); match.hasMatch())
            dropped = match.captured(1).toLong();
    }
    std::printf("video-only 1920x1080@%d for 30 s: peak %ld frames queued, %ld dropped\n", kFps,
                peak, dropped);
    ASSERT_GE(peak, 1);
    EXPECT_LE(peak, kFps);
    if (kResidentSizeMeaningful) { // a sanitizer build is too slow for the size
        EXPECT_LE(dropped, 30 * kFps / 100); // at most 1 %: a passing hiccup of the machine
    }
    MediaFile f;
    std::string err;
    ASSERT_TRUE(readMediaFile(path("fullhd.mp4"), f, &err, false)) << err;
    ASSERT_NE(f.video(), nullptr);
    EXPECT_NEAR(f.video()->durationSeconds(), 30.0, 0.5);
}

TEST_F(HardeningTest, LongRunTwoHundredCyclesDoNotGrow)
{
    ScriptedCamera cam([](long) { return solid(64, 48); }, 10ms);
    rec->vSetRecSize(64, 48);
    rec->setPluginComponent(&cam);
    rec->setFilename(QString::fromStdString(path("cycle.mp4")));
    long rss20 = 0;
    int threads20 = 0;
    for (int i = 1; i <= 200; ++i) {
        bool started = false, stopped = false;
        testutil::captureStdout([&] {
            rec->startRecord();
            started = rec->waitForRecordStart(30000);
            stopped = rec.stopAndWait(60s);
        });
        ASSERT_TRUE(started) << "cycle " << i;
        ASSERT_TRUE(stopped) << "cycle " << i;
        if (i == 20) {
            rss20 = testutil::residentInUseKiB();
            threads20 = testutil::threadCount();
        }
    }
    const long rss200 = testutil::residentInUseKiB();
    std::printf("RSS after cycle 20: %ld KiB, after cycle 200: %ld KiB (%+.1f%%); threads %d -> %d\n",
                rss20, rss200, 100.0 * (rss200 - rss20) / rss20, threads20,
                testutil::threadCount());
    if (kResidentSizeMeaningful) {
        EXPECT_LE(rss200, rss20 * 105 / 100);
    }
    // A thread that has returned from run() still takes a moment to leave the process.
    EXPECT_TRUE(testutil::pollUntil([&] { return testutil::threadCount() <= threads20; }, 5s))
        << testutil::threadCount() << " threads, " << threads20 << " after cycle 20";
    EXPECT_EQ(cam.begins, 200);
    EXPECT_EQ(cam.ends, 200);
    readableOrAbsent(path("cycle.mp4")); // a stop before the first frame leaves no picture
}

TEST_F(HardeningTest, LongRunHeavyFramesForAMinuteLoseNothing)
{
    constexpr int kW = 1280, kH = 720, kFps = 30;
    simulatedmic::addCameraMicrophone(48000, 1, 1000.0);
    rec->setHasAudio(true);
    const std::string file = path("heavy.mp4");
    const HeavyRecordingReport r = recordHeavy(rec, file, kW, kH, kFps, 4000000, 60s, 10s);
    ASSERT_TRUE(r.started);
    ASSERT_TRUE(r.stopped);
    EXPECT_FALSE(rec->isRecording());
    std::printf("heavy frames %dx%d@%d for %.1f s: peak %ld frames queued (%.1f MiB), %ld frames "
                "not made up, peak RSS %.1f MiB, RSS %.1f -> %.1f MiB while recording (%+.1f MiB "
                "per minute), drained in %.1f s after stop\n",
                kW, kH, kFps, r.wallSeconds, r.peakQueuedFrames, r.peakQueuedMiB, r.framesNotMadeUp,
                r.peakRssKiB / 1024.0, r.rssKiB.front() / 1024.0, r.rssKiB.back() / 1024.0,
                r.rssGrowthMiBPerMinute(), r.drainSeconds);
    RecordProperty("peak_queued_frames", int(r.peakQueuedFrames));
    RecordProperty("peak_rss_mib", int(r.peakRssKiB / 1024));
    EXPECT_GE(r.peakQueuedFrames, 1);

    // Nothing that was queued is lost: the file holds a frame for every period of the
    // recording, and the picture ends with the sound. (Timestamps only: a minute of
    // decoded pictures would not fit in memory.)
    MediaFile f;
    std::string err;
    ASSERT_TRUE(readMediaFile(file, f, &err, false)) << err;
    ASSERT_NE(f.video(), nullptr);
    ASSERT_NE(f.audio(), nullptr);
    // A machine that stalls for over a second (a sanitizer build) loses frames, and the
    // feeder counts them: every period is in the file or in that count.
    ASSERT_GE(r.framesNotMadeUp, 0);
    EXPECT_NEAR(f.video()->durationSeconds(), r.wallSeconds, r.wallSeconds * 0.01);
    // A stall's gap or dropped frames keep the picture's timeline: it ends with the sound.
    EXPECT_NEAR(f.video()->durationSeconds(), f.audio()->durationSeconds(), 1.0 / kFps);
}

int main(int argc, char **argv)
{
    QCoreApplication app(argc, argv);
    ::testing::InitGoogleTest(&argc, argv);
    return RUN_ALL_TESTS();
}
