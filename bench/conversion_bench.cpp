// BGR camera pictures to YUV 4:2:0 per frame at 720p and 1080p: the recording's converter
// (libyuv), OpenCV's cvtColor (the earlier one, OpenCV's own threads) and swscale (default
// flags); and a 1080p host picture recorded at 720p: the recording's converter against
// swscale's fast bilinear scaler (the earlier scaled path). Interleaved rounds; per
// converter the median wall and CPU milliseconds a frame over the rounds with the range
// beside each, and at the same size the chroma's mean distance from the exact mean of
// each 2x2 block.
//
#include <QCommandLineParser>
#include <QCoreApplication>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <functional>
#include <string>
#include <time.h>
#include <vector>

#include <opencv2/core.hpp>
#include <opencv2/imgproc.hpp>

#include "commandline.h"
#include "media/frameconverter.h"

extern "C" {
#include <libswscale/swscale.h>
}

namespace {

using Clock = std::chrono::steady_clock;
// Distinct noise pictures cycled through, made before the clock starts.
constexpr int kPictures = 8;
// Bounds of the options' values.
constexpr int kMaxFrames = 100000;
constexpr int kMaxRounds = 1000;

// One converter: fills `out` (I420, packed planes) from a BGR picture of its size.
struct Converter {
    const char *name;
    std::function<bool(const cv::Mat &bgr, uint8_t *out)> convert;
};

// Packed I420 planes of a width x height picture.
struct I420 {
    int width, height;
    std::vector<uint8_t> bytes;
    I420(int w, int h) : width(w), height(h), bytes(size_t(w) * h * 3 / 2) {}
    uint8_t *u() { return bytes.data() + size_t(width) * height; }
};

// The recording's path: a pooled picture, then copied out for the accuracy figure only.
Converter recording(FrameConverter &fc, int w, int h, bool copyOut)
{
    return {"libyuv (recording)", [&fc, w, h, copyOut](const cv::Mat &bgr, uint8_t *out) {
                const EncoderPicture p = fc.convert(bgr, w, h);
                if (p && copyOut)
                    std::copy(p->buf[0]->data, p->buf[0]->data + size_t(w) * h * 3 / 2, out);
                return bool(p);
            }};
}

Converter opencv(int w, int h)
{
    return {"OpenCV cvtColor", [w, h](const cv::Mat &bgr, uint8_t *out) {
                cv::Mat planes(h * 3 / 2, w, CV_8UC1, out);
                cv::cvtColor(bgr, planes, cv::COLOR_BGR2YUV_I420);
                return planes.data == out;
            }};
}

Converter swscale(const char *name, SwsContext *sws, int w, int h)
{
    return {name, [sws, w, h](const cv::Mat &bgr, uint8_t *out) {
                const uint8_t *src[1] = {bgr.data};
                const int srcStride[1] = {static_cast<int>(bgr.step[0])};
                uint8_t *dst[3] = {out, out + size_t(w) * h, out + size_t(w) * h * 5 / 4};
                const int dstStride[3] = {w, w / 2, w / 2};
                return sws_scale(sws, src, srcStride, 0, bgr.rows, dst, dstStride) == h;
            }};
}

// Mean distance of U and V from BT.601's limited-range chroma of each 2x2 block's mean.
double chromaError(const cv::Mat &bgr, I420 &yuv)
{
    const int cw = yuv.width / 2, chh = yuv.height / 2;
    const uint8_t *u = yuv.u();
    const uint8_t *v = u + size_t(cw) * chh;
    double sum = 0;
    for (int y = 0; y < chh; ++y)
        for (int x = 0; x < cw; ++x) {
            double b = 0, g = 0, r = 0;
            for (int dy = 0; dy < 2; ++dy)
                for (int dx = 0; dx < 2; ++dx) {
                    const cv::Vec3b p = bgr.at<cv::Vec3b>(2 * y + dy, 2 * x + dx);
                    b += p[0] / 4.0;
                    g += p[1] / 4.0;
                    r += p[2] / 4.0;
                }
            const double luma = 0.299 * r + 0.587 * g + 0.114 * b;
            const double wantU = 128 + 224 * (b - luma) / (1.772 * 255);
            const double wantV = 128 + 224 * (r - luma) / (1.402 * 255);
            sum += std::abs(u[size_t(y) * cw + x] - wantU) + std::abs(v[size_t(y) * cw + x] - wantV);
        }
    return sum / (2.0 * cw * chh);
}

double median(std::vector<double> v)
{
    std::sort(v.begin(), v.end());
    return v[v.size() / 2];
}

// The process's CPU time, milliseconds (all its threads: OpenCV converts on several).
double cpuMs()
{
    timespec t{};
    clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &t);
    return t.tv_sec * 1e3 + t.tv_nsec / 1e6;
}

// Wall and CPU milliseconds a frame over `frames` conversions.
struct Cost {
    double wall = -1, cpu = -1; // -1: a conversion failed
};

Cost msPerFrame(const Converter &c, const std::vector<cv::Mat> &pictures, I420 &out, int frames)
{
    const auto t0 = Clock::now();
    const double cpu0 = cpuMs();
    for (int i = 0; i < frames; ++i)
        if (!c.convert(pictures[i % kPictures], out.bytes.data()))
            return {};
    return {std::chrono::duration<double, std::milli>(Clock::now() - t0).count() / frames,
            (cpuMs() - cpu0) / frames};
}

// One comparison: host pictures of `host` size recorded at w x h.
struct Case {
    cv::Size host;
    int w, h;
};

// 1 when a converter failed.
int benchCase(const Case &c, int frames, int rounds)
{
    const int w = c.w, h = c.h;
    const bool scaled = c.host != cv::Size(w, h);
    std::vector<cv::Mat> pictures(kPictures);
    for (cv::Mat &p : pictures) {
        p.create(c.host, CV_8UC3);
        cv::randu(p, 0, 256);
    }
    FrameConverter fc;
    SwsContext *sws = sws_getContext(c.host.width, c.host.height, AV_PIX_FMT_BGR24, w, h,
                                     AV_PIX_FMT_YUV420P, scaled ? SWS_FAST_BILINEAR : SWS_BICUBIC,
                                     nullptr, nullptr, nullptr);
    if (!sws) {
        std::printf("%dx%d: cannot make the scaler\n", w, h);
        return 1;
    }
    const char *swsName = scaled ? "swscale (fast bilin.)" : "swscale (bicubic)";
    std::vector<Converter> timed = {recording(fc, w, h, false), swscale(swsName, sws, w, h)};
    std::vector<Converter> checked = {recording(fc, w, h, true), swscale(swsName, sws, w, h)};
    if (!scaled) {
        timed.push_back(opencv(w, h));
        checked.push_back(opencv(w, h));
    }
    std::vector<std::vector<double>> wall(timed.size()), cpu(timed.size());
    I420 out(w, h);
    int failures = 0;
    // Each round starts with the next converter, so none always runs on a warm cache.
    for (int r = 0; r < rounds; ++r)
        for (size_t k = 0; k < timed.size(); ++k) {
            const size_t i = (r + k) % timed.size();
            const Cost t = msPerFrame(timed[i], pictures, out, frames);
            failures += t.wall < 0;
            wall[i].push_back(t.wall);
            cpu[i].push_back(t.cpu);
        }
    for (size_t i = 0; i < timed.size(); ++i) {
        I420 yuv(w, h);
        const bool ok = !scaled && checked[i].convert(pictures[0], yuv.bytes.data());
        std::sort(wall[i].begin(), wall[i].end());
        std::sort(cpu[i].begin(), cpu[i].end());
        std::printf("%4dx%-4d -> %4dx%-4d  %-22s wall %6.3f ms (%.3f-%.3f)  CPU %6.3f ms (%.3f-%.3f)",
                    c.host.width, c.host.height, w, h, timed[i].name, median(wall[i]),
                    wall[i].front(), wall[i].back(), median(cpu[i]), cpu[i].front(), cpu[i].back());
        if (ok)
            std::printf("   chroma error %.2f", chromaError(pictures[0], yuv));
        std::printf("\n");
    }
    sws_freeContext(sws);
    return failures ? 1 : 0;
}

} // namespace

int main(int argc, char **argv)
{
    QCoreApplication app(argc, argv);
    QCommandLineParser p;
    p.addOptions({
        {QStringLiteral("frames"), QStringLiteral("Frames a converter converts in a round (100)."),
         QStringLiteral("N")},
        {QStringLiteral("rounds"), QStringLiteral("Interleaved rounds (9)."), QStringLiteral("N")},
    });
    commandline::parseOrExit(p, QStringLiteral("Times BGR to YUV 4:2:0 conversions per frame."));
    int frames = 100;
    int rounds = 9;
    commandline::readInteger(p, QStringLiteral("frames"), frames, 1, kMaxFrames);
    commandline::readInteger(p, QStringLiteral("rounds"), rounds, 1, kMaxRounds);
    std::printf("%d rounds of %d noise frames per converter; OpenCV threads: %d\n", rounds, frames,
                cv::getNumThreads());
    int failures = 0;
    const Case cases[] = {{{1280, 720}, 1280, 720}, {{1920, 1080}, 1920, 1080}, {{1920, 1080}, 1280, 720}};
    for (const Case &c : cases)
        failures += benchCase(c, frames, rounds);
    return failures ? 1 : 0;
}
