// Runs the session tests' long runs for as long as asked, through the built plugin with
// the simulated microphone, and prints what they leave behind:
//   cycles  start/stop cycles of a small recording, back to back: resident size (after
//           returning free heap pages) and thread count every 25 cycles;
//   heavy   one recording of noise frames the encoder struggles with: peak queued frames,
//           resident size growth per minute, time to drain after stop, and whether the
//           file holds every frame and the sound.
//   lipsync one recording of a camera that flashes while the card, its clock off by --ppm,
//           beeps at the same instants: the offset of flash and beep in the file, minute
//           by minute.
//   clips   --clips short video recordings of --size in one process, as a host makes them:
//           the plain resident size (nothing trimmed by the benchmark) after the tenth and
//           after the last, which should stay within a few MiB.
//
// usage: soak_bench [--minutes N] [--mode cycles|heavy|both|lipsync|clips] [--size WxH]
//                   [--bitrate N] [--ppm N] [--clips N] [--plugin PATH]
#include <QCommandLineParser>
#include <QCoreApplication>
#include <QStringList>

#include <chrono>
#include <atomic>
#include <cmath>
#include <cstdio>
#include <string>
#include <sys/resource.h>
#include <thread>

#include "commandline.h"
#include "simulatedmic.h"
#include "fakealsa.h"
#include "support/heavyrecording.h"
#include "support/lipsync.h"
#include "support/loadedrecorder.h"
#include "support/mediareader.h"
#include "support/testutil.h"
#include "syntheticcamera.h"

namespace {

using Clock = std::chrono::steady_clock;

struct Options {
    double minutes = 10;
    bool cycles = true;
    bool heavy = true;
    bool lipsync = false;
    bool clips = false;
    int clipCount = 300;        // recordings of the clips run
    double ppm = 300;           // the lip-sync run's card clock error
    int width = 1280;
    int height = 720;
    unsigned bitrate = 4000000; // bits per second of the heavy recording
    QString plugin = QStringLiteral(RECORDER_PLUGIN_PATH);
};

// Bounds of the options' values.
constexpr double kMinMinutes = 0.01;
constexpr double kMaxMinutes = 24 * 60;
constexpr long long kMaxBitrate = 200000000; // bit/s

// The clips run's reference: after the tenth recording, as a host's memory has settled.
constexpr int kClipReference = 10;
// Frames each clip records, at kClipFps.
constexpr int kClipFrames = 10;
constexpr int kClipFps = 25;
// The clips run reports every this many recordings.
constexpr int kClipReportEvery = 50;
constexpr int kMaxClips = 100000;

// Cycles report every this many cycles.
constexpr int kReportEvery = 25;
// The cycles' reference point, as in the session test: after the first allocations.
constexpr int kReferenceCycle = 20;

int soakCycles(const Options &o, const std::string &file)
{
    LoadedRecorder rec(o.plugin);
    if (!rec.loaded()) {
        std::fprintf(stderr, "cannot load the plugin: %s\n", qPrintable(rec.error()));
        return 1;
    }
    CyclingCamera camera({cv::Mat(48, 64, CV_8UC3, cv::Scalar(20, 120, 220))}, 50);
    rec->setHasAudio(false);
    rec->vSetRecSize(64, 48);
    rec->setFps(20);
    rec->setPluginComponent(&camera);
    rec->setFilename(QString::fromStdString(file));
    const auto end = Clock::now() + std::chrono::duration<double, std::ratio<60>>(o.minutes);
    long reference = 0;
    int failures = 0;
    int cycle = 0;
    std::printf("cycles: start/stop of a 64x48 video recording, back to back\n");
    while (Clock::now() < end) {
        ++cycle;
        bool ok = false;
        testutil::captureStdout([&] {
            rec->startRecord();
            ok = rec->waitForRecordStart(30000);
            ok = rec.stopAndWait(std::chrono::seconds(60)) && ok;
        });
        if (!ok)
            ++failures;
        if (cycle == kReferenceCycle)
            reference = testutil::residentInUseKiB();
        if (cycle % kReportEvery == 0) {
            const long rss = testutil::residentInUseKiB();
            std::printf("  cycle %4d  RSS %7.1f MiB  %+6.1f%% of cycle %d  threads %d\n", cycle,
                        rss / 1024.0, reference ? 100.0 * (rss - reference) / reference : 0.0,
                        kReferenceCycle, testutil::threadCount());
            std::fflush(stdout);
        }
    }
    const long rss = testutil::residentInUseKiB();
    std::printf("cycles: %d in %.1f min, %d failed; RSS %.1f MiB at cycle %d, %.1f MiB at the "
                "end (%+.1f%%); threads %d\n",
                cycle, o.minutes, failures, reference / 1024.0, kReferenceCycle, rss / 1024.0,
                reference ? 100.0 * (rss - reference) / reference : 0.0, testutil::threadCount());
    return failures ? 1 : 0;
}

int soakHeavy(const Options &o, const std::string &file)
{
    LoadedRecorder rec(o.plugin);
    if (!rec.loaded()) {
        std::fprintf(stderr, "cannot load the plugin: %s\n", qPrintable(rec.error()));
        return 1;
    }
    fakealsa::reset();
    simulatedmic::addCameraMicrophone(48000, 1, 1000.0);
    rec->setHasAudio(true);
    constexpr int kFps = 30;
    const auto length = std::chrono::seconds(std::lround(o.minutes * 60));
    std::printf("heavy: %dx%d@%d noise frames, %u bit/s, with sound, for %.1f min\n", o.width,
                o.height, kFps, o.bitrate, o.minutes);
    std::fflush(stdout);
    const HeavyRecordingReport r = recordHeavy(rec, file, o.width, o.height, kFps, o.bitrate,
                                               length, std::chrono::seconds(30));
    if (!r.started || !r.stopped) {
        std::printf("heavy: the recording %s\n", r.started ? "did not end" : "did not start");
        return 1;
    }
    for (size_t i = 0; i < r.rssKiB.size(); ++i)
        std::printf("  %5zu s  RSS %7.1f MiB\n", (i + 1) * 30, r.rssKiB[i] / 1024.0);
    MediaFile f;
    std::string err;
    if (!readMediaFile(file, f, &err, false) || !f.video() || !f.audio()) {
        std::printf("heavy: the file is not a readable recording with sound: %s\n", err.c_str());
        return 1;
    }
    // Resident size growth from the first sample to the last, per minute.
    const double span = r.wallSeconds * double(r.rssKiB.size() - 1) / double(r.rssKiB.size());
    const double growth = r.rssKiB.size() < 2 || span <= 0 ? 0.0
        : (r.rssKiB.back() - r.rssKiB.front()) / 1024.0 * 60.0 / span;
    rusage usage{};
    getrusage(RUSAGE_SELF, &usage);
    std::printf("heavy: %.1f s recorded; peak %ld frames queued (%.1f MiB); %ld frames not made "
                "up after stalls; RSS growth %+.1f MiB per minute; peak RSS %.1f MiB; drained in "
                "%.1f s after stop\n",
                r.wallSeconds, r.peakQueuedFrames, r.peakQueuedMiB, r.framesNotMadeUp, growth,
                usage.ru_maxrss / 1024.0, r.drainSeconds);
    const double video = f.video()->durationSeconds(), audio = f.audio()->durationSeconds();
    std::printf("heavy: file video %.3f s (%+.2f%% of wall), audio %.3f s, |video - audio| "
                "%.1f ms, %ld frames dropped\n",
                video, 100.0 * (video - r.wallSeconds) / r.wallSeconds, audio,
                1000.0 * std::fabs(video - audio), r.framesDropped);
    return 0;
}

// Counts what the camera handed out, so that each clip holds frames.
class CountingCamera : public CyclingCamera
{
public:
    using CyclingCamera::CyclingCamera;
    bool getFrame(cv::Mat &frame) override
    {
        const bool got = CyclingCamera::getFrame(frame);
        frames += got;
        return got;
    }
    std::atomic<long> frames{0};
};

int soakClips(const Options &o, const std::string &file)
{
    LoadedRecorder rec(o.plugin);
    if (!rec.loaded()) {
        std::fprintf(stderr, "cannot load the plugin: %s\n", qPrintable(rec.error()));
        return 1;
    }
    CountingCamera camera(CyclingCamera::synthetic(o.width, o.height, kClipFps, kClipFps), kClipFps);
    rec->setHasAudio(false);
    rec->vSetRecSize(o.width, o.height);
    rec->setFps(kClipFps);
    rec->setPluginComponent(&camera);
    rec->setFilename(QString::fromStdString(file));
    std::printf("clips: %d recordings of %d frames at %dx%d, one process\n", o.clipCount,
                kClipFrames, o.width, o.height);
    long reference = 0;
    int failures = 0;
    for (int clip = 1; clip <= o.clipCount; ++clip) {
        bool ok = false;
        testutil::captureStdout([&] {
            const long before = camera.frames;
            rec->startRecord();
            ok = rec->waitForRecordStart(30000)
                && testutil::pollUntil([&] { return camera.frames >= before + kClipFrames; },
                                       std::chrono::seconds(30));
            ok = rec.stopAndWait(std::chrono::seconds(60)) && ok;
        });
        failures += !ok;
        const long rss = testutil::residentKiB();
        if (clip == kClipReference)
            reference = rss;
        if (clip % kClipReportEvery == 0 || clip == kClipReference) {
            std::printf("  clip %5d  RSS %7.1f MiB  threads %d\n", clip, rss / 1024.0,
                        testutil::threadCount());
            std::fflush(stdout);
        }
    }
    const long rss = testutil::residentKiB();
    std::printf("clips: %d recorded, %d failed; RSS %.1f MiB after clip %d, %.1f MiB after the "
                "last (%+.1f MiB)\n",
                o.clipCount, failures, reference / 1024.0, kClipReference, rss / 1024.0,
                (rss - reference) / 1024.0);
    return failures ? 1 : 0;
}

// The flashing camera's schedule (kFps, kFlashEvery) is the lip-sync test's.
int soakLipSync(const Options &o, const std::string &file)
{
    LoadedRecorder rec(o.plugin);
    if (!rec.loaded()) {
        std::fprintf(stderr, "cannot load the plugin: %s\n", qPrintable(rec.error()));
        return 1;
    }
    const auto epoch = Clock::now() + std::chrono::seconds(1);
    fakealsa::reset();
    fakealsa::Capture c;
    c.ppm = o.ppm;
    c.channels = {1};
    fakealsa::addCard("KW-08P USBCamera", {}, c);
    fakealsa::Beeps beeps;
    beeps.epoch = epoch;
    beeps.periodMs = long(kFlashEvery * 1000);
    fakealsa::setBeeps(beeps);
    FlashCamera camera(o.width, o.height, epoch, std::chrono::milliseconds(-1));
    rec->setHasAudio(true);
    rec->vSetRecSize(o.width, o.height);
    rec->setFps(kFps);
    rec->setVideoBitrate(o.bitrate);
    rec->setPluginComponent(&camera);
    rec->setFilename(QString::fromStdString(file));
    std::printf("lipsync: %dx%d@%d, card clock %+.0f ppm, a flash and a beep every %.0f s, for "
                "%.1f min\n",
                o.width, o.height, kFps, o.ppm, kFlashEvery, o.minutes);
    std::fflush(stdout);
    bool ok = false;
    testutil::captureStdout([&] {
        rec->startRecord();
        if (!rec->waitForRecordStart(30000))
            return;
        std::this_thread::sleep_for(std::chrono::duration<double, std::ratio<60>>(o.minutes));
        ok = rec.stopAndWait(std::chrono::minutes(5));
    });
    MediaFile f;
    std::string err;
    if (!ok || !readMediaFile(file, f, &err, true, false)) {
        std::printf("lipsync: no readable recording %s\n", err.c_str());
        return 1;
    }
    const std::vector<double> flashes = flashTimes(f);
    const std::vector<double> offsets = pairOffsets(flashes, beepOnsets(f), 0.5);
    if (offsets.empty()) {
        std::printf("lipsync: no flash came with a beep\n");
        return 1;
    }
    // Every minute: the first pair in it.
    int minute = -1;
    size_t pair = 0;
    double worst = 0;
    for (double flash : flashes) {
        if (pair >= offsets.size())
            break;
        const int m = int(flash / 60);
        if (m != minute) {
            minute = m;
            std::printf("  minute %3d  offset %+6.1f ms\n", m, 1000 * offsets[pair]);
        }
        if (std::fabs(offsets[pair]) > std::fabs(worst))
            worst = offsets[pair];
        ++pair;
    }
    std::printf("lipsync: %zu pairs; offset (flash - beep) first %+.1f ms, worst %+.1f ms, last "
                "%+.1f ms; one frame is %.1f ms\n",
                offsets.size(), 1000 * offsets.front(), 1000 * worst, 1000 * offsets.back(),
                1000.0 / kFps);
    return 0;
}

Options parseOptions()
{
    QCommandLineParser p;
    p.addOptions({
        {QStringLiteral("minutes"), QStringLiteral("Minutes of each run (10)."), QStringLiteral("N")},
        {QStringLiteral("mode"),
         QStringLiteral("Which runs: cycles, heavy, both, lipsync or clips (both)."),
         QStringLiteral("MODE")},
        {QStringLiteral("ppm"), QStringLiteral("Card clock error of the lipsync run (300)."),
         QStringLiteral("N")},
        {QStringLiteral("size"), QStringLiteral("Size of the heavy recording (1280x720)."),
         QStringLiteral("WxH")},
        {QStringLiteral("bitrate"),
         QStringLiteral("Video bit rate of the heavy recording in bit/s (4000000)."),
         QStringLiteral("N")},
        {QStringLiteral("clips"), QStringLiteral("Recordings of the clips run (300)."),
         QStringLiteral("N")},
        {QStringLiteral("plugin"), QStringLiteral("The plugin library to load."),
         QStringLiteral("PATH")},
    });
    commandline::parseOrExit(p, QStringLiteral("Runs the long start/stop cycles and the heavy "
                                               "recording for as long as asked."));
    Options o;
    commandline::readNumber(p, QStringLiteral("minutes"), o.minutes, kMinMinutes, kMaxMinutes);
    QString mode = QStringLiteral("both");
    commandline::readChoice(p, QStringLiteral("mode"), mode,
                            {QStringLiteral("cycles"), QStringLiteral("heavy"),
                             QStringLiteral("both"), QStringLiteral("lipsync"),
                             QStringLiteral("clips")});
    o.lipsync = mode == QStringLiteral("lipsync");
    o.clips = mode == QStringLiteral("clips");
    o.cycles = mode == QStringLiteral("cycles") || mode == QStringLiteral("both");
    o.heavy = mode == QStringLiteral("heavy") || mode == QStringLiteral("both");
    commandline::readNumber(p, QStringLiteral("ppm"), o.ppm, -5000, 5000);
    commandline::Size size{o.width, o.height};
    commandline::readSize(p, QStringLiteral("size"), size);
    o.width = size.first;
    o.height = size.second;
    commandline::readInteger(p, QStringLiteral("bitrate"), o.bitrate, 1, kMaxBitrate);
    commandline::readInteger(p, QStringLiteral("clips"), o.clipCount, kClipReference, kMaxClips);
    if (p.isSet(QStringLiteral("plugin")))
        o.plugin = p.value(QStringLiteral("plugin"));
    return o;
}

} // namespace

int main(int argc, char **argv)
{
    QCoreApplication app(argc, argv);
    const Options o = parseOptions();
    testutil::TempDir dir;
    int failures = 0;
    if (o.cycles)
        failures += soakCycles(o, dir.file("cycles.mp4"));
    if (o.heavy)
        failures += soakHeavy(o, dir.file("heavy.mp4"));
    if (o.lipsync)
        failures += soakLipSync(o, dir.file("lipsync.mp4"));
    if (o.clips)
        failures += soakClips(o, dir.file("clips.mp4"));
    return failures ? 1 : 0;
}
