// What capturing the camera's microphone costs this process: the same sound-only
// recording through a real PulseAudio (started here, its camera source fed by the beep
// player) and straight from the raw device (simulated), in CPU seconds per recorded
// second. The server's own CPU is not counted: it serves every program on a desktop.
//
// usage: microphone_bench [SECONDS]   (default 20)
#include <QCoreApplication>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <sys/resource.h>
#include <thread>

#include "simulatedmic.h"
#include "support/loadedrecorder.h"
#include "support/mediareader.h"
#include "support/soundserver.h"

namespace {

constexpr double kDefaultSeconds = 20;
constexpr double kMaxSeconds = 3600;

double cpuSeconds()
{
    rusage u{};
    getrusage(RUSAGE_SELF, &u);
    return double(u.ru_utime.tv_sec + u.ru_stime.tv_sec) + double(u.ru_utime.tv_usec + u.ru_stime.tv_usec) / 1e6;
}

// Records `seconds` of sound only; the CPU seconds this process spent per recorded
// second, or a negative number after a message when the file holds no sound.
double recordSound(double seconds, const testutil::TempDir &dir)
{
    LoadedRecorder rec{RECORDER_PLUGIN_PATH};
    if (!rec.loaded()) {
        fprintf(stderr, "microphone_bench: %s\n", qPrintable(rec.error()));
        return -1;
    }
    rec->setHasVideo(false);
    rec->setHasAudio(true);
    rec->setFilename(QString::fromStdString(dir.file("sound.mp4")));
    const double cpu0 = cpuSeconds();
    rec->startRecord();
    std::this_thread::sleep_for(std::chrono::duration<double>(seconds));
    if (!rec.stopAndWait()) {
        fprintf(stderr, "microphone_bench: the recording did not stop\n");
        return -1;
    }
    const double cpu = cpuSeconds() - cpu0;
    MediaFile f;
    std::string err;
    if (!readMediaFile(dir.file("sound.mp4"), f, &err) || f.audioSeconds() <= 0) {
        fprintf(stderr, "microphone_bench: no sound recorded %s\n", err.c_str());
        return -1;
    }
    return cpu / f.audioSeconds();
}

} // namespace

int main(int argc, char **argv)
{
    QCoreApplication app(argc, argv);
    const double seconds = argc > 1 ? std::atof(argv[1]) : kDefaultSeconds;
    if (!(seconds > 0 && seconds <= kMaxSeconds)) {
        fprintf(stderr, "usage: microphone_bench [SECONDS]  (0 < SECONDS <= %g)\n", kMaxSeconds);
        return 2;
    }
    testutil::TempDir dir;
    double server = -1;
    {
        SoundServer pulse(SoundServer::Kind::PulseAudio);
        if (!pulse.failure().isEmpty() || !pulse.addMicrophone("camfeed", "cammic", "KW-08P USBCamera", "camera")) {
            fprintf(stderr, "microphone_bench: no sound server: %s\n", qPrintable(pulse.failure()));
            return 1;
        }
        const auto player = pulse.client(BEEPPLAYER_PATH, {"camfeed", "0", "2000", "50", "1000",
                                                           QString::number(seconds + 30)});
        player->start();
        server = recordSound(seconds, dir);
        player->terminate();
        player->waitForFinished();
    }
    // No server answers now: the raw device, simulated at the server's rate.
    qputenv("PULSE_SERVER", "unix:/nonexistent");
    simulatedmic::addCameraMicrophone(48000, 1, 1000);
    const double direct = recordSound(seconds, dir);
    if (server < 0 || direct < 0)
        return 1;
    printf("microphone capture, CPU s per recorded s (this process): server %.4f, direct %.4f\n", server, direct);
    return 0;
}
