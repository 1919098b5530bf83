// A camera application in miniature: loads the recording plugin with QPluginLoader,
// hands it a frame source and records a clip, then says what it made.
#include <QCoreApplication>
#include <QFile>
#include <QFileInfo>
#include <QPluginLoader>
#include <QThread>
#include <QStringList>

#include <chrono>
#include <cstdio>
#include <memory>
#include <mutex>
#include <string>
#include <sys/stat.h>
#include <thread>

#include <opencv2/videoio.hpp>

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavformat/avformat.h>
}

#include "ffmpegplugin.h"
#include "media/ffmpegapi.h"
#include "syntheticcamera.h"

namespace {

struct Options {
    QString plugin = QStringLiteral(DEMO_PLUGIN_PATH);
    QString out = QStringLiteral("demo.mp4");
    long width = 1280;
    long height = 720;
    int fps = 30;
    double cameraFps = 30;
    unsigned int bitrate = 2000000;
    double seconds = 5;
    bool video = true;
    bool audio = true;
    double pauseAt = -1;
    double resumeAt = -1;
    double snapshotAt = -1;
    QString device;
};

void usage()
{
    std::puts(
        "usage: demo_host [options]\n"
        "  --out FILE         output file; its extension picks the container (demo.mp4)\n"
        "  --size WxH         recording size (1280x720)\n"
        "  --fps N            recording frame rate (30)\n"
        "  --camera-fps N     synthetic camera rate (30)\n"
        "  --bitrate N        video bit rate in bit/s (2000000)\n"
        "  --seconds S        how long to record (5)\n"
        "  --no-video | --no-audio\n"
        "  --pause-at S --resume-at S   pause and resume points, seconds into the recording\n"
        "  --snapshot-at S    queue the camera frame at S seconds to the snapshot thread\n"
        "                     (written to /tmp/IMG_13.jpg; needs cur_use_logo.png here)\n"
        "  --device /dev/videoN   record a real V4L2 camera instead of the synthetic one\n"
        "  --plugin PATH      the plugin library to load");
}

bool parse(int argc, char **argv, Options &o)
{
    const QStringList args = QCoreApplication::arguments();
    for (int i = 1; i < args.size(); ++i) {
        const QString &a = args[i];
        auto value = [&](QString &v) {
            if (i + 1 >= args.size())
                return false;
            v = args[++i];
            return true;
        };
        QString v;
        if (a == "--no-video") {
            o.video = false;
        } else if (a == "--no-audio") {
            o.audio = false;
        } else if (a == "--help" || a == "-h") {
            return false;
        } else if (!value(v)) {
            std::fprintf(stderr, "demo_host: unknown or incomplete option %s\n", qPrintable(a));
            return false;
        } else if (a == "--out") {
            o.out = v;
        } else if (a == "--size") {
            const QStringList wh = v.split('x');
            if (wh.size() != 2)
                return false;
            o.width = wh[0].toLong();
            o.height = wh[1].toLong();
        } else if (a == "--fps") {
            o.fps = v.toInt();
        } else if (a == "--camera-fps") {
            o.cameraFps = v.toDouble();
        } else if (a == "--bitrate") {
            o.bitrate = v.toUInt();
        } else if (a == "--seconds") {
            o.seconds = v.toDouble();
        } else if (a == "--pause-at") {
            o.pauseAt = v.toDouble();
        } else if (a == "--resume-at") {
            o.resumeAt = v.toDouble();
        } else if (a == "--snapshot-at") {
            o.snapshotAt = v.toDouble();
        } else if (a == "--device") {
            o.device = v;
        } else if (a == "--plugin") {
            o.plugin = v;
        } else {
            std::fprintf(stderr, "demo_host: unknown option %s\n", qPrintable(a));
            return false;
        }
    }
    (void)argc;
    (void)argv;
    return true;
}

// A real camera through OpenCV's V4L2 capture.
class V4l2Camera : public PluginComponent
{
public:
    explicit V4l2Camera(const std::string &device) { m_cap.open(device, cv::CAP_V4L2); }
    bool isOpened() const { return m_cap.isOpened(); }
    void beginUse() override {}
    bool getFrame(cv::Mat &frame) override
    {
        if (!m_cap.read(frame))
            return false;
        std::lock_guard<std::mutex> lock(m_lastMutex);
        m_last = frame.clone();
        return true;
    }
    void endUse() override {}
    cv::Mat lastFrame() const
    {
        std::lock_guard<std::mutex> lock(m_lastMutex);
        return m_last;
    }

private:
    cv::VideoCapture m_cap;
    mutable std::mutex m_lastMutex;
    cv::Mat m_last;
};

// Prints the streams, duration and size of the file; false when it cannot be read.
bool printSummary(const QString &path)
{
    const QByteArray name = path.toUtf8();
    AVFormatContext *ctx = nullptr;
    if (avformat_open_input(&ctx, name.constData(), nullptr, nullptr) < 0) {
        std::printf("summary: cannot open %s\n", name.constData());
        return false;
    }
    if (avformat_find_stream_info(ctx, nullptr) < 0) {
        std::printf("summary: cannot read the streams of %s\n", name.constData());
        avformat_close_input(&ctx);
        return false;
    }
    std::printf("file: %s (%s), %lld bytes, %.2f s\n", name.constData(), ctx->iformat->name,
                static_cast<long long>(QFileInfo(path).size()),
                ctx->duration > 0 ? ctx->duration / double(AV_TIME_BASE) : 0.0);
    for (unsigned i = 0; i < ctx->nb_streams; ++i) {
        const AVStream *st = ctx->streams[i];
        const AVCodecParameters *p = st->codecpar;
        const double secs = st->duration > 0 ? st->duration * av_q2d(st->time_base) : 0.0;
        if (p->codec_type == AVMEDIA_TYPE_VIDEO) {
            std::printf("  stream %u: video %s %dx%d, %lld frames, %.2f s\n", i,
                        avcodec_get_name(p->codec_id), p->width, p->height,
                        static_cast<long long>(st->nb_frames), secs);
        } else if (p->codec_type == AVMEDIA_TYPE_AUDIO) {
            std::printf("  stream %u: audio %s %d Hz, %d channel(s), %.2f s\n", i,
                        avcodec_get_name(p->codec_id), p->sample_rate, p->ch_layout.nb_channels,
                        secs);
        }
    }
    avformat_close_input(&ctx);
    return true;
}

} // namespace

int main(int argc, char **argv)
{
    QCoreApplication app(argc, argv);
    Options o;
    if (!parse(argc, argv, o)) {
        usage();
        return 2;
    }

    std::unique_ptr<PluginComponent> camera;
    SyntheticCamera *synthetic = nullptr;
    V4l2Camera *v4l2 = nullptr;
    if (!o.device.isEmpty()) {
        struct stat st;
        if (stat(o.device.toUtf8().constData(), &st) != 0 || !S_ISCHR(st.st_mode)) {
            std::fprintf(stderr, "demo_host: no video device at %s\n", qPrintable(o.device));
            return 3;
        }
        auto cam = std::make_unique<V4l2Camera>(o.device.toStdString());
        if (!cam->isOpened()) {
            std::fprintf(stderr, "demo_host: cannot open the camera %s\n", qPrintable(o.device));
            return 3;
        }
        v4l2 = cam.get();
        camera = std::move(cam);
    } else {
        auto cam = std::make_unique<SyntheticCamera>(int(o.width), int(o.height), o.cameraFps);
        synthetic = cam.get();
        camera = std::move(cam);
    }

    QPluginLoader loader(o.plugin);
    QObject *instance = loader.instance();
    if (!instance) {
        std::fprintf(stderr, "demo_host: cannot load %s: %s\n", qPrintable(o.plugin),
                     qPrintable(loader.errorString()));
        return 4;
    }
    FFMPEGPlugin *recorder = qobject_cast<FFMPEGPlugin *>(instance);
    if (!recorder) {
        std::fprintf(stderr, "demo_host: %s is not a recording plugin\n", qPrintable(o.plugin));
        return 4;
    }

    QFile::remove(o.out);
    recorder->setPluginComponent(camera.get());
    recorder->setFilename(o.out);
    recorder->vSetRecSize(o.width, o.height);
    recorder->setFps(o.fps);
    recorder->setVideoBitrate(o.bitrate);
    recorder->setHasVideo(o.video);
    recorder->setHasAudio(o.audio);

    std::printf("recording %s: %ldx%ld at %d fps, %u bit/s, %s%s, %.1f s\n", qPrintable(o.out),
                o.width, o.height, o.fps, o.bitrate, o.video ? "video" : "",
                o.audio ? (o.video ? " + audio" : "audio") : "", o.seconds);
    std::fflush(stdout);
    recorder->startRecord();
    if (!recorder->waitForRecordStart(15000)) {
        std::fprintf(stderr, "demo_host: the recording did not start (see the messages above)\n");
        recorder->stopRecord();
        return 5;
    }
    if (o.audio && !recorder->hasAudio())
        std::printf("no microphone could be opened: the clip will have video only\n");

    using Clock = std::chrono::steady_clock;
    const auto start = Clock::now();
    auto at = [&](double s) { return start + std::chrono::milliseconds(long(s * 1000)); };
    bool paused = false, resumed = false, snapped = false;
    int lastReport = 0;
    for (;;) {
        const auto now = Clock::now();
        const double t = std::chrono::duration<double>(now - start).count();
        if (t >= o.seconds)
            break;
        if (o.pauseAt >= 0 && !paused && now >= at(o.pauseAt)) {
            paused = recorder->bPauseRec();
            std::printf("paused at %.1f s\n", t);
        }
        if (paused && !resumed && o.resumeAt >= 0 && now >= at(o.resumeAt)) {
            resumed = recorder->bResumeRec();
            std::printf("resumed at %.1f s\n", t);
        }
        if (o.snapshotAt >= 0 && !snapped && now >= at(o.snapshotAt)) {
            cv::Mat frame = synthetic ? synthetic->lastFrame() : v4l2->lastFrame();
            if (!frame.empty()) {
                FilterThread::instance()->start(frame.clone());
                std::printf("snapshot queued at %.1f s (/tmp/IMG_13.jpg)\n", t);
            }
            snapped = true;
        }
        if (int(t) > lastReport) {
            lastReport = int(t);
            std::printf("  %d s  recording=%s%s\n", lastReport,
                        recorder->isRecording() ? "yes" : "no",
                        paused && !resumed ? " (paused)" : "");
            std::fflush(stdout);
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }

    recorder->stopRecord();
    std::printf("stopping...\n");
    std::fflush(stdout);
    while (recorder->isRecording())
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    // The session's last call on the camera (endUse) follows; the camera outlives it.
    if (auto *session = qobject_cast<QThread *>(instance))
        session->wait();

    if (o.audio && !recorder->hasAudio())
        std::printf("no sound card with a microphone was found: the clip has video only\n");
    const bool ok = printSummary(o.out);
    return ok ? 0 : 1;
}
