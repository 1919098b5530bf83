// A host built from the public headers, Qt and OpenCV only (nothing else of the project
// is on its include path or link line): it loads the plugin by path, casts it and calls
// every operation of the interface.
#include <QCoreApplication>
#include <QDir>
#include <QFileInfo>
#include <QPluginLoader>
#include <QTemporaryDir>

#include <chrono>
#include <cstdio>
#include <thread>

#include "ffmpegplugin.h"

namespace {

int failures = 0;

void check(bool ok, const char *what)
{
    if (!ok) {
        std::fprintf(stderr, "FAILED: %s\n", what);
        ++failures;
    }
}

class CountingComponent : public PluginComponent
{
public:
    void beginUse() override { ++begins; }
    bool getFrame(cv::Mat &frame) override
    {
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
        frame = cv::Mat(96, 128, CV_8UC3, cv::Scalar(10, 200, 30));
        ++frames;
        return true;
    }
    void endUse() override { ++ends; }

    std::atomic<int> begins{0};
    std::atomic<int> ends{0};
    std::atomic<int> frames{0};
};

} // namespace

int main(int argc, char **argv)
{
    QCoreApplication app(argc, argv);
    QTemporaryDir dir;
    QPluginLoader loader(QStringLiteral(RECORDER_PLUGIN_PATH));
    FFMPEGPlugin *r = qobject_cast<FFMPEGPlugin *>(loader.instance());
    if (!r) {
        std::fprintf(stderr, "FAILED: cannot load or cast %s: %s\n", RECORDER_PLUGIN_PATH,
                     qPrintable(loader.errorString()));
        return 1;
    }
    CountingComponent camera;
    const QString file = dir.filePath("host.mp4");
    r->setPluginComponent(&camera);
    r->setFilename(file);
    check(r->filename() == file, "filename");
    r->setHasVideo(true);
    check(r->hasVideo(), "hasVideo");
    r->setHasAudio(false);
    check(!r->hasAudio(), "hasAudio");
    r->vSetRecSize(160, 120);
    r->setFps(15);
    check(r->fps() == 15, "fps");
    r->setVideoBitrate(300000);
    check(r->videoBitrate() == 300000u, "videoBitrate");

    r->startRecord();
    check(r->waitForRecordStart(10000), "waitForRecordStart");
    check(r->isRecording(), "isRecording while recording");
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
    while (camera.frames < 20 && std::chrono::steady_clock::now() < deadline)
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    check(r->bPauseRec(), "bPauseRec during a recording");
    check(r->bResumeRec(), "bResumeRec during a recording");
    r->stopRecord();
    const auto stopDeadline = std::chrono::steady_clock::now() + std::chrono::seconds(20);
    while (r->isRecording() && std::chrono::steady_clock::now() < stopDeadline)
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    check(!r->isRecording(), "recording ends after stopRecord");
    const auto endDeadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
    while (camera.ends == 0 && std::chrono::steady_clock::now() < endDeadline)
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    check(camera.begins == 1 && camera.ends == 1, "beginUse and endUse once each");
    check(QFileInfo(file).size() > 0, "the recording wrote its file");
    delete loader.instance();

    std::printf("%d passed, %d failed\n", failures ? 0 : 1, failures ? 1 : 0);
    return failures ? 1 : 0;
}
