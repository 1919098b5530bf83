// Records three seconds from a synthetic camera through the installed plugin and
// exits 0 only when the file decodes with the expected streams.
// usage: record_clip [OUT.mp4 [PLUGIN]]  (PLUGIN: another build of the plugin to load)
#include <QCoreApplication>
#include <QPluginLoader>

#include <chrono>
#include <cstdio>
#include <thread>

#include <ffmpegplugin.h>
#include <recordingstatus.h>

extern "C" {
#include <libavformat/avformat.h>
}

// A moving gradient, 25 frames per second.
class Camera : public PluginComponent
{
public:
    void beginUse() override {}
    bool getFrame(cv::Mat &frame) override
    {
        std::this_thread::sleep_for(std::chrono::milliseconds(40));
        frame.create(480, 640, CV_8UC3);
        for (int y = 0; y < frame.rows; ++y)
            for (int x = 0; x < frame.cols; ++x)
                frame.at<cv::Vec3b>(y, x) = cv::Vec3b(uchar(x + m_n), uchar(y), uchar(m_n * 3));
        ++m_n;
        return true;
    }
    void endUse() override {}

private:
    int m_n = 0;
};

// Counts the file's video and audio streams; false if it cannot be read.
static bool probe(const char *path, int &video, int &audio)
{
    AVFormatContext *ctx = nullptr;
    if (avformat_open_input(&ctx, path, nullptr, nullptr) < 0)
        return false;
    const bool ok = avformat_find_stream_info(ctx, nullptr) >= 0;
    for (unsigned i = 0; ok && i < ctx->nb_streams; ++i) {
        video += ctx->streams[i]->codecpar->codec_type == AVMEDIA_TYPE_VIDEO;
        audio += ctx->streams[i]->codecpar->codec_type == AVMEDIA_TYPE_AUDIO;
    }
    avformat_close_input(&ctx);
    return ok;
}

int main(int argc, char **argv)
{
    QCoreApplication app(argc, argv);
    const QString out = argc > 1 ? argv[1] : "clip.mp4";
    const char *plugin = argc > 2 ? argv[2] : KWRECORDER_PLUGIN;

    QPluginLoader loader(plugin);
    auto *recorder = qobject_cast<FFMPEGPlugin *>(loader.instance());
    if (!recorder) {
        std::fprintf(stderr, "cannot load %s: %s\n", plugin, qPrintable(loader.errorString()));
        return 1;
    }
    Camera camera;
    recorder->setPluginComponent(&camera);
    recorder->setFilename(out);
    recorder->vSetRecSize(640, 480);
    recorder->setFps(25);
    recorder->startRecord();
    if (!recorder->waitForRecordStart(10000)) {
        std::fprintf(stderr, "the recording did not start\n");
        return 1;
    }
    std::this_thread::sleep_for(std::chrono::seconds(3));
    recorder->stopRecord();
    auto *status = qobject_cast<FFMPEGPluginStatus *>(loader.instance());
    if (!status || !status->waitForRecordEnd(30000)) {
        std::fprintf(stderr, "the recording did not end\n");
        return 1;
    }
    std::printf("%s\n", qPrintable(status->recordingStatus().summary()));

    int video = 0, audio = 0;
    if (!probe(out.toUtf8().constData(), video, audio)) {
        std::fprintf(stderr, "%s does not decode\n", qPrintable(out));
        return 1;
    }
    // Sound is there only when a microphone could be opened.
    const int expectedAudio = recorder->hasAudio() ? 1 : 0;
    std::printf("%s: %d video and %d audio stream(s), %d audio expected\n", qPrintable(out), video,
                audio, expectedAudio);
    delete loader.instance();
    return video == 1 && audio == expectedAudio ? 0 : 1;
}
