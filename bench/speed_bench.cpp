// What a recording through the built plugin costs against the ffmpeg command line
// encoding the same frames with the same settings. For each size, interleaved pairs: the
// plugin records for N seconds (textured camera frames, simulated microphone), then
// ffmpeg encodes the same number of the same frames with a tone of the same length, fed
// once as fast as it reads (batch) and once at the recording's frame rate (real time, as a
// camera feeds it); then x264 alone encodes the frames already in YUV 4:2:0, batch, without
// sound: the floor no recorder gets under. Every pair's CPU ratios are printed, then the
// medians and the spread, and the peak resident memory.
//
// usage: speed_bench [--seconds 20] [--pairs 5] [--sizes 1280x720,1920x1080] [--fps 30]
//                    [--bitrate 2000000] [--side both|plugin|ffmpeg] [--plugin PATH]
#include <QCommandLineParser>
#include <QCoreApplication>
#include <QRegularExpression>
#include <QStringList>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <cmath>
#include <csignal>
#include <cstdio>
#include <fstream>
#include <string>
#include <sys/resource.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>
#include <vector>

#include <opencv2/core.hpp>
#include <opencv2/imgproc.hpp>

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

// Distinct pictures the camera cycles through. Each is a new view of a panned, textured
// scene with fresh sensor noise, so that every frame costs the encoder what a camera's
// would; they are rendered before anything is measured.
constexpr int kPictures = 16;
// How far the scene moves between two pictures, pixels.
constexpr int kPanPerPicture = 6;
// Standard deviation of the per-picture sensor noise, 8-bit levels.
constexpr double kSensorNoise = 3.0;
// The simulated microphone: mono, this rate (Hz), a tone of this frequency (Hz).
constexpr unsigned kSampleRate = 48000;
constexpr double kToneHz = 1000.0;
// How often the ffmpeg process's peak resident size is read while it runs.
constexpr std::chrono::milliseconds kPeakPollPeriod{10};
// Longest a recording may take to finish after stopRecord.
constexpr std::chrono::minutes kStopTimeout{5};
// The acceptance bounds the summary checks: median CPU ratio to the command line fed in
// real time and to the batch one; the plugin's growth may not pass the command line's peak.
constexpr double kMaxRealTimeRatio = 0.90;
constexpr double kMaxBatchRatio = 1.00;

// Bounds of the options' values.
constexpr double kMinSeconds = 1;
constexpr double kMaxSeconds = 3600;
constexpr int kMaxFps = 240;
constexpr long long kMaxBitrate = 200000000; // bit/s
constexpr int kMaxPairs = 1000;

struct Options {
    double seconds = 20;
    int pairs = 5;
    std::vector<std::pair<int, int>> sizes{{1280, 720}, {1920, 1080}};
    int fps = 30;
    unsigned bitrate = 2000000;
    QString side = QStringLiteral("both"); // both, or one side alone (for a profiler)
    QString plugin = QStringLiteral(RECORDER_PLUGIN_PATH);
};

// What one recording through the plugin cost; sent from its process through a pipe.
struct PluginRun {
    bool ok = false;
    double cpuSeconds = 0;  // the process's CPU from startRecord until the file was done
    double wallSeconds = 0; // from the start answer to stopRecord
    long frames = 0;        // video frames in the file
    long dropped = 0;       // frames the encoder's full queue dropped
    long startKiB = 0;      // resident size just before startRecord (frames, plugin loaded)
    long peakKiB = 0;       // peak resident size of the process
};

// How the command line is fed and what it encodes.
enum class Reference {
    Batch,    // the camera's BGR frames and the tone, written as fast as it reads them
    RealTime, // the same, one frame per frame period
    X264,     // the frames already in YUV 4:2:0, batch, no sound
};

// What one ffmpeg command line run cost.
struct FfmpegRun {
    bool ok = false;
    double cpuSeconds = 0; // user + system of the ffmpeg process
    long peakKiB = 0;      // its VmHWM, the largest read while it ran
};

double cpuSeconds(const rusage &u)
{
    return u.ru_utime.tv_sec + u.ru_stime.tv_sec + (u.ru_utime.tv_usec + u.ru_stime.tv_usec) / 1e6;
}

double selfCpuSeconds()
{
    rusage u{};
    getrusage(RUSAGE_SELF, &u);
    return cpuSeconds(u);
}

// A "Key:   N kB" field of /proc/<pid>/status; -1 when the process or field is gone.
long statusKiB(const std::string &pid, const char *key)
{
    std::ifstream in("/proc/" + pid + "/status");
    std::string line;
    const std::string prefix = std::string(key) + ":";
    while (std::getline(in, line))
        if (line.rfind(prefix, 0) == 0)
            return std::strtol(line.c_str() + prefix.size(), nullptr, 10);
    return -1;
}

// The camera's pictures: views of a scene wider than the picture, with detail from
// blobs and sharp-edged shapes down to single pixels, panned across it, each with its own sensor noise.
std::vector<cv::Mat> renderPictures(int w, int h)
{
    cv::RNG rng(16);
    const int sceneW = w + kPanPerPicture * kPictures;
    cv::Mat coarse(h / 24 + 2, sceneW / 24 + 2, CV_8UC3);
    rng.fill(coarse, cv::RNG::UNIFORM, 0, 256);
    cv::Mat scene;
    cv::resize(coarse, scene, cv::Size(sceneW, h), 0, 0, cv::INTER_CUBIC);
    // Sharp edges, as objects in a room have.
    for (int i = 0; i < sceneW * h / 20000; ++i) {
        const cv::Point at(rng.uniform(0, sceneW), rng.uniform(0, h));
        const cv::Scalar colour(rng.uniform(0, 256), rng.uniform(0, 256), rng.uniform(0, 256));
        const int size = rng.uniform(4, h / 12);
        if (i % 2)
            cv::rectangle(scene, cv::Rect(at.x, at.y, size, size * 2 / 3), colour, cv::FILLED);
        else
            cv::circle(scene, at, size / 2, colour, 2, cv::LINE_AA);
    }
    cv::Mat texture(h, sceneW, CV_8UC3);
    rng.fill(texture, cv::RNG::NORMAL, 128, 24);
    cv::addWeighted(scene, 0.8, texture, 0.4, -128 * 0.4, scene);
    std::vector<cv::Mat> pictures;
    cv::Mat noise(h, w, CV_16SC3);
    for (int i = 0; i < kPictures; ++i) {
        cv::Mat view;
        scene(cv::Rect(i * kPanPerPicture, 0, w, h)).convertTo(view, CV_16SC3);
        rng.fill(noise, cv::RNG::NORMAL, 0, kSensorNoise);
        view += noise;
        cv::Mat picture;
        view.convertTo(picture, CV_8UC3);
        cv::putText(picture, std::to_string(i), cv::Point(w / 8 + 8 * i, h / 2),
                    cv::FONT_HERSHEY_SIMPLEX, h / 240.0, cv::Scalar(255, 255, 255), 3);
        pictures.push_back(picture);
    }
    return pictures;
}

// Records `seconds` through the plugin into `file`. Runs in a process of its own, so
// that its peak memory is this recording's.
PluginRun recordWithPlugin(const Options &o, const std::vector<cv::Mat> &pictures, int w, int h,
                           const std::string &file)
{
    PluginRun r;
    int argc = 1;
    char name[] = "speed_bench";
    char *argv[] = {name, nullptr};
    QCoreApplication app(argc, argv);
    fakealsa::reset();
    simulatedmic::addCameraMicrophone(kSampleRate, 1, kToneHz);
    CyclingCamera camera(pictures, o.fps);
    QtMessageCollector log;
    LoadedRecorder rec(o.plugin);
    if (!rec.loaded()) {
        std::fprintf(stderr, "cannot load the plugin: %s\n", qPrintable(rec.error()));
        return r;
    }
    rec->setPluginComponent(&camera);
    rec->setFilename(QString::fromStdString(file));
    rec->vSetRecSize(w, h);
    rec->setFps(o.fps);
    rec->setVideoBitrate(o.bitrate);

    r.startKiB = statusKiB("self", "VmRSS");
    const double cpu0 = selfCpuSeconds();
    bool started = false, stopped = false;
    Clock::time_point t0, t1;
    // The recorder's own lines are not the report: kept to explain a failure.
    const std::string said = testutil::captureStderr([&] {
        testutil::captureStdout([&] {
            rec->startRecord();
            started = rec->waitForRecordStart(20000);
            t0 = Clock::now();
            if (started)
                std::this_thread::sleep_for(std::chrono::duration<double>(o.seconds));
            t1 = Clock::now();
            stopped = rec.stopAndWait(kStopTimeout);
        });
    });
    r.cpuSeconds = selfCpuSeconds() - cpu0;
    r.peakKiB = statusKiB("self", "VmHWM");
    r.wallSeconds = std::chrono::duration<double>(t1 - t0).count();

    MediaFile f;
    std::string err;
    if (!started || !stopped || !readMediaFile(file, f, &err, false)) {
        std::fprintf(stderr, "%dx%d: no finished recording: %s\n%s", w, h, err.c_str(),
                     said.c_str());
        return r;
    }
    r.frames = f.video() ? long(f.video()->packetPts.size()) : 0;
    const QRegularExpression drops(QStringLiteral("(\\d+) video frames dropped"));
    for (const QString &m : log.messages())
        if (const auto match = drops.match(m); match.hasMatch())
            r.dropped = match.captured(1).toLong();
    r.ok = r.frames > 0;
    return r;
}

// recordWithPlugin in a child process; its result comes back through a pipe.
PluginRun recordInChild(const Options &o, const std::vector<cv::Mat> &pictures, int w, int h,
                        const std::string &file)
{
    int fds[2];
    if (pipe(fds) != 0) {
        std::perror("pipe");
        return {};
    }
    std::fflush(stdout);
    std::fflush(stderr);
    const pid_t child = fork();
    if (child < 0) {
        std::perror("fork");
        return {};
    }
    if (child == 0) {
        close(fds[0]);
        const PluginRun r = recordWithPlugin(o, pictures, w, h, file);
        const bool sent = write(fds[1], &r, sizeof r) == ssize_t(sizeof r);
        _exit(sent ? 0 : 1);
    }
    close(fds[1]);
    PluginRun r;
    if (read(fds[0], &r, sizeof r) != ssize_t(sizeof r))
        r = PluginRun{};
    close(fds[0]);
    int status = 0;
    waitpid(child, &status, 0);
    return r;
}

// Encodes `frames` of the pictures (in the camera's order) and a tone as long with the
// ffmpeg command line at the plugin's settings: x264 superfast, zerolatency, GOP 12, the
// bit rate, yuv420p; AAC 64 kbit/s mono.
FfmpegRun encodeWithFfmpeg(const Options &o, const std::vector<cv::Mat> &pictures, int w, int h,
                           long frames, const std::string &file, Reference reference)
{
    FfmpegRun r;
    const std::string size = std::to_string(w) + "x" + std::to_string(h);
    const std::string duration = std::to_string(double(frames) / o.fps);
    const std::string rate = std::to_string(o.fps);
    const std::string bitrate = std::to_string(o.bitrate);
    const std::string sine = "sine=frequency=" + std::to_string(int(kToneHz)) + ":sample_rate="
        + std::to_string(kSampleRate) + ":duration=" + duration;
    const bool yuv = reference == Reference::X264;
    std::vector<std::string> args = {"ffmpeg", "-nostdin", "-loglevel", "error", "-y",
                                     "-f", "rawvideo", "-pix_fmt", yuv ? "yuv420p" : "bgr24",
                                     "-s", size, "-r", rate, "-i", "pipe:0"};
    const std::vector<std::string> video = {"-c:v", "libx264", "-preset", "superfast",
                                            "-tune", "zerolatency", "-g", "12", "-b:v", bitrate,
                                            "-pix_fmt", "yuv420p"};
    const std::vector<std::string> sound = {"-f", "lavfi", "-i", sine, "-c:a", "aac",
                                            "-b:a", "64000", "-ac", "1"};
    if (!yuv)
        args.insert(args.end(), sound.begin(), sound.begin() + 4);
    args.insert(args.end(), video.begin(), video.end());
    if (yuv)
        args.push_back("-an");
    else
        args.insert(args.end(), sound.begin() + 4, sound.end());
    args.push_back(file);
    std::vector<char *> argv;
    for (std::string &a : args)
        argv.push_back(a.data());
    argv.push_back(nullptr);

    int fds[2];
    if (pipe(fds) != 0) {
        std::perror("pipe");
        return r;
    }
    std::fflush(stdout);
    std::fflush(stderr);
    const pid_t child = fork();
    if (child < 0) {
        std::perror("fork");
        return r;
    }
    if (child == 0) {
        dup2(fds[0], STDIN_FILENO);
        close(fds[0]);
        close(fds[1]);
        execvp("ffmpeg", argv.data());
        std::perror("ffmpeg");
        _exit(127);
    }
    close(fds[0]);
    // The peak is read from ffmpeg's own status: its rusage would carry over this
    // process's peak, which its exec started from.
    const std::string pid = std::to_string(child);
    std::atomic<bool> running{true};
    std::thread watcher([&] {
        while (running) {
            r.peakKiB = std::max(r.peakKiB, statusKiB(pid, "VmHWM"));
            std::this_thread::sleep_for(kPeakPollPeriod);
        }
    });
    bool fed = true;
    const auto start = Clock::now();
    const auto period = std::chrono::duration_cast<Clock::duration>(std::chrono::seconds(1)) / o.fps;
    for (long i = 0; i < frames && fed; ++i) {
        if (reference == Reference::RealTime)
            std::this_thread::sleep_until(start + i * period);
        const cv::Mat &p = pictures[i % pictures.size()];
        const size_t bytes = p.total() * p.elemSize();
        for (size_t done = 0; done < bytes && fed;) {
            const ssize_t n = write(fds[1], p.data + done, bytes - done);
            fed = n > 0 || (n < 0 && errno == EINTR);
            done += n > 0 ? size_t(n) : 0;
        }
    }
    close(fds[1]);
    // Read until the process has exited (a zombie's status has no memory lines).
    int status = 0;
    rusage usage{};
    pid_t done = 0;
    while ((done = wait4(child, &status, WNOHANG, &usage)) == 0) {
        r.peakKiB = std::max(r.peakKiB, statusKiB(pid, "VmHWM"));
        std::this_thread::sleep_for(kPeakPollPeriod);
    }
    running = false;
    watcher.join();
    r.cpuSeconds = cpuSeconds(usage);
    r.ok = fed && done == child && WIFEXITED(status) && WEXITSTATUS(status) == 0;
    return r;
}

// Median, smallest and largest of `values`.
struct Spread {
    double median = 0, min = 0, max = 0;
};

Spread spreadOf(std::vector<double> values)
{
    Spread s;
    if (values.empty())
        return s;
    std::sort(values.begin(), values.end());
    const size_t n = values.size();
    s.median = n % 2 ? values[n / 2] : (values[n / 2 - 1] + values[n / 2]) / 2;
    s.min = values.front();
    s.max = values.back();
    return s;
}

double mib(long kib)
{
    return kib / 1024.0;
}

// The camera's pictures as x264 takes them: YUV 4:2:0, planes one after the other.
std::vector<cv::Mat> inYuv420(const std::vector<cv::Mat> &pictures)
{
    std::vector<cv::Mat> yuv(pictures.size());
    for (size_t i = 0; i < pictures.size(); ++i)
        cv::cvtColor(pictures[i], yuv[i], cv::COLOR_BGR2YUV_I420);
    return yuv;
}

// The line of one spread of ratios, and whether its median is within `bound`.
bool printRatio(const char *what, const std::vector<double> &ratios, double bound)
{
    const Spread r = spreadOf(ratios);
    const bool ok = r.median <= bound;
    std::printf("  CPU ratio plugin / %s: median %.2f (min %.2f, max %.2f over %zu pairs); "
                "at most %.2f: %s\n",
                what, r.median, r.min, r.max, ratios.size(), bound, ok ? "yes" : "NO");
    return ok;
}

// The pairs of one size; false when a run failed or a bound was not met.
bool benchSize(const Options &o, int w, int h)
{
    const std::vector<cv::Mat> pictures = renderPictures(w, h);
    const std::vector<cv::Mat> yuvPictures = inYuv420(pictures);
    const double picturesMiB = kPictures * double(w) * h * 3 / (1024 * 1024);
    testutil::TempDir dir;
    std::printf("%dx%d@%d, %u bit/s, %d pairs of %.0f s\n", w, h, o.fps, o.bitrate, o.pairs,
                o.seconds);
    std::vector<double> batchRatios, realTimeRatios, floorRatios, pluginPeaks, ffmpegPeaks,
        wholePeaks;
    bool ok = true;
    for (int pair = 1; pair <= o.pairs; ++pair) {
        const std::string pluginFile = dir.file("plugin.mp4");
        const std::string ffmpegFile = dir.file("ffmpeg.mp4");
        PluginRun p;
        long frames = std::lround(o.seconds * o.fps);
        if (o.side != QLatin1String("ffmpeg")) {
            p = recordInChild(o, pictures, w, h, pluginFile);
            if (!p.ok) {
                std::printf("  pair %d: the recording failed\n", pair);
                ok = false;
                continue;
            }
            frames = p.frames;
        }
        FfmpegRun batch, realTime, x264;
        if (o.side != QLatin1String("plugin")) {
            batch = encodeWithFfmpeg(o, pictures, w, h, frames, ffmpegFile, Reference::Batch);
            realTime = encodeWithFfmpeg(o, pictures, w, h, frames, ffmpegFile, Reference::RealTime);
            x264 = encodeWithFfmpeg(o, yuvPictures, w, h, frames, ffmpegFile, Reference::X264);
            if (!batch.ok || !realTime.ok || !x264.ok) {
                std::printf("  pair %d: the ffmpeg command line failed\n", pair);
                ok = false;
                continue;
            }
        }
        const double content = double(frames) / o.fps;
        std::printf("  pair %d:", pair);
        if (o.side != QLatin1String("ffmpeg")) {
            std::printf(" plugin %.3f CPU s/s (%ld frames in %.1f s, %ld dropped), peak +%.1f MiB;",
                        p.cpuSeconds / content, p.frames, p.wallSeconds, p.dropped,
                        mib(p.peakKiB - p.startKiB));
            pluginPeaks.push_back(mib(p.peakKiB - p.startKiB));
            wholePeaks.push_back(mib(p.peakKiB) - picturesMiB);
        }
        if (o.side != QLatin1String("plugin")) {
            std::printf(" ffmpeg batch %.3f, real time %.3f CPU s/s, peak %.1f MiB; x264 alone %.3f;",
                        batch.cpuSeconds / content, realTime.cpuSeconds / content,
                        mib(std::max(batch.peakKiB, realTime.peakKiB)), x264.cpuSeconds / content);
            ffmpegPeaks.push_back(mib(std::max(batch.peakKiB, realTime.peakKiB)));
        }
        if (o.side == QLatin1String("both")) {
            batchRatios.push_back(p.cpuSeconds / batch.cpuSeconds);
            realTimeRatios.push_back(p.cpuSeconds / realTime.cpuSeconds);
            floorRatios.push_back(x264.cpuSeconds / p.cpuSeconds);
            std::printf(" ratios: real time %.2f, batch %.2f; x264 alone %.2f of the plugin",
                        realTimeRatios.back(), batchRatios.back(), floorRatios.back());
        }
        std::printf("\n");
        std::fflush(stdout);
    }
    if (o.side != QLatin1String("both") || batchRatios.empty())
        return ok;
    const bool realTimeOk = printRatio("real-time ffmpeg", realTimeRatios, kMaxRealTimeRatio);
    const bool batchOk = printRatio("batch ffmpeg", batchRatios, kMaxBatchRatio);
    const Spread floor = spreadOf(floorRatios);
    std::printf("  floor, x264 alone on YUV frames / plugin: median %.2f (min %.2f, max %.2f)\n",
                floor.median, floor.min, floor.max);
    const Spread plugin = spreadOf(pluginPeaks);
    const Spread whole = spreadOf(wholePeaks);
    const Spread ffmpeg = spreadOf(ffmpegPeaks);
    const bool peakOk = plugin.median <= ffmpeg.median;
    std::printf("  peak RSS plugin (over its start): median %.1f MiB, max %.1f MiB\n",
                plugin.median, plugin.max);
    std::printf("  peak RSS plugin (whole process less the camera's %.1f MiB): median %.1f MiB, "
                "max %.1f MiB\n",
                picturesMiB, whole.median, whole.max);
    std::printf("  peak RSS ffmpeg CLI (whole process, the larger of batch and real time): "
                "median %.1f MiB, min %.1f MiB, max %.1f MiB\n",
                ffmpeg.median, ffmpeg.min, ffmpeg.max);
    std::printf("  plugin's median peak (over its start) at most ffmpeg's: %s\n",
                peakOk ? "yes" : "NO");
    std::fflush(stdout);
    return ok && realTimeOk && batchOk && peakOk;
}

Options parseOptions()
{
    QCommandLineParser p;
    p.addOptions({
        {QStringLiteral("seconds"), QStringLiteral("Seconds each recording lasts (20)."),
         QStringLiteral("N")},
        {QStringLiteral("pairs"), QStringLiteral("Plugin / ffmpeg pairs per size (5)."),
         QStringLiteral("N")},
        {QStringLiteral("sizes"), QStringLiteral("Recording sizes (1280x720,1920x1080)."),
         QStringLiteral("WxH,...")},
        {QStringLiteral("fps"), QStringLiteral("Camera and recording frame rate (30)."),
         QStringLiteral("N")},
        {QStringLiteral("bitrate"), QStringLiteral("Video bit rate in bit/s (2000000)."),
         QStringLiteral("N")},
        {QStringLiteral("side"),
         QStringLiteral("both, or plugin / ffmpeg alone, e.g. under a profiler (both)."),
         QStringLiteral("SIDE")},
        {QStringLiteral("plugin"), QStringLiteral("The plugin library to load."),
         QStringLiteral("PATH")},
    });
    commandline::parseOrExit(p, QStringLiteral("Compares the CPU and memory of recordings "
                                               "through the built plugin with the ffmpeg "
                                               "command line on the same frames."));
    Options o;
    commandline::readNumber(p, QStringLiteral("seconds"), o.seconds, kMinSeconds, kMaxSeconds);
    commandline::readInteger(p, QStringLiteral("pairs"), o.pairs, 1, kMaxPairs);
    commandline::readSizes(p, QStringLiteral("sizes"), o.sizes);
    commandline::readInteger(p, QStringLiteral("fps"), o.fps, 1, kMaxFps);
    commandline::readInteger(p, QStringLiteral("bitrate"), o.bitrate, 1, kMaxBitrate);
    commandline::readChoice(p, QStringLiteral("side"), o.side,
                            {QStringLiteral("both"), QStringLiteral("plugin"),
                             QStringLiteral("ffmpeg")});
    if (p.isSet(QStringLiteral("plugin")))
        o.plugin = p.value(QStringLiteral("plugin"));
    return o;
}

} // namespace

int main(int argc, char **argv)
{
    Options o;
    {
        // Each recording runs in a process of its own with its own application object.
        QCoreApplication app(argc, argv);
        o = parseOptions();
    }
    // No worker threads in this process: the recordings are forked from it.
    cv::setNumThreads(0);
    // A command line that dies must fail its run, not end the benchmark.
    std::signal(SIGPIPE, SIG_IGN);
    std::printf("CPU: the recording process from startRecord until the file is finished, and "
                "the ffmpeg process, each per second of video in its file.\n"
                "Peak RSS: the plugin's is the recording process's peak less its resident size "
                "just before startRecord\n(camera pictures rendered, plugin loaded); "
                "ffmpeg's is its whole process's, read every %lld ms.\n"
                "Camera: %d pre-rendered textured pictures (a panned scene with sensor "
                "noise), cycled; ffmpeg reads the same ones from a pipe, batch and at the "
                "frame rate;\nx264 alone reads them in YUV 4:2:0, batch, without sound.\n",
                static_cast<long long>(kPeakPollPeriod.count()), kPictures);
    bool ok = true;
    for (const auto &[w, h] : o.sizes)
        ok = benchSize(o, w, h) && ok;
    return ok ? 0 : 1;
}
