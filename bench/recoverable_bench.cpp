// What recoverable files cost: the same frames and sound written (a) with the index at the
// end, as the writer did before, (b) recoverable (fragmented, flushed per packet, synced
// every second), and (c) the rewrite of (b)'s file into a standard MP4 alone. Runs are
// interleaved; each figure is the median over the repeats with the range beside it.
//
// usage: bench_recoverable [--seconds S] [--repeats N] [--size WxH] [--bitrate N] [--dir D]
#include <QCoreApplication>
#include <QCommandLineParser>
#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <sys/resource.h>
#include <unistd.h>
#include <vector>

#include "media/ffmpegapi.h"
#include "media/standardmp4.h"
#include "commandline.h"
#include "syntheticcamera.h"

extern "C" {
#include <libavutil/log.h>
}

namespace {

using Clock = std::chrono::steady_clock;
constexpr int kFps = 30;
constexpr int kRate = 48000;
// Distinct pictures cycled through, rendered before the clock starts.
constexpr int kPictures = 30;
// Bounds of the options.
constexpr double kMinSeconds = 1;
constexpr double kMaxSeconds = 7200;
constexpr int kMaxRepeats = 100;
constexpr long long kMaxBitrate = 200000000; // bit/s

struct Settings {
    double seconds = 20;
    int repeats = 3;
    int width = 1920;
    int height = 1080;
    int bitrate = 4000000;
    std::string dir = "/tmp";
};

struct Cost {
    double wall = 0;        // seconds
    double cpu = 0;         // seconds of user + system time, all threads
    double longestCall = 0; // seconds: the slowest write_video or write_audio call
    double bytes = 0;       // size of the file made
};

double cpuSeconds()
{
    rusage u;
    getrusage(RUSAGE_SELF, &u);
    return u.ru_utime.tv_sec + u.ru_utime.tv_usec / 1e6 + u.ru_stime.tv_sec + u.ru_stime.tv_usec / 1e6;
}

// Runs `body` with standard output (the writer's own lines) sent to /dev/null.
template <typename F>
void quietly(F body)
{
    fflush(stdout);
    const int saved = dup(STDOUT_FILENO);
    if (!freopen("/dev/null", "w", stdout))
        return;
    body();
    fflush(stdout);
    dup2(saved, STDOUT_FILENO);
    close(saved);
}

// Writes the recording into `path` in `mode` (without the rewrite) and measures it.
bool writeRecording(const Settings &s, const std::vector<cv::Mat> &pictures,
                    FFmpegApi::WriteMode mode, const std::string &path, Cost &cost)
{
    const int frames = int(std::lround(s.seconds * kFps));
    std::vector<int16_t> block;
    bool ok = true;
    quietly([&] {
        FFmpegApi writer;
        writer.setWriteMode(mode);
        std::string name = path;
        const double cpu0 = cpuSeconds();
        const auto t0 = Clock::now();
        ok = writer.open(name.data(), s.bitrate, kFps, s.width, s.height, 1, kRate) == 0;
        block.assign(size_t(writer.audioFrameSize()), 0);
        long samples = 0;
        for (int frame = 0; ok && frame < frames;) {
            const auto c0 = Clock::now();
            if (writer.encodeVideo()) {
                ok = writer.write_video(pictures[frame % kPictures]) == 0;
                ++frame;
            } else {
                for (size_t i = 0; i < block.size(); ++i)
                    block[i] = int16_t(8000 * std::sin(2 * M_PI * 440.0 * double(samples + long(i)) / kRate));
                samples += long(block.size());
                writer.write_audio(reinterpret_cast<unsigned char *>(block.data()));
            }
            cost.longestCall = std::max(cost.longestCall,
                                        std::chrono::duration<double>(Clock::now() - c0).count());
        }
        writer.flush();
        cost.wall = std::chrono::duration<double>(Clock::now() - t0).count();
        cost.cpu = cpuSeconds() - cpu0;
    });
    std::error_code ec;
    cost.bytes = double(std::filesystem::file_size(path, ec));
    return ok && !ec;
}

bool rewrite(const std::string &path, Cost &cost)
{
    std::string error;
    const double cpu0 = cpuSeconds();
    const auto t0 = Clock::now();
    const bool ok = rewriteAsStandardMp4(path, &error);
    cost.wall = std::chrono::duration<double>(Clock::now() - t0).count();
    cost.cpu = cpuSeconds() - cpu0;
    std::error_code ec;
    cost.bytes = double(std::filesystem::file_size(path, ec));
    if (!ok)
        std::fprintf(stderr, "rewrite failed: %s\n", error.c_str());
    return ok;
}

double median(std::vector<double> v)
{
    std::sort(v.begin(), v.end());
    const size_t n = v.size();
    return n % 2 ? v[n / 2] : (v[n / 2 - 1] + v[n / 2]) / 2;
}

// "median (min-max)" of one measure over the repeats.
std::string spread(const std::vector<Cost> &runs, double Cost::*field, double scale = 1)
{
    std::vector<double> v;
    for (const Cost &c : runs)
        v.push_back(c.*field * scale);
    char text[96];
    std::snprintf(text, sizeof text, "%8.2f (%.2f-%.2f)", median(v),
                  *std::min_element(v.begin(), v.end()), *std::max_element(v.begin(), v.end()));
    return text;
}

std::string ratio(const std::vector<Cost> &a, const std::vector<Cost> &b, double Cost::*field)
{
    std::vector<double> v;
    for (size_t i = 0; i < a.size(); ++i)
        v.push_back(b[i].*field / a[i].*field);
    char text[96];
    std::snprintf(text, sizeof text, "%.3f (%.3f-%.3f)", median(v),
                  *std::min_element(v.begin(), v.end()), *std::max_element(v.begin(), v.end()));
    return text;
}

} // namespace

int main(int argc, char **argv)
{
    QCoreApplication app(argc, argv);
    QCommandLineParser p;
    p.addOptions({
        {QStringLiteral("seconds"), QStringLiteral("Length of each recording in seconds (20)."),
         QStringLiteral("S")},
        {QStringLiteral("repeats"), QStringLiteral("Interleaved repeats of the three runs (3)."),
         QStringLiteral("N")},
        {QStringLiteral("size"), QStringLiteral("Picture size (1920x1080)."), QStringLiteral("WxH")},
        {QStringLiteral("bitrate"), QStringLiteral("Video bit rate in bit/s (4000000)."),
         QStringLiteral("N")},
        {QStringLiteral("dir"), QStringLiteral("Directory for the files (/tmp)."),
         QStringLiteral("DIR")},
    });
    commandline::parseOrExit(p, QStringLiteral("Writes the same recording with the index at the "
                                               "end and recoverable, and rewrites the recoverable "
                                               "one as a standard MP4."));
    Settings s;
    commandline::Size size{s.width, s.height};
    commandline::readNumber(p, QStringLiteral("seconds"), s.seconds, kMinSeconds, kMaxSeconds);
    commandline::readInteger(p, QStringLiteral("repeats"), s.repeats, 1, kMaxRepeats);
    commandline::readSize(p, QStringLiteral("size"), size);
    commandline::readInteger(p, QStringLiteral("bitrate"), s.bitrate, 1, kMaxBitrate);
    if (p.isSet(QStringLiteral("dir")))
        s.dir = p.value(QStringLiteral("dir")).toStdString();
    s.width = size.first;
    s.height = size.second;
    av_log_set_level(AV_LOG_ERROR);
    const std::string dir = s.dir + "/recoverable-bench-" + std::to_string(getpid());
    std::filesystem::create_directories(dir);
    std::printf("%dx%d at %d fps, %d bit/s, sound 48 kHz mono, %.0f s per recording, %d "
                "interleaved repeats\n",
                s.width, s.height, kFps, s.bitrate, s.seconds, s.repeats);
    std::vector<cv::Mat> pictures;
    for (int i = 0; i < kPictures; ++i)
        pictures.push_back(SyntheticCamera::makeFrame(s.width, s.height, i, i * 33));

    std::vector<Cost> plain, recoverable, rewrites;
    for (int r = 0; r < s.repeats; ++r) {
        Cost a, b, c;
        const std::string aPath = dir + "/plain.mp4", bPath = dir + "/recoverable.mp4";
        // Alternate which writer goes first, so neither always meets a warm or busy machine.
        const bool plainFirst = r % 2 == 0;
        bool ok = true;
        for (int k = 0; k < 2 && ok; ++k) {
            if ((k == 0) == plainFirst)
                ok = writeRecording(s, pictures, FFmpegApi::WriteMode::IndexAtEnd, aPath, a);
            else
                ok = writeRecording(s, pictures, FFmpegApi::WriteMode::Recoverable, bPath, b);
        }
        ok = ok && rewrite(bPath, c);
        if (!ok) {
            std::fprintf(stderr, "repeat %d failed\n", r);
            return 1;
        }
        std::printf("repeat %d: index at end %.2f s wall %.2f s CPU; recoverable %.2f s wall "
                    "%.2f s CPU; rewrite %.2f s wall %.2f s CPU for %.1f MB\n",
                    r, a.wall, a.cpu, b.wall, b.cpu, c.wall, c.cpu, c.bytes / 1e6);
        std::fflush(stdout);
        plain.push_back(a);
        recoverable.push_back(b);
        rewrites.push_back(c);
        std::filesystem::remove(aPath);
        std::filesystem::remove(bPath);
    }
    std::filesystem::remove_all(dir);

    std::printf("\nmedian (min-max) over %d repeats\n", s.repeats);
    std::printf("(a) index at end      wall s %s   CPU s %s   longest write ms %s   MB %s\n",
                spread(plain, &Cost::wall).c_str(), spread(plain, &Cost::cpu).c_str(),
                spread(plain, &Cost::longestCall, 1e3).c_str(), spread(plain, &Cost::bytes, 1e-6).c_str());
    std::printf("(b) recoverable       wall s %s   CPU s %s   longest write ms %s   MB %s\n",
                spread(recoverable, &Cost::wall).c_str(), spread(recoverable, &Cost::cpu).c_str(),
                spread(recoverable, &Cost::longestCall, 1e3).c_str(),
                spread(recoverable, &Cost::bytes, 1e-6).c_str());
    std::printf("(c) rewrite of (b)    wall s %s   CPU s %s\n", spread(rewrites, &Cost::wall).c_str(),
                spread(rewrites, &Cost::cpu).c_str());
    std::printf("(b)/(a)               wall %s   CPU %s\n", ratio(plain, recoverable, &Cost::wall).c_str(),
                ratio(plain, recoverable, &Cost::cpu).c_str());
    std::printf("(b+c)/(a)             wall ");
    std::vector<Cost> total = recoverable;
    for (size_t i = 0; i < total.size(); ++i) {
        total[i].wall += rewrites[i].wall;
        total[i].cpu += rewrites[i].cpu;
    }
    std::printf("%s   CPU %s\n", ratio(plain, total, &Cost::wall).c_str(), ratio(plain, total, &Cost::cpu).c_str());
    std::vector<double> perGb;
    for (const Cost &c : rewrites)
        perGb.push_back(c.wall / (c.bytes / 1e9));
    std::printf("rewrite: %.2f s per GB (median; %.2f-%.2f)\n", median(perGb),
                *std::min_element(perGb.begin(), perGb.end()), *std::max_element(perGb.begin(), perGb.end()));
    return 0;
}
