// The host of the kill test: records FILE through the built plugin (a synthetic camera
// at 640x480, 30 fps, and the simulated microphone) until it is killed. Once the
// recording has started it prints the line "recording PID".
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
    if (argc != 2)
        return 2; // see the usage above
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
    // The line the test waits for, on the pipe it reads; later output goes where standard
    // error goes, so that the pipe never fills.
    std::printf("recording %d\n", int(getpid()));
    std::fflush(stdout);
    dup2(2, 1);
    // Until SIGKILL: nothing after this line runs.
    for (;;)
        std::this_thread::sleep_for(std::chrono::hours(1));
}
