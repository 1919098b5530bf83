// What capturing the camera's microphone costs this process: the same sound-only
// recording through a real PulseAudio (started here, its camera source fed by the beep
// player) and straight from the raw device (simulated), in CPU seconds per recorded
// second, in interleaved pairs (server, then device), each pair's ratio printed, then the
// median and the spread. The server's own CPU is not counted: it serves every program on
// a desktop.
//
// usage: microphone_bench [SECONDS] [PAIRS]   (default 10 s, 5 pairs)
#include <QCoreApplication>

#include <algorithm>
#include <vector>

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

constexpr double kDefaultSeconds = 10;
constexpr double kMaxSeconds = 3600;
constexpr int kDefaultPairs = 5;
constexpr int kMaxPairs = 100;
// Where no server answers: the capture falls back to the raw device.
const char *const kNoServer = "unix:/nonexistent";

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

static void printSpread(const char *what, std::vector<double> v)
{
    std::sort(v.begin(), v.end());
    printf("  %s: median %.4f (%.4f-%.4f)\n", what, v[v.size() / 2], v.front(), v.back());
}

int main(int argc, char **argv)
{
    QCoreApplication app(argc, argv);
    const double seconds = argc > 1 ? std::atof(argv[1]) : kDefaultSeconds;
    const int pairs = argc > 2 ? std::atoi(argv[2]) : kDefaultPairs;
    if (!(seconds > 0 && seconds <= kMaxSeconds) || pairs < 1 || pairs > kMaxPairs) {
        fprintf(stderr, "usage: microphone_bench [SECONDS] [PAIRS]  (0 < SECONDS <= %g, 1 <= PAIRS <= %d)\n",
                kMaxSeconds, kMaxPairs);
        return 2;
    }
    testutil::TempDir dir;
    SoundServer pulse(SoundServer::Kind::PulseAudio);
    if (!pulse.failure().isEmpty() || !pulse.addMicrophone("camfeed", "cammic", "KW-08P USBCamera", "camera")) {
        fprintf(stderr, "microphone_bench: no sound server: %s\n", qPrintable(pulse.failure()));
        return 1;
    }
    const QByteArray server = qgetenv("PULSE_SERVER");
    const auto player = pulse.client(BEEPPLAYER_PATH, {"camfeed", "0", "2000", "50", "1000",
                                                       QString::number(pairs * (seconds + 30))});
    player->start();
    // The raw device, simulated at the server's rate, for the runs where no server answers.
    simulatedmic::addCameraMicrophone(48000, 1, 1000);
    std::vector<double> viaServer, direct, ratios;
    printf("microphone capture, CPU s per recorded s (this process), %d pairs of %.0f s:\n", pairs, seconds);
    for (int i = 0; i < pairs; ++i) {
        qputenv("PULSE_SERVER", server);
        const double s1 = recordSound(seconds, dir);
        qputenv("PULSE_SERVER", kNoServer);
        const double s2 = recordSound(seconds, dir);
        if (s1 < 0 || s2 <= 0)
            return 1;
        viaServer.push_back(s1);
        direct.push_back(s2);
        ratios.push_back(s1 / s2);
        printf("  pair %d: server %.4f, direct %.4f, ratio %.2f\n", i + 1, s1, s2, s1 / s2);
        fflush(stdout);
    }
    player->terminate();
    player->waitForFinished();
    printSpread("server", viaServer);
    printSpread("direct", direct);
    printSpread("server / direct", ratios);
    return 0;
}
