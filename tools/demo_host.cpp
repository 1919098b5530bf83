// A camera application in miniature: loads the recording plugin with QPluginLoader,
// hands it a frame source and records a clip, then says what it made.
#include <QCommandLineParser>
#include <QCoreApplication>
#include <QFile>
#include <QFileInfo>
#include <QPluginLoader>
#include <QThread>
#include <QStringList>

#include <chrono>
#include <cmath>
#include <cstdio>
#include <memory>
#include <mutex>
#include <string>
#include <sys/stat.h>
#include <thread>
#include <unistd.h>

#include <opencv2/videoio.hpp>

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavformat/avformat.h>
}

#include "commandline.h"
#include "ffmpegplugin.h"
#include "recordingstatus.h"
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

// Bounds of the options' values.
constexpr double kMaxSeconds = 24 * 3600;
constexpr int kMaxFps = 1000;                 // the recorder holds higher rates at this
constexpr long long kMaxBitrate = 200000000;  // bit/s

Options parseOptions()
{
    QCommandLineParser p;
    p.addOptions({
        {QStringLiteral("out"),
         QStringLiteral("Output file; its extension picks the container (demo.mp4)."),
         QStringLiteral("FILE")},
        {QStringLiteral("size"), QStringLiteral("Recording size (1280x720)."),
         QStringLiteral("WxH")},
        {QStringLiteral("fps"), QStringLiteral("Recording frame rate (30)."), QStringLiteral("N")},
        {QStringLiteral("camera-fps"),
         QStringLiteral("Synthetic camera rate; 0: a new frame whenever asked (30)."),
         QStringLiteral("N")},
        {QStringLiteral("bitrate"), QStringLiteral("Video bit rate in bit/s (2000000)."),
         QStringLiteral("N")},
        {QStringLiteral("seconds"), QStringLiteral("How long to record (5)."), QStringLiteral("S")},
        {QStringLiteral("no-video"), QStringLiteral("Record sound only.")},
        {QStringLiteral("no-audio"), QStringLiteral("Record video only.")},
        {QStringLiteral("pause-at"), QStringLiteral("Pause S seconds into the recording."),
         QStringLiteral("S")},
        {QStringLiteral("resume-at"), QStringLiteral("Resume S seconds into the recording."),
         QStringLiteral("S")},
        {QStringLiteral("snapshot-at"),
         QStringLiteral("Queue the camera frame at S seconds to the snapshot thread (written "
                        "to /tmp/IMG_13.jpg; needs cur_use_logo.png here)."),
         QStringLiteral("S")},
        {QStringLiteral("device"),
         QStringLiteral("Record a real V4L2 camera instead of the synthetic one."),
         QStringLiteral("/dev/videoN")},
        {QStringLiteral("plugin"), QStringLiteral("The plugin library to load."),
         QStringLiteral("PATH")},
    });
    commandline::parseOrExit(
        p, QStringLiteral("Records a clip through the recording plugin, as a camera "
                          "application does.\nFFmpeg's detail: "
                          "QT_LOGGING_RULES=\"kwrecorder.ffmpeg.info=true\"."));
    Options o;
    if (p.isSet(QStringLiteral("out")))
        o.out = p.value(QStringLiteral("out"));
    commandline::Size size{int(o.width), int(o.height)};
    commandline::readSize(p, QStringLiteral("size"), size);
    o.width = size.first;
    o.height = size.second;
    commandline::readInteger(p, QStringLiteral("fps"), o.fps, 1, kMaxFps);
    commandline::readNumber(p, QStringLiteral("camera-fps"), o.cameraFps, 0, kMaxFps);
    commandline::readInteger(p, QStringLiteral("bitrate"), o.bitrate, 1, kMaxBitrate);
    commandline::readNumber(p, QStringLiteral("seconds"), o.seconds, 0.1, kMaxSeconds);
    o.video = !p.isSet(QStringLiteral("no-video"));
    o.audio = !p.isSet(QStringLiteral("no-audio"));
    commandline::readNumber(p, QStringLiteral("pause-at"), o.pauseAt, 0, kMaxSeconds);
    commandline::readNumber(p, QStringLiteral("resume-at"), o.resumeAt, 0, kMaxSeconds);
    commandline::readNumber(p, QStringLiteral("snapshot-at"), o.snapshotAt, 0, kMaxSeconds);
    if (p.isSet(QStringLiteral("device")))
        o.device = p.value(QStringLiteral("device"));
    if (p.isSet(QStringLiteral("plugin")))
        o.plugin = p.value(QStringLiteral("plugin"));
    if (!o.video && !o.audio)
        commandline::usageError(QStringLiteral("--no-video and --no-audio leave nothing to record"));
    if (o.resumeAt >= 0 && (o.pauseAt < 0 || o.resumeAt < o.pauseAt))
        commandline::usageError(QStringLiteral("--resume-at needs a --pause-at no later than it"));
    return o;
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

// Recordings at most this long show no progress, seconds.
constexpr double kQuietUpToSeconds = 3;
// Progress period on a terminal (the line is rewritten) and elsewhere (a line each), seconds.
constexpr double kTerminalPeriod = 0.5;
constexpr double kPlainPeriod = 5;

// The recording's elapsed time and file size on standard output; main thread only.
// On a terminal one line is rewritten in place, elsewhere a line is printed each period.
class ProgressLine
{
public:
    ProgressLine(const QString &file, double seconds)
        : m_file(file)
        , m_seconds(seconds)
        , m_on(seconds > kQuietUpToSeconds)
        , m_terminal(isatty(STDOUT_FILENO) == 1)
        , m_period(m_terminal ? kTerminalPeriod : kPlainPeriod)
        , m_next(m_terminal ? 0 : kPlainPeriod)
    {
    }

    // Shows the state at `elapsed` seconds into the recording once a period has passed.
    void update(double elapsed, bool paused)
    {
        if (!m_on || elapsed < m_next)
            return;
        m_next = (std::floor(elapsed / m_period) + 1) * m_period;
        const double mib = double(QFileInfo(m_file).size()) / (1024.0 * 1024.0);
        // "\033[K" clears what a longer line before left on the terminal.
        std::printf(m_terminal ? "\r  %.1f s of %g s, %.1f MiB written%s\033[K"
                               : "  %.1f s of %g s, %.1f MiB written%s\n",
                    elapsed, m_seconds, mib, paused ? " (paused)" : "");
        std::fflush(stdout);
        m_open = m_terminal;
    }

    // Ends a line left open on the terminal, so that other output starts on its own.
    void breakLine()
    {
        if (m_open)
            std::putchar('\n');
        m_open = false;
    }

private:
    const QString m_file;
    const double m_seconds;   // the recording's planned length
    const bool m_on;          // the recording is long enough to show progress
    const bool m_terminal;    // standard output is a terminal
    const double m_period;    // seconds between updates
    double m_next;            // elapsed seconds at which the next update is due
    bool m_open = false;      // a rewritten line is on the terminal without its newline
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
    const Options o = parseOptions();

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
    ProgressLine progress(o.out, o.seconds);
    for (;;) {
        const auto now = Clock::now();
        const double t = std::chrono::duration<double>(now - start).count();
        if (t >= o.seconds)
            break;
        if (!recorder->isRecording()) {
            progress.breakLine();
            std::printf("the recording ended by itself at %.1f s\n", t);
            break;
        }
        if (o.pauseAt >= 0 && !paused && now >= at(o.pauseAt)) {
            paused = recorder->bPauseRec();
            progress.breakLine();
            std::printf("paused at %.1f s\n", t);
        }
        if (paused && !resumed && o.resumeAt >= 0 && now >= at(o.resumeAt)) {
            resumed = recorder->bResumeRec();
            progress.breakLine();
            std::printf("resumed at %.1f s\n", t);
        }
        if (o.snapshotAt >= 0 && !snapped && now >= at(o.snapshotAt)) {
            cv::Mat frame = synthetic ? synthetic->lastFrame() : v4l2->lastFrame();
            if (!frame.empty()) {
                FilterThread::instance()->start(frame.clone());
                progress.breakLine();
                std::printf("snapshot queued at %.1f s (/tmp/IMG_13.jpg)\n", t);
            }
            snapped = true;
        }
        progress.update(t, paused && !resumed);
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    progress.breakLine();

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
    // What the recorder says it did, when it offers its status.
    if (const auto *status = qobject_cast<FFMPEGPluginStatus *>(instance))
        std::printf("recorder: %s\n", qPrintable(status->recordingStatus().summary()));
    const bool ok = printSummary(o.out);
    return ok ? 0 : 1;
}
