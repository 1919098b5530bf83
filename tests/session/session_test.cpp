// Recordings end to end through the built plugin, driven as a host drives it: the file is
// decoded and checked, and so are the lines the user reads and the host contract. Every
// case, good or bad, must end with the session over, isRecording() false, endUse called
// once per beginUse, and a file that is either complete and readable or absent.
#include <QCoreApplication>
#include <QFile>
#include <QRegularExpression>
#include <gtest/gtest.h>

#include <atomic>
#include <cstdlib>
#include <filesystem>
#include <stdexcept>
#include <thread>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <opencv2/core.hpp>

#include "encode/ffmpegencode.h"
#include "fakealsa.h"
#include "simulatedmic.h"
#include "support/heavyrecording.h"
#include "support/loadedrecorder.h"
#include "support/mediareader.h"
#include "support/qtmessages.h"
#include "support/testutil.h"
#include "syntheticcamera.h"

using namespace std::chrono_literals;

namespace {

// The sanitizers' allocators keep freed memory in quarantine: resident size says nothing
// about leaks there (LeakSanitizer checks those instead), and they are too slow for real time.
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr bool kPlainBuild = false;
#else
constexpr bool kPlainBuild = true;
#endif

// A camera whose frames the test shapes: a function of the frame number; an empty
// picture is a call that found no frame.
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
        return !frame.empty();
    }
    void endUse() override { ++ends; }
    std::atomic<int> begins{0}, ends{0};
    std::atomic<long> frames{0}; // getFrame calls

private:
    Maker m_make;
    std::chrono::milliseconds m_period;
};

cv::Mat solid(int w, int h, cv::Scalar c = cv::Scalar(20, 120, 220))
{
    return cv::Mat(h, w, CV_8UC3, c);
}

cv::Mat marked(long n)
{
    return SyntheticCamera::makeFrame(160, 120, n, 0);
}

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
        fakealsa::reset();
        ASSERT_TRUE(rec.loaded()) << qPrintable(rec.error());
        rec->setHasAudio(false);
        rec->vSetRecSize(160, 120);
        rec->setFps(20);
    }
    std::string path(const std::string &name) const { return dir.file(name); }

    struct Run {
        bool started = false;    // the start answer
        double startSeconds = 0; // from startRecord to the answer
        double wall = 0;         // seconds from the start answer to stopRecord
        double stopSeconds = 0;  // from stopRecord to the end of the session
        std::string out;         // standard output of the whole session
    };
    // Starts, waits for the answer, runs `during`, records until `length` has passed since
    // the answer and stops. The session must always end, and end its use of the camera.
    Run run(ScriptedCamera &camera, const std::string &file, std::chrono::milliseconds length,
            const std::function<void()> &during = {})
    {
        rec->setPluginComponent(&camera);
        rec->setFilename(QString::fromStdString(file));
        const int beginsBefore = camera.begins;
        Run r;
        r.out = testutil::captureStdout([&] {
            using Clock = std::chrono::steady_clock;
            const auto seconds = [](Clock::duration d) { return std::chrono::duration<double>(d).count(); };
            const auto t0 = Clock::now();
            rec->startRecord();
            r.started = rec->waitForRecordStart(30000);
            const auto t1 = Clock::now();
            r.startSeconds = seconds(t1 - t0);
            if (during)
                during();
            std::this_thread::sleep_until(t1 + length);
            const auto t2 = Clock::now();
            r.wall = seconds(t2 - t1);
            EXPECT_TRUE(rec.stopAndWait(60s));
            r.stopSeconds = seconds(Clock::now() - t2);
        });
        EXPECT_FALSE(rec->isRecording());
        EXPECT_TRUE(testutil::pollUntil([&] { return camera.ends == camera.begins; }, 10s));
        EXPECT_EQ(camera.begins, beginsBefore + 1);
        return r;
    }

    // The file is complete and readable (returns it), or absent.
    MediaFile readableOrAbsent(const std::string &file, bool decodePictures = true)
    {
        MediaFile f;
        if (!QFile::exists(QString::fromStdString(file)))
            return f;
        std::string err;
        EXPECT_TRUE(readMediaFile(file, f, &err, decodePictures)) << file << ": " << err;
        return f;
    }

    testutil::TempDir dir;
    LoadedRecorder rec{QStringLiteral(RECORDER_PLUGIN_PATH)};
};

} // namespace

TEST_F(SessionTest, VideoAndSoundGoIntoOneMp4WhoseStreamsLastTheRecordingTime)
{
    simulatedmic::addCameraMicrophone(48000, 1, 1000.0);
    ScriptedCamera camera([](long n) { return SyntheticCamera::makeFrame(320, 240, n, 0); }, 66ms);
    rec->setHasAudio(true);
    rec->vSetRecSize(319, 239); // odd sizes are rounded up to even
    rec->setFps(15);
    const Run r = run(camera, path("both.mp4"), 2500ms);

    // The printed duration runs from the first frame to the stop: no grace period (a
    // sanitizer build takes its time to see the stop).
    EXPECT_GE(printedDuration(r.out, "msecs"), r.wall * 1000 - 300) << r.out;
    EXPECT_LE(printedDuration(r.out, "msecs"), r.wall * 1000 + 1000) << r.out;

    const MediaFile f = readableOrAbsent(path("both.mp4"));
    ASSERT_NE(f.video(), nullptr);
    ASSERT_NE(f.audio(), nullptr);
    EXPECT_EQ(f.video()->width, 320);
    EXPECT_EQ(f.video()->height, 240);
    EXPECT_NEAR(f.videoSeconds(), r.wall, 0.5);
    EXPECT_NEAR(f.audioSeconds(), r.wall, 0.5);
    EXPECT_NEAR(dominantFrequency(f.samples, f.audioChannels, 0, f.audioSampleRate), 1000.0, 30.0);
}

TEST_F(SessionTest, AudioOnlyNeverAsksForAFrameAndKeepsTheChannelsApart)
{
    simulatedmic::addCameraMicrophone(48000, 2, 440.0);
    ScriptedCamera camera([](long) { return solid(64, 48); });
    rec->setHasAudio(true);
    rec->setHasVideo(false);
    const Run r = run(camera, path("sound.mp4"), 1500ms);

    EXPECT_EQ(camera.frames, 0);
    const int ms = printedDuration(r.out, "msec");
    EXPECT_NEAR(ms, r.wall * 1000, 300) << r.out;
    const MediaFile f = readableOrAbsent(path("sound.mp4"));
    EXPECT_EQ(f.video(), nullptr);
    ASSERT_NE(f.audio(), nullptr);
    ASSERT_EQ(f.audioChannels, 2);
    // The capture ends at the stop request: the sound lasts what was recorded.
    EXPECT_NEAR(f.audioSeconds(), ms / 1000.0, 0.2);
    // Left carries 440 Hz and right 880 Hz.
    EXPECT_NEAR(dominantFrequency(f.samples, 2, 0, f.audioSampleRate), 440.0, 20.0);
    EXPECT_NEAR(dominantFrequency(f.samples, 2, 1, f.audioSampleRate), 880.0, 20.0);

    // Without a microphone nothing is left to record: the answer is false, and soon.
    fakealsa::reset();
    const Run none = run(camera, path("never.mp4"), 0ms);
    EXPECT_FALSE(none.started);
    EXPECT_LT(none.startSeconds, 10.0);
    EXPECT_FALSE(QFile::exists(QString::fromStdString(path("never.mp4"))));
}

TEST_F(SessionTest, PausedTimeIsNotRecordedAndAStopWhilePausedLeavesTheNextUnpaused)
{
    simulatedmic::addCameraMicrophone(48000, 1, 1000.0); // there, but video only is asked for
    ScriptedCamera camera(marked, 50ms);
    run(camera, path("pause.mp4"), 2500ms, [&] {
        std::this_thread::sleep_for(500ms);
        ASSERT_TRUE(rec->bPauseRec());
        std::this_thread::sleep_for(1500ms);
        ASSERT_TRUE(rec->bResumeRec());
    });
    // The picture lasts the time recorded, without the 1.5 s paused.
    EXPECT_NEAR(readableOrAbsent(path("pause.mp4")).videoSeconds(), 1.0, 0.5);

    run(camera, path("p1.mp4"), 1000ms, [&] {
        std::this_thread::sleep_for(400ms);
        EXPECT_TRUE(rec->bPauseRec());
    });
    run(camera, path("p2.mp4"), 1000ms);
    const MediaFile f = readableOrAbsent(path("p2.mp4"));
    EXPECT_GE(f.frames.size(), 10u);
    EXPECT_EQ(f.audio(), nullptr);
    EXPECT_EQ(fakealsa::pcmOpens(), 0);
}

TEST_F(SessionTest, StopBeforeTheFirstFrameEndsCleanlyWithoutADuration)
{
    simulatedmic::addCameraMicrophone(48000, 1, 1000.0);
    rec->setHasAudio(true);
    ScriptedCamera dark([](long) { return cv::Mat(); }, 5ms);
    const Run r = run(dark, path("dark.mp4"), 500ms);
    EXPECT_GT(dark.frames, 0);
    // No first frame: a duration that cannot be taken for a real one.
    EXPECT_EQ(printedDuration(r.out, "msecs"), -1) << r.out;
    readableOrAbsent(path("dark.mp4"));
}

// Every way the output can fail ends the session, tells the user, and leaves the
// recorder ready for the next recording.
TEST_F(SessionTest, AnOutputThatFailsEndsTheSessionAndSaysWhy)
{
    std::filesystem::create_directory(path("out"));
    const struct {
        std::string file;
        int started;          // the start answer; -1: either
        std::string printed;  // on standard output, standard error or the log
        bool removeDirectory; // the directory goes while recording
    } rows[] = {
        {path("gone/x.mp4"), 0, "cannot open :" + path("gone/x.mp4"), false},
        {"/dev/full", -1, "No space left on device (/dev/full)", false},
        {path("out/x.mp4"), 1, "record failed: the output file ", true},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(row.file);
        ScriptedCamera cam([](long) { return solid(160, 120); });
        QtMessageCollector log;
        Run r;
        const std::string err = testutil::captureStderr([&] {
            r = run(cam, row.file, 800ms, [&] {
                if (row.removeDirectory)
                    std::filesystem::remove_all(path("out"));
            });
        });
        if (row.started >= 0) {
            EXPECT_EQ(r.started, row.started == 1);
        }
        const bool told = r.out.find(row.printed) != std::string::npos
            || err.find(row.printed) != std::string::npos || log.count(QString::fromStdString(row.printed)) == 1;
        EXPECT_TRUE(told) << r.out << err;
        if (row.file != "/dev/full") {
            EXPECT_FALSE(QFile::exists(QString::fromStdString(row.file)));
        }
    }
}

// A source set during a recording is used from the next one: every call of a recording
// reaches the source that got its beginUse.
TEST_F(SessionTest, TheFrameSourceIsPinnedPerRecording)
{
    ScriptedCamera red([](long) { return solid(64, 48, cv::Scalar(0, 0, 255)); });
    ScriptedCamera blue([](long) { return solid(64, 48, cv::Scalar(255, 0, 0)); });
    rec->vSetRecSize(64, 48);
    run(red, path("switch.mkv"), 0ms, [&] {
        ASSERT_TRUE(testutil::pollUntil([&] { return red.frames > 20; }, 10s));
        rec->setPluginComponent(&blue);
        const long before = red.frames;
        ASSERT_TRUE(testutil::pollUntil([&] { return red.frames > before + 20; }, 10s));
    });
    EXPECT_EQ(blue.frames, 0);
    EXPECT_EQ(blue.begins, 0);
    EXPECT_EQ(red.ends, 1);
    const MediaFile f = readableOrAbsent(path("switch.mkv"));
    ASSERT_GE(f.frames.size(), 10u);
    EXPECT_GT(f.frames.back().at<cv::Vec3b>(24, 32)[2], 200); // red to the end
    run(blue, path("next.mkv"), 500ms);
    EXPECT_EQ(red.begins, 1);
}

TEST_F(SessionTest, AThrowingFrameSourceEndsTheRecordingWithAReasonAndKeepsTheFile)
{
    // A camera that throws: the recording ends and keeps what came before.
    ScriptedCamera thrower([](long n) {
        if (n == 30)
            throw std::runtime_error("camera unplugged");
        return marked(n);
    });
    run(thrower, path("throw.mp4"), 2000ms);
    EXPECT_GE(readableOrAbsent(path("throw.mp4")).frames.size(), 10u);
    EXPECT_EQ(rec.status().endReason, QStringLiteral("the frame source failed: camera unplugged"));
}

// Gray, BGRA and BGR frames of any size are recorded; another pixel type is refused,
// counted in the status and reported once.
TEST_F(SessionTest, GrayAndBgraAreRecordedAndOtherTypesRefusedCountedAndReportedOnce)
{
    // Each kind lasts ten frames of the camera (50 ms), so that the recording's due
    // instants cannot fall in step with one kind of frame.
    ScriptedCamera cam([](long n) {
        switch (n / 10 % 5) {
        case 0: return cv::Mat(120, 160, CV_8UC1, cv::Scalar(200));
        case 1: return cv::Mat(200, 320, CV_8UC4, cv::Scalar(200, 200, 200, 9));
        case 2: return cv::Mat(120, 160, CV_16UC3, cv::Scalar(9000, 0, 0));
        case 3: return solid(33, 17, cv::Scalar(200, 200, 200));
        default: return solid(160, 120, cv::Scalar(200, 200, 200));
        }
    }, 5ms);
    QtMessageCollector log;
    EXPECT_TRUE(run(cam, path("types.mkv"), 1500ms).started);
    const MediaFile f = readableOrAbsent(path("types.mkv"));
    ASSERT_GE(f.frames.size(), 15u); // four kinds in five are recorded
    for (const cv::Mat &img : f.frames) {
        ASSERT_EQ(img.size(), cv::Size(160, 120));
        const cv::Scalar m = cv::mean(img);
        EXPECT_NEAR(m[0], 200, 10) << "a refused or blank frame was encoded";
        EXPECT_NEAR(m[2], 200, 10);
    }
    const RecordingStatus st = rec.status();
    EXPECT_GT(st.framesRefused, 10);
    EXPECT_EQ(st.framesWritten, long(f.frames.size()));
    EXPECT_EQ(log.count(QStringLiteral("camera frames of OpenCV type 18 cannot be recorded: they "
                                       "are refused (8-bit gray, BGR and BGRA are taken)")), 1);
}

TEST_F(SessionTest, SettingsAtTheEdgesNeverCrashOrHang)
{
    const struct {
        long w, h;
        int fps;
        unsigned bitrate;
        const char *name;
        int width; // of the recorded picture; 0: not checked
    } rows[] = {
        {0, 0, 20, 500000, "zero.mp4", 0},         {2, 2, 20, 500000, "two.mp4", 0},
        {160, 120, 0, 500000, "fps0.mp4", 160},     {160, 120, 1, 500000, "fps1.mp4", 160},
        {160, 120, 240, 500000, "fps240.mp4", 160}, {160, 120, -5, 500000, "fpsneg.mp4", 160},
        {160, 120, 20, 0, "bitrate0.mp4", 160},     {160, 120, 20, 4000000000u, "4g.mp4", 160},
        {160, 120, 20, 500000, "", 0},              {160, 120, 20, 500000, "名 with spaces é.mp4", 160},
        {7680, 4320, 5, 500000, "8k.mp4", 7680},
    };
    for (const auto &e : rows) {
        SCOPED_TRACE(testing::Message() << e.name << " " << e.w << "x" << e.h << " fps " << e.fps);
        ScriptedCamera cam(marked);
        rec->vSetRecSize(e.w, e.h);
        rec->setFps(e.fps);
        rec->setVideoBitrate(e.bitrate);
        const std::string file = *e.name ? path(e.name) : std::string();
        if (!run(cam, file, 600ms).started || file.empty())
            continue;
        const MediaFile f = readableOrAbsent(file, e.width < 1000);
        ASSERT_NE(f.video(), nullptr);
        if (e.width) {
            EXPECT_EQ(f.video()->width, e.width);
        }
        if (e.fps <= 0) { // taken as 10 frames per second
            EXPECT_EQ(f.video()->timeBase.den % 10, 0);
        }
    }
}

TEST_F(SessionTest, PausesStartsAndStopsFromAnyThreadNeverHangOrLeak)
{
    ScriptedCamera flicker(marked, 2ms);
    run(flicker, path("flicker.mp4"), 500ms, [&] {
        for (int i = 0; i < 1000; ++i) {
            EXPECT_TRUE(rec->bPauseRec());
            EXPECT_TRUE(rec->bResumeRec());
        }
    });
    EXPECT_NE(readableOrAbsent(path("flicker.mp4")).video(), nullptr);

    ScriptedCamera cam([](long) { return solid(160, 120); });
    rec->setPluginComponent(&cam);
    rec->setFilename(QString::fromStdString(path("race.mp4")));
    testutil::captureStdout([&] {
        std::vector<std::thread> hosts;
        for (int t = 0; t < 4; ++t)
            hosts.emplace_back([&, t] {
                for (int i = 0; i < 50; ++i)
                    (i + t) % 2 ? rec->startRecord() : rec->stopRecord();
            });
        for (std::thread &h : hosts)
            h.join();
        EXPECT_TRUE(rec.stopAndWait(120s));
    });
    EXPECT_TRUE(testutil::pollUntil([&] { return cam.begins == cam.ends; }, 10s));
}

TEST_F(SessionTest, DeletingTheInstanceRightAfterStopWaitsForTheSession)
{
    ScriptedCamera cam([](long) { return solid(160, 120); });
    rec->setPluginComponent(&cam);
    rec->setFilename(QString::fromStdString(path("del.mp4")));
    testutil::captureStdout([&] {
        rec->startRecord();
        ASSERT_TRUE(rec->waitForRecordStart(30000));
        ASSERT_TRUE(testutil::pollUntil([&] { return cam.frames > 5; }, 10s));
        rec->stopRecord();
        // The owner deletes the instance while the session is still finishing the file.
        delete rec.thread();
    });
    EXPECT_EQ(cam.ends, 1);
    EXPECT_NE(readableOrAbsent(path("del.mp4")).video(), nullptr);
}

// A host may delete the instance from inside any of the frame source's calls: nothing
// crashes, the session finishes its file by itself, endUse comes once, and no thread of
// the session is left behind.
TEST_F(SessionTest, DeletingTheInstanceFromInsideTheFrameSourceLetsTheSessionEndAlone)
{
    enum class At { BeginUse, GetFrame, EndUse };
    const struct { const char *name; At at; bool filmed; } rows[] = {
        {"beginUse", At::BeginUse, false}, {"getFrame", At::GetFrame, true}, {"endUse", At::EndUse, true}};
    for (const auto &row : rows) {
        SCOPED_TRACE(row.name);
        LoadedRecorder own{QStringLiteral(RECORDER_PLUGIN_PATH)};
        ASSERT_TRUE(own.loaded()) << qPrintable(own.error());
        QObject *instance = own.thread();
        const int threadsBefore = testutil::threadCount();
        // The camera deletes the instance as the row says, once.
        std::atomic<bool> deleted{false};
        const auto deleteOnce = [&] {
            if (!deleted.exchange(true))
                delete instance;
        };
        struct DeletingCamera : PluginComponent {
            std::function<void(At)> call;
            std::atomic<int> begins{0}, ends{0};
            std::atomic<long> frames{0};
            void beginUse() override { ++begins; call(At::BeginUse); }
            bool getFrame(cv::Mat &frame) override
            {
                std::this_thread::sleep_for(10ms);
                frame = marked(frames);
                if (++frames == 10)
                    call(At::GetFrame);
                return true;
            }
            // Counted once the call is over: the test may then let the camera go.
            void endUse() override { call(At::EndUse); ++ends; }
        } cam;
        cam.call = [&](At at) {
            if (at == row.at)
                deleteOnce();
        };
        const std::string file = path(std::string(row.name) + ".mp4");
        own->setHasAudio(false);
        own->vSetRecSize(160, 120);
        own->setFps(20);
        own->setPluginComponent(&cam);
        own->setFilename(QString::fromStdString(file));
        testutil::captureStdout([&] {
            own->startRecord();
            if (row.at == At::EndUse) {
                ASSERT_TRUE(testutil::pollUntil([&] { return cam.frames > 10; }, 10s));
                own->stopRecord();
            }
            ASSERT_TRUE(testutil::pollUntil([&] { return deleted && cam.ends == 1; }, 60s));
            // The worker and everything it started leave the process.
            EXPECT_TRUE(testutil::pollUntil([&] { return testutil::threadCount() <= threadsBefore; }, 10s));
        });
        EXPECT_EQ(cam.begins, 1);
        EXPECT_EQ(cam.ends, 1);
        const MediaFile f = readableOrAbsent(file);
        if (row.filmed) {
            EXPECT_FALSE(f.frames.empty());
        }
    }
}

// The host waits for the end with a time limit instead of spinning: the wait does not
// answer before the file is complete and endUse has come.
TEST_F(SessionTest, WaitingForTheEndAnswersOnceTheFileIsCompleteOrTheLimitPasses)
{
    ScriptedCamera cam([](long n) { return marked(n); });
    auto *status = qobject_cast<FFMPEGPluginStatus *>(rec.thread());
    ASSERT_NE(status, nullptr);
    EXPECT_TRUE(status->waitForRecordEnd(0)); // nothing asked for yet
    rec->setPluginComponent(&cam);
    rec->setFilename(QString::fromStdString(path("end.mp4")));
    testutil::captureStdout([&] {
        rec->startRecord();
        ASSERT_TRUE(rec->waitForRecordStart(30000));
        EXPECT_FALSE(status->waitForRecordEnd(200)); // still recording: the limit passes
        rec->stopRecord();
        ASSERT_TRUE(status->waitForRecordEnd(60000));
    });
    EXPECT_FALSE(rec->isRecording());
    EXPECT_EQ(cam.ends, 1);
    EXPECT_EQ(status->recordingStatus().state, RecordingStatus::State::Finished);
    EXPECT_GE(readableOrAbsent(path("end.mp4")).frames.size(), 2u);
}

// A "split into a new file" button: stop, a new name and start at once, again and again.
// Each start must answer for its own session, also while the last one is still finishing
// its file, and each file must exist with frames of its own.
TEST_F(SessionTest, StopRenameStartAtOnceGivesEveryFileItsOwnFrames)
{
    constexpr int kFiles = 40;
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
        ASSERT_FALSE(f.frames.empty());
        for (const cv::Mat &img : f.frames) {
            const long n = SyntheticCamera::readFrameNumber(img);
            EXPECT_GT(n, last); // later than every frame of the files before
            last = std::max(last, n);
        }
    }
}

// A microphone that is missing or held by another program costs the sound, never the
// picture, a start within five seconds or a prompt stop.
TEST_F(SessionTest, AMicrophoneThatFailsCostsTheSoundOnly)
{
    const struct {
        const char *what;
        std::function<void(fakealsa::Capture &)> shape; // null: no card at all
        std::chrono::milliseconds length;
        double maxAudioSeconds; // < 0: no sound stream, and the user is told
        double minVideoSeconds;
        int opens; // of the capture device; -1: not checked
    } rows[] = {
        {"missing", nullptr, 1000ms, -1, 0.5, 0},
        {"busy", [](fakealsa::Capture &c) { c.heldMs = -1; }, 1000ms, -1, 0.5, 0},
        // Let go of within the two seconds the busy device is retried.
        {"held2s", [](fakealsa::Capture &c) { c.heldMs = 2000; }, 1000ms, 1.5, 0.5, 1},
    };
    rec->setHasAudio(true); // once: a recording without a microphone keeps the wish
    for (const auto &row : rows) {
        SCOPED_TRACE(row.what);
        fakealsa::reset();
        fakealsa::Capture card;
        if (row.shape) {
            row.shape(card);
            fakealsa::addCard("KW-08P USBCamera", {}, card);
        }
        ScriptedCamera cam(marked);
        QtMessageCollector log;
        const std::string file = path(std::string(row.what) + ".mp4");
        const Run r = run(cam, file, row.length);
        EXPECT_TRUE(r.started);
        EXPECT_LT(r.startSeconds, 5.0);
        EXPECT_LT(r.stopSeconds, 3.0);
        const MediaFile f = readableOrAbsent(file);
        EXPECT_GT(f.videoSeconds(), row.minVideoSeconds);
        if (row.maxAudioSeconds < 0) {
            EXPECT_EQ(f.audio(), nullptr);
            EXPECT_FALSE(rec->hasAudio());
            EXPECT_NE(r.out.find("打开麦失败，将不录音"), std::string::npos) << r.out;
            EXPECT_EQ(log.count("打开麦失败，将不录音"), 1);
        } else {
            ASSERT_NE(f.audio(), nullptr);
            EXPECT_LT(f.audioSeconds(), row.maxAudioSeconds);
            const RecordingStatus st = rec.status();
            EXPECT_EQ(st.state, RecordingStatus::State::Finished);
            EXPECT_EQ(st.endReason, QStringLiteral("stopped by the host"));
            EXPECT_TRUE(st.video && st.audio);
            EXPECT_NEAR(st.soundLostMs, (f.videoSeconds() - f.audioSeconds()) * 1000, 300);
        }
        if (row.opens >= 0) {
            EXPECT_EQ(fakealsa::pcmOpens(), row.opens);
        }
        EXPECT_EQ(fakealsa::pcmOpenHandles(), 0);
    }
}

// What one recording could not have never changes what the host asked for the next.
TEST_F(SessionTest, AContainerThatCannotHoldTheVideoCostsThatRecordingOnly)
{
    simulatedmic::addCameraMicrophone(48000, 1, 1000.0);
    rec->setHasAudio(true);
    ScriptedCamera cam([](long) { return solid(160, 120); });
    QtMessageCollector log;
    run(cam, path("sound.wav"), 1000ms);
    EXPECT_EQ(log.count("the container wav cannot hold video"), 1);
    EXPECT_FALSE(rec->hasVideo()); // the host sees what is recorded
    EXPECT_EQ(cam.frames, 0);      // nothing is taken, let alone queued, for the picture
    const MediaFile f = readableOrAbsent(path("sound.wav"));
    EXPECT_EQ(f.video(), nullptr);
    ASSERT_NE(f.audio(), nullptr);
    EXPECT_NEAR(f.audioSeconds(), 1.0, 0.3);

    run(cam, path("both.mp4"), 1000ms); // no setter in between
    const MediaFile both = readableOrAbsent(path("both.mp4"));
    EXPECT_NE(both.video(), nullptr);
    EXPECT_NE(both.audio(), nullptr);
    EXPECT_TRUE(rec->hasVideo());
}

// A machine that cannot encode the size in real time: frames are dropped and counted,
// memory stays bounded, and the picture still ends with the sound.
TEST_F(SessionTest, OverloadDropsFramesButKeepsMemoryBoundedAndThePictureWithTheSound)
{
    constexpr int kFps = 30;
    simulatedmic::addCameraMicrophone(48000, 1, 1000.0);
    rec->setHasAudio(true);
    const std::string file = path("overload.mp4");
    const HeavyRecordingReport r = recordHeavy(rec, file, 3840, 2160, kFps, 8000000, 6s, 1s);
    ASSERT_TRUE(r.started && r.stopped);
    // A machine fast enough never fills the queue; one that falls behind drops frames only
    // once the queue is full, and the newest frame is always kept.
    EXPECT_GE(r.peakQueuedFrames, 1);
    EXPECT_LE(r.peakQueuedFrames, kFps);
    const double frameMiB = 3840.0 * 2160 * 3 / (1 << 20);
    if (r.framesDropped > 0) {
        EXPECT_TRUE(r.peakQueuedFrames == kFps
                    || r.peakQueuedMiB > double(FFmpegEncode::kMaxQueuedVideoBytes >> 20) - frameMiB)
            << r.peakQueuedFrames << " frames, " << r.peakQueuedMiB << " MiB";
    }
    EXPECT_LE(r.peakQueuedMiB, double(FFmpegEncode::kMaxQueuedVideoBytes >> 20));
    // No growth once the queue is full (unbounded, it would grow by 500 MiB a second).
    if (kPlainBuild && r.rssKiB.size() == 6) {
        EXPECT_LT(r.rssKiB[5] - r.rssKiB[3], 128 * 1024);
    }
    const MediaFile f = readableOrAbsent(file, false); // timestamps only: the pictures are large
    ASSERT_TRUE(f.video() && f.audio());
    EXPECT_NEAR(f.video()->durationSeconds(), f.audio()->durationSeconds(), 1.0 / kFps);
}

// A recording that cannot go on ends by itself within `within` and tells the host why at
// once; the status once its session is over (a stop is sent too, so that a recorder that
// would not end by itself cannot hold the test).
RecordingStatus endsByItself(LoadedRecorder &rec, std::chrono::seconds within)
{
    EXPECT_TRUE(testutil::pollUntil([&] { return !rec->isRecording(); }, within));
    const QString toldAtOnce = rec.status().endReason;
    EXPECT_TRUE(rec.stopAndWait(60s));
    const RecordingStatus st = rec.status();
    EXPECT_EQ(st.state, RecordingStatus::State::Failed);
    EXPECT_EQ(st.endReason, toldAtOnce);
    return st;
}

// A full disk: a small tmpfs of its own (root only).
TEST_F(SessionTest, AFullDiskEndsTheRecordingByItselfAndKeepsItPlayable)
{
    testutil::ScratchDisk disk(path("small"), 3);
    if (!disk.mounted())
        GTEST_SKIP() << "needs root and a tmpfs mount to make a full disk";
    const std::string file = disk.path() + "/full.mp4";
    CyclingCamera camera(noisePictures(320, 240), 25);
    rec->vSetRecSize(320, 240);
    rec->setFps(25);
    rec->setVideoBitrate(8000000);
    rec->setPluginComponent(&camera);
    rec->setFilename(QString::fromStdString(file));
    RecordingStatus st;
    testutil::captureStdout([&] {
        rec->startRecord();
        ASSERT_TRUE(rec->waitForRecordStart(30000));
        st = endsByItself(rec, 30s);
    });
    rec->setPluginComponent(nullptr);
    EXPECT_EQ(st.endReason, QStringLiteral("the disk is full"));
    EXPECT_GT(st.framesWritten, 10);
    EXPECT_GT(st.bytes, 1000000);
    const MediaFile f = readableOrAbsent(file, false);
    EXPECT_GT(f.videoSeconds(), 0.5);
    EXPECT_EQ(disk.names(), std::vector<std::string>{"full.mp4"}); // no copy left behind
}

// A disk that stalls (frozen: every write waits in the kernel): the sound queue stays
// within its bound and the recording ends with a reason; the writer finishes once the disk
// moves again.
TEST_F(SessionTest, AStalledDiskBoundsTheSoundQueueAndEndsTheRecording)
{
    testutil::ScratchDisk disk(path("stalling"), 64, true);
    if (!disk.mounted())
        GTEST_SKIP() << "needs root and a loop-mounted ext4 to make a stalled disk";
    simulatedmic::addCameraMicrophone(48000, 1, 1000.0);
    rec->setHasAudio(true);
    const std::string file = disk.path() + "/stall.mp4";
    ScriptedCamera cam(marked);
    QtMessageCollector log;
    RecordingStatus st;
    testutil::captureStdout([&] {
        rec->setPluginComponent(&cam);
        rec->setFilename(QString::fromStdString(file));
        rec->startRecord();
        ASSERT_TRUE(rec->waitForRecordStart(30000));
        std::this_thread::sleep_for(1s); // the recording's length before the stall
        ASSERT_TRUE(disk.freeze(true));
        EXPECT_TRUE(testutil::pollUntil([&] { return !rec->isRecording(); },
                                        std::chrono::seconds(int(FFmpegEncode::kMaxQueuedSoundSeconds) + 10)));
        st = rec.status();
        rec->stopRecord();
        disk.freeze(false); // the writer may finish once the disk moves again
        EXPECT_TRUE(rec.waitSessionEnd(60s));
    });
    EXPECT_TRUE(st.endReason.startsWith(QStringLiteral("the disk stalled"))) << qPrintable(st.summary());
    const QRegularExpression peak(QStringLiteral("and (\\d+) audio blocks were queued"));
    long blocks = -1;
    for (const QString &m : log.messages())
        if (peak.match(m).hasMatch())
            blocks = peak.match(m).captured(1).toLong();
    EXPECT_GT(blocks, 0);
    EXPECT_LE(blocks, long(FFmpegEncode::kMaxQueuedSoundSeconds * 48000 / 1024) + 1);
}

// A non-blocking source that never has a frame costs no core.
TEST_F(SessionTest, ASourceWithoutFramesIsWaitedForNotSpunOn)
{
    ScriptedCamera empty([](long) { return cv::Mat(); }, 0ms);
    double cpu = 0;
    run(empty, path("empty.mp4"), 3000ms, [&] {
        const double cpu0 = testutil::processCpuSeconds();
        const auto t0 = std::chrono::steady_clock::now();
        std::this_thread::sleep_for(2s);
        cpu = (testutil::processCpuSeconds() - cpu0)
            / std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count();
    });
    EXPECT_GT(empty.frames, 20); // still asked
    EXPECT_LT(cpu, 0.05);
}

// A microphone unplugged and plugged back in (at another index) is recorded as silence
// while it is away and as itself again within two seconds of its return, with and without
// a picture; the status says what was lost and when.
TEST_F(SessionTest, AMicrophoneThatComesBackIsRecordedAgainAfterSilence)
{
    constexpr double kGoneAt = 1.0, kAway = 1.5, kLength = 6.0; // seconds
    constexpr double kSlice = 0.1;                              // seconds judged at a time
    const struct {
        const char *file;
        bool video;
    } rows[] = {{"replug.mp4", true}, {"replug.m4a", false}};
    rec->setHasAudio(true);
    for (const auto &row : rows) {
        SCOPED_TRACE(row.file);
        fakealsa::reset();
        fakealsa::Capture card;
        card.channels = {1};
        card.unplugAfterMs = long(kGoneAt * 1000);
        card.replugAfterMs = long(kAway * 1000);
        card.replugElsewhere = true;
        fakealsa::addCard("KW-08P USBCamera", {}, card);
        rec->setHasVideo(row.video);
        ScriptedCamera cam(marked);
        const Run r = run(cam, path(row.file), std::chrono::milliseconds(long(kLength * 1000)));
        const MediaFile f = readableOrAbsent(path(row.file), false);
        ASSERT_NE(f.audio(), nullptr);
        ASSERT_EQ(f.audioChannels, 1);
        // Each slice of the sound: the tone (loud), silence (all zero) or a mix.
        const size_t slice = size_t(48000 * kSlice);
        std::vector<char> kind;
        for (size_t at = 0; at + slice <= f.samples.size(); at += slice) {
            double energy = 0;
            size_t zeros = 0;
            for (size_t i = at; i < at + slice; ++i) {
                energy += double(f.samples[i]) * f.samples[i];
                zeros += f.samples[i] == 0;
            }
            kind.push_back(zeros == slice ? 's' : std::sqrt(energy / slice) > 4000 ? 't' : 'm');
        }
        const std::string seen(kind.begin(), kind.end());
        SCOPED_TRACE(seen);
        // Tone, silence from the unplug, tone again within two seconds of the replug, to the end.
        const size_t goneFrom = seen.find('s'), backFrom = seen.find('t', goneFrom);
        ASSERT_NE(goneFrom, std::string::npos);
        ASSERT_NE(backFrom, std::string::npos);
        EXPECT_NEAR(goneFrom * kSlice, kGoneAt, 0.4);
        EXPECT_GE(backFrom * kSlice, kGoneAt + kAway - 0.4);
        EXPECT_LE(backFrom * kSlice, kGoneAt + kAway + 2.0);
        EXPECT_EQ(seen.substr(goneFrom, backFrom - 1 - goneFrom).find_first_not_of('s'), std::string::npos);
        EXPECT_EQ(seen.find('s', backFrom), std::string::npos);
        EXPECT_NEAR(f.audioSeconds(), row.video ? f.videoSeconds() : r.wall, 0.5);
        const RecordingStatus st = rec.status();
        EXPECT_EQ(st.state, RecordingStatus::State::Finished);
        EXPECT_EQ(st.endReason, QStringLiteral("stopped by the host"));
        EXPECT_EQ(st.micLosses, 1);
        EXPECT_NEAR(st.micLostAt, kGoneAt, 0.4);
        EXPECT_GE(st.micBackAt, kGoneAt + kAway - 0.2);
        EXPECT_LE(st.micBackAt, kGoneAt + kAway + 2.0);
        EXPECT_NEAR(st.soundLostMs, (st.micBackAt - st.micLostAt) * 1000, 400);
        EXPECT_EQ(fakealsa::pcmOpenHandles(), 0);
    }
}

// RECORDER_CYCLES start/stop cycles (20 in CI; the long run makes it 200): no threads or
// memory left behind, and every beginUse has its endUse.
TEST_F(SessionTest, StartStopCyclesDoNotGrow)
{
    const char *wanted = std::getenv("RECORDER_CYCLES");
    const int cycles = wanted ? std::atoi(wanted) : 20;
    constexpr int kReference = 10; // the cycle after which allocator and threads have settled
    ScriptedCamera cam([](long) { return solid(64, 48); }, 10ms);
    rec->vSetRecSize(64, 48);
    rec->setPluginComponent(&cam);
    rec->setFilename(QString::fromStdString(path("cycle.mp4")));
    long rss = 0;
    int threads = 0;
    for (int i = 1; i <= cycles; ++i) {
        testutil::captureStdout([&] {
            rec->startRecord();
            ASSERT_TRUE(rec->waitForRecordStart(30000)) << "cycle " << i;
            ASSERT_TRUE(rec.stopAndWait(60s)) << "cycle " << i;
        });
        if (i == kReference) {
            rss = testutil::residentInUseKiB();
            threads = testutil::threadCount();
        }
    }
    const long rssEnd = testutil::residentInUseKiB();
    std::printf("RSS after cycle %d: %ld KiB, after cycle %d: %ld KiB; threads %d -> %d\n",
                kReference, rss, cycles, rssEnd, threads, testutil::threadCount());
    if (kPlainBuild) {
        EXPECT_LE(rssEnd, rss * 105 / 100 + 2048);
    }
    // A thread that has returned from run() still takes a moment to leave the process.
    EXPECT_TRUE(testutil::pollUntil([&] { return testutil::threadCount() <= threads; }, 5s));
    EXPECT_EQ(cam.begins, cycles);
    EXPECT_EQ(cam.ends, cycles);
    readableOrAbsent(path("cycle.mp4")); // a stop before the first frame leaves no picture
}

int main(int argc, char **argv)
{
    QCoreApplication app(argc, argv);
    ::testing::InitGoogleTest(&argc, argv);
    return RUN_ALL_TESTS();
}
