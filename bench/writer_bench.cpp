// Encodes the same synthetic BGR frames through FFmpegApi::write_video and through the
// ffmpeg command line with the same encoder settings, in one run, and prints frames per
// second of each and their ratio.
//
// usage: writer_bench [--frames N] [--bitrate N]
#include <QCommandLineParser>
#include <QCoreApplication>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <unistd.h>
#include <vector>

#include "commandline.h"
#include "media/ffmpegapi.h"
#include "syntheticcamera.h"

namespace {

using Clock = std::chrono::steady_clock;
constexpr int kFps = 30;
// Distinct pictures cycled through, rendered before the clock starts.
constexpr int kPictures = 30;
// Bounds of the options' values.
constexpr int kMaxFrames = 100000;
constexpr int kMaxBitrate = 200000000; // bit/s

std::vector<cv::Mat> render(int w, int h)
{
    std::vector<cv::Mat> frames;
    for (int i = 0; i < kPictures; ++i)
        frames.push_back(SyntheticCamera::makeFrame(w, h, i, i * 33));
    return frames;
}

// Frames per second through the writer; -1 on failure.
double writerFps(const std::vector<cv::Mat> &pictures, int w, int h, int frames, int bitrate,
                 std::string path)
{
    FFmpegApi writer;
    writer.setHasAudio(false);
    fflush(stdout);
    const int saved = dup(STDOUT_FILENO); // the writer's own lines are not the report
    freopen("/dev/null", "w", stdout);
    const auto t0 = Clock::now();
    bool ok = writer.open(path.data(), bitrate, kFps, w, h, 1, 48000) == 0;
    for (int i = 0; ok && i < frames; ++i)
        ok = writer.write_video(pictures[i % kPictures]) == 0;
    if (ok)
        writer.flush();
    const double secs = std::chrono::duration<double>(Clock::now() - t0).count();
    fflush(stdout);
    dup2(saved, STDOUT_FILENO);
    close(saved);
    return ok ? frames / secs : -1;
}

// Frames per second through `ffmpeg` reading raw bgr24 from a pipe; -1 on failure.
double cliFps(const std::vector<cv::Mat> &pictures, int w, int h, int frames, int bitrate,
              const std::string &path)
{
    const std::string cmd = "ffmpeg -loglevel error -y -f rawvideo -pix_fmt bgr24 -s "
        + std::to_string(w) + "x" + std::to_string(h) + " -r " + std::to_string(kFps)
        + " -i - -c:v libx264 -preset superfast -tune zerolatency -g 12 -b:v "
        + std::to_string(bitrate) + " -pix_fmt yuv420p " + path;
    const auto t0 = Clock::now();
    FILE *pipe = popen(cmd.c_str(), "w");
    if (!pipe)
        return -1;
    bool ok = true;
    for (int i = 0; ok && i < frames; ++i) {
        const cv::Mat &f = pictures[i % kPictures];
        ok = fwrite(f.data, 1, f.total() * f.elemSize(), pipe) == f.total() * f.elemSize();
    }
    ok = pclose(pipe) == 0 && ok;
    const double secs = std::chrono::duration<double>(Clock::now() - t0).count();
    return ok ? frames / secs : -1;
}

} // namespace

int main(int argc, char **argv)
{
    QCoreApplication app(argc, argv);
    QCommandLineParser p;
    p.addOptions({
        {QStringLiteral("frames"), QStringLiteral("Frames to encode at each size (150)."),
         QStringLiteral("N")},
        {QStringLiteral("bitrate"), QStringLiteral("Video bit rate in bit/s (2000000)."),
         QStringLiteral("N")},
    });
    commandline::parseOrExit(p, QStringLiteral("Encodes the same frames through the media "
                                               "writer and the ffmpeg command line."));
    int frames = 150;
    int bitrate = 2000000;
    commandline::readInteger(p, QStringLiteral("frames"), frames, 1, kMaxFrames);
    commandline::readInteger(p, QStringLiteral("bitrate"), bitrate, 1, kMaxBitrate);
    char dir[] = "/tmp/writer-bench-XXXXXX";
    if (!mkdtemp(dir))
        return 1;
    std::printf("libx264 superfast/zerolatency, GOP 12, %d bit/s, %d frames at %d fps\n", bitrate,
                frames, kFps);
    int failures = 0;
    for (const auto &[w, h] : std::vector<std::pair<int, int>>{{1024, 768}, {1920, 1080}}) {
        const std::vector<cv::Mat> pictures = render(w, h);
        const double ours = writerFps(pictures, w, h, frames, bitrate, std::string(dir) + "/w.mp4");
        const double ref = cliFps(pictures, w, h, frames, bitrate, std::string(dir) + "/c.mp4");
        if (ours < 0 || ref < 0) {
            std::printf("%dx%d: a run failed (writer %.1f, ffmpeg %.1f)\n", w, h, ours, ref);
            ++failures;
            continue;
        }
        std::printf("%4dx%-4d  write_video %6.1f fps   ffmpeg CLI %6.1f fps   ratio %.2f\n", w, h,
                    ours, ref, ours / ref);
    }
    std::system((std::string("rm -rf ") + dir).c_str());
    return failures ? 1 : 0;
}
