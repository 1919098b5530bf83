// The host of the kill test: records FILE through the built plugin (a synthetic camera
// at 640x480, 30 fps, and the simulated microphone) until it is killed. Once the
// recording has started it writes "recording\n" to descriptor 3.
//
// usage: crash_recorder FILE
#include <QCoreApplication>

#include <chrono>
#include <cstdio>
#include <thread>
#include <unistd.h>

#include "simulatedmic.h"
#include "support/loadedrecorder.h"
#include "syntheticcamera.h"

int main(int argc, char **argv)
{
    if (argc != 2) {
        std::fprintf(stderr, "usage: %s FILE\n", argv[0]);
        return 2;
    }
    QCoreApplication app(argc, argv);
    simulatedmic::reset();
    simulatedmic::addCameraMicrophone(48000, 1, 1000.0);
    SyntheticCamera camera(640, 480, 30);
    LoadedRecorder rec{QStringLiteral(RECORDER_PLUGIN_PATH)};
    if (!rec.loaded()) {
        std::fprintf(stderr, "cannot load the plugin: %s\n", qPrintable(rec.error()));
        return 1;
    }
    rec->setPluginComponent(&camera);
    rec->setFilename(QString::fromLocal8Bit(argv[1]));
    rec->vSetRecSize(640, 480);
    rec->setFps(30);
    rec->startRecord();
    if (!rec->waitForRecordStart(20000)) {
        std::fprintf(stderr, "the recording did not start\n");
        return 1;
    }
    static const char kStarted[] = "recording\n";
    if (write(3, kStarted, sizeof kStarted - 1) != ssize_t(sizeof kStarted - 1))
        return 1;
    // Until SIGKILL: nothing after this line runs.
    for (;;)
        std::this_thread::sleep_for(std::chrono::hours(1));
}
