// Records through the built plugin as a host does (synthetic 30 fps camera, simulated
// microphone) and prints what a user pays and gets: CPU seconds per recorded second,
// peak memory, the most frames ever queued, frames in the file against wall time x fps,
// and the audio/video duration gap (speed_bench compares the CPU and memory with the
// ffmpeg command line in interleaved pairs). Then, per size, the stop latency (stopRecord
// until isRecording() is false) over a series of short recordings, and once, the total
// time of back-to-back start/stop cycles.
//
// usage: session_bench [--seconds N] [--sizes 1280x720,1920x1080] [--fps N] [--bitrate N]
//                      [--stops N] [--cycles N] [--plugin PATH]
#include <QCommandLineParser>
#include <QCoreApplication>
#include <QRegularExpression>
#include <QStringList>
#include <QTemporaryDir>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <string>
#include <sys/resource.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>
#include <vector>

#include "commandline.h"
#include "fakealsa.h"
#include "simulatedmic.h"
#include "support/loadedrecorder.h"
#include "support/mediareader.h"
#include "support/qtmessages.h"
#include "support/testutil.h"
#include "syntheticcamera.h"

namespace {

using Clock = std::chrono::steady_clock;

struct Options {
    double seconds = 60;
    std::vector<std::pair<int, int>> sizes{{1280, 720}, {1920, 1080}};
    int fps = 30;
    unsigned bitrate = 2000000;
    int stops = 20;      // short recordings whose stop latency is measured, per size
    int cycles = 200;    // start/stop cycles timed in all
    QString plugin = QStringLiteral(RECORDER_PLUGIN_PATH);
};

// Length of each recording whose stop is timed.
constexpr std::chrono::milliseconds kStopRecordingLength{1500};

// Bounds of the options' values.
constexpr double kMinSeconds = 0.1;
constexpr double kMaxSeconds = 86400;
constexpr int kMaxFps = 240;
constexpr long long kMaxBitrate = 200000000; // bit/s
constexpr long long kMaxRuns = 100000;
// Distinct pictures the camera cycles through (drawn before the recording).
constexpr int kCameraPictures = 30;

// This process's CPU seconds so far, and its peak resident size in KiB.
double cpuSeconds()
{
    rusage u{};
    getrusage(RUSAGE_SELF, &u);
    return u.ru_utime.tv_sec + u.ru_stime.tv_sec + (u.ru_utime.tv_usec + u.ru_stime.tv_usec) / 1e6;
}

long peakKiB()
{
    rusage u{};
    getrusage(RUSAGE_SELF, &u);
    return u.ru_maxrss;
}

// Median and largest of `values` (sorted in place).
std::pair<double, double> medianAndMax(std::vector<double> &values)
{
    std::sort(values.begin(), values.end());
    const size_t n = values.size();
    const double median = n % 2 ? values[n / 2] : (values[n / 2 - 1] + values[n / 2]) / 2;
    return {median, values.back()};
}

// Times `count` stops of short recordings: from stopRecord until isRecording() is false.
// Empty when a recording did not start.
std::vector<double> stopLatenciesMs(LoadedRecorder &rec, int count)
{
    std::vector<double> ms;
    testutil::captureStdout([&] {
        for (int i = 0; i < count; ++i) {
            rec->startRecord();
            if (!rec->waitForRecordStart(20000)) {
                ms.clear();
                return;
            }
            std::this_thread::sleep_for(kStopRecordingLength);
            const auto t0 = Clock::now();
            rec->stopRecord();
            while (rec->isRecording())
                std::this_thread::sleep_for(std::chrono::milliseconds(1));
            ms.push_back(std::chrono::duration<double, std::milli>(Clock::now() - t0).count());
            rec.waitSessionEnd(std::chrono::minutes(1));
        }
    });
    return ms;
}

// Seconds that `count` start/stop cycles of a small video recording take; -1 on failure.
double cyclesSeconds(const Options &o, int count)
{
    int argc = 1;
    char name[] = "session_bench";
    char *argv[] = {name, nullptr};
    QCoreApplication app(argc, argv);
    QTemporaryDir dir;
    LoadedRecorder rec(o.plugin);
    if (!rec.loaded())
        return -1;
    CyclingCamera camera({cv::Mat(48, 64, CV_8UC3, cv::Scalar(20, 120, 220))}, 50);
    rec->setHasAudio(false);
    rec->vSetRecSize(64, 48);
    rec->setFps(20);
    rec->setPluginComponent(&camera);
    rec->setFilename(dir.filePath("cycle.mp4"));
    bool ok = true;
    const auto t0 = Clock::now();
    testutil::captureStdout([&] {
        for (int i = 0; i < count && ok; ++i) {
            rec->startRecord();
            ok = rec->waitForRecordStart(30000);
            ok = rec.stopAndWait(std::chrono::seconds(60)) && ok;
        }
    });
    return ok ? std::chrono::duration<double>(Clock::now() - t0).count() : -1;
}

// One size, in a process of its own so that peak memory is this run's.
int runOne(const Options &o, int w, int h)
{
    int argc = 1;
    char name[] = "session_bench";
    char *argv[] = {name, nullptr};
    QCoreApplication app(argc, argv);
    QTemporaryDir dir;
    const QString file = dir.filePath("bench.mp4");

    fakealsa::reset();
    simulatedmic::addCameraMicrophone(48000, 1, 1000.0);
    CyclingCamera camera(CyclingCamera::synthetic(w, h, o.fps, kCameraPictures), o.fps);
    QtMessageCollector log;
    LoadedRecorder rec(o.plugin);
    if (!rec.loaded()) {
        std::fprintf(stderr, "cannot load the plugin: %s\n", qPrintable(rec.error()));
        return 1;
    }
    rec->setPluginComponent(&camera);
    rec->setFilename(file);
    rec->vSetRecSize(w, h);
    rec->setFps(o.fps);
    rec->setVideoBitrate(o.bitrate);

    const double cpu0 = cpuSeconds();
    Clock::time_point t0, t1;
    testutil::captureStdout([&] {
        rec->startRecord();
        if (!rec->waitForRecordStart(20000))
            return;
        t0 = Clock::now();
        std::this_thread::sleep_for(std::chrono::duration<double>(o.seconds));
        t1 = Clock::now();
        rec.stopAndWait(std::chrono::minutes(10));
    });
    const double cpu = cpuSeconds() - cpu0;
    const double wall = std::chrono::duration<double>(t1 - t0).count();
    const long peak = peakKiB();

    MediaFile f;
    std::string err;
    if (wall <= 0 || !readMediaFile(file.toStdString(), f, &err, false)) {
        std::fprintf(stderr, "%dx%d: no readable recording: %s\n", w, h, err.c_str());
        return 1;
    }
    const long frames = f.video() ? long(f.video()->packetPts.size()) : 0;
    const double videoSeconds = double(frames) / o.fps;
    const double audioSeconds = f.audioSeconds();
    long madeUp = -1, notMadeUp = -1, peakQueued = -1, dropped = 0;
    const QRegularExpression stalls(QStringLiteral("(\\d+) frames made up after stalls, (\\d+) not"));
    const QRegularExpression queued(QStringLiteral("at most (\\d+) video frames"));
    const QRegularExpression drops(QStringLiteral("(\\d+) video frames dropped"));
    for (const QString &m : log.messages()) {
        if (const auto match = stalls.match(m); match.hasMatch()) {
            madeUp = match.captured(1).toLong();
            notMadeUp = match.captured(2).toLong();
        }
        if (const auto match = queued.match(m); match.hasMatch())
            peakQueued = match.captured(1).toLong();
        if (const auto match = drops.match(m); match.hasMatch())
            dropped = match.captured(1).toLong();
    }

    std::printf("%dx%d@%d, %.1f s recorded (wall), %u bit/s\n", w, h, o.fps, wall, o.bitrate);
    std::printf("  frames in file         %ld  (wall x fps = %.0f, %+.2f%%)\n", frames,
                wall * o.fps, 100.0 * (frames - wall * o.fps) / (wall * o.fps));
    std::printf("  video duration         %.3f s  (frames / fps; %+.2f%% of wall)\n", videoSeconds,
                100.0 * (videoSeconds - wall) / wall);
    std::printf("  audio duration         %.3f s  (decoded samples)\n", audioSeconds);
    std::printf("  |video - audio|        %.1f ms\n", 1000.0 * std::fabs(videoSeconds - audioSeconds));
    if (madeUp >= 0)
        std::printf("  frames made up after stalls %ld, not made up %ld\n", madeUp, notMadeUp);
    std::printf("  peak queued frames     %ld  (%ld dropped)\n", peakQueued, dropped);
    std::printf("  plugin CPU             %.3f s per recorded second (%.1f s in all)\n", cpu / wall,
                cpu);
    const double cameraMiB = kCameraPictures * double(w) * h * 3 / (1024 * 1024);
    std::printf("  peak resident memory   %.1f MiB  (%.1f MiB of it the camera's own frames)\n",
                peak / 1024.0, cameraMiB);
    if (o.stops > 0) {
        std::vector<double> ms = stopLatenciesMs(rec, o.stops);
        if (ms.empty()) {
            std::printf("  stop latency           a recording did not start\n");
            return 1;
        }
        const auto [median, worst] = medianAndMax(ms);
        std::printf("  stop latency           median %.0f ms, max %.0f ms over %d stops of %.1f s "
                    "recordings\n",
                    median, worst, o.stops, kStopRecordingLength.count() / 1000.0);
    }
    std::fflush(stdout);
    return 0;
}

Options parseOptions()
{
    QCommandLineParser p;
    p.addOptions({
        {QStringLiteral("seconds"), QStringLiteral("Seconds to record at each size (60)."),
         QStringLiteral("N")},
        {QStringLiteral("sizes"), QStringLiteral("Recording sizes (1280x720,1920x1080)."),
         QStringLiteral("WxH,...")},
        {QStringLiteral("fps"), QStringLiteral("Camera and recording frame rate (30)."),
         QStringLiteral("N")},
        {QStringLiteral("bitrate"), QStringLiteral("Video bit rate in bit/s (2000000)."),
         QStringLiteral("N")},
        {QStringLiteral("stops"), QStringLiteral("Stops timed per size (20; 0: none)."),
         QStringLiteral("N")},
        {QStringLiteral("cycles"), QStringLiteral("Start/stop cycles timed (200; 0: none)."),
         QStringLiteral("N")},
        {QStringLiteral("plugin"), QStringLiteral("The plugin library to load."),
         QStringLiteral("PATH")},
    });
    commandline::parseOrExit(p, QStringLiteral("Records through the built plugin and prints "
                                               "what it costs and delivers."));
    Options o;
    commandline::readNumber(p, QStringLiteral("seconds"), o.seconds, kMinSeconds, kMaxSeconds);
    commandline::readSizes(p, QStringLiteral("sizes"), o.sizes);
    commandline::readInteger(p, QStringLiteral("fps"), o.fps, 1, kMaxFps);
    commandline::readInteger(p, QStringLiteral("bitrate"), o.bitrate, 1, kMaxBitrate);
    commandline::readInteger(p, QStringLiteral("stops"), o.stops, 0, kMaxRuns);
    commandline::readInteger(p, QStringLiteral("cycles"), o.cycles, 0, kMaxRuns);
    if (p.isSet(QStringLiteral("plugin")))
        o.plugin = p.value(QStringLiteral("plugin"));
    return o;
}

} // namespace

int main(int argc, char **argv)
{
    Options o;
    {
        // Each size runs in a process of its own with its own application object.
        QCoreApplication app(argc, argv);
        o = parseOptions();
    }
    int failures = 0;
    for (const auto &[w, h] : o.sizes) {
        std::fflush(stdout);
        const pid_t child = fork();
        if (child == 0)
            _exit(runOne(o, w, h));
        int status = 0;
        waitpid(child, &status, 0);
        if (!WIFEXITED(status) || WEXITSTATUS(status) != 0)
            ++failures;
    }
    if (o.cycles > 0) {
        std::fflush(stdout);
        const pid_t child = fork();
        if (child == 0) {
            const double seconds = cyclesSeconds(o, o.cycles);
            if (seconds < 0) {
                std::printf("cycles: a recording did not start or stop\n");
                _exit(1);
            }
            std::printf("%d start/stop cycles (64x48 video only): %.1f s in all, %.0f ms each\n",
                        o.cycles, seconds, 1000.0 * seconds / o.cycles);
            std::fflush(stdout);
            _exit(0);
        }
        int status = 0;
        waitpid(child, &status, 0);
        if (!WIFEXITED(status) || WEXITSTATUS(status) != 0)
            ++failures;
    }
    return failures ? 1 : 0;
}
