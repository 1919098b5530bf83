#include "audiocapturethread.h"

#include <QDebug>
#include <QStringList>
#include <algorithm>
#include <atomic>
#include <chrono>
#include <climits>
#include <condition_variable>
#include <cstdint>
#include <cstdio>
#include <exception>
#include <memory>
#include <mutex>

#include "audio/alsasource.h"
#include "audio/blockcutter.h"
#include "audio/pulsesource.h"
#include "encode/ffmpegencode.h"
#include "media/logcategories.h"
#include "media/threadexit.h"

namespace {

// Card names tried after the configured one.
const char *const kFallbackNames[] = {"kwvizdesk", "camera"};
// A microphone that went is looked for this often for as long as the recording runs: a
// USB device takes one to three seconds to come back, a sound server a few. A stop waits
// for one look at most.
constexpr std::chrono::milliseconds kReopenPause{500};

double steadySeconds()
{
    return std::chrono::duration<double>(std::chrono::steady_clock::now().time_since_epoch()).count();
}

} // namespace

// State shared by the session thread and the capture thread. The flags are read without
// a lock; bRecord and bRun are written under controlMutex, so that the capture thread's
// waits on controlCondition see every change.
class AudiocaptureThreadPrivate
{
public:
    std::mutex controlMutex;
    std::condition_variable controlCondition; // signalled by startRecord and stopThread
    std::atomic<bool> bRecord{false};   // capture may begin (startRecord)
    std::atomic<bool> bRun{false};      // the capture loop keeps going
    // When stopThread was called (steady clock, ns since its epoch): sound captured after
    // it is not handed on, however late the loop sees the stop.
    std::atomic<int64_t> stopAtNs{INT64_MAX};
    std::atomic<bool> bOver{false};     // the capture loop has ended
    std::atomic<bool> bPause{false};    // blocks are read but dropped
    std::atomic<int> frameSize{1152};   // frames per read and per block; set before startRecord
    std::atomic<int> audioChannel{1};   // channels
    std::atomic<int> sampleRate{48000}; // Hz, as granted by the device
    // The recording began through the sound server: a lost microphone is waited for
    // there, never taken from under it on the raw device. Set by the first open().
    bool serverPath = false;
    bool opened = false;                // open() has succeeded once
    // What the microphone's absences cost, written by the capture thread.
    std::atomic<double> recordFrom{0};  // steady s at startRecord
    std::atomic<long> missingFrames{0}; // frames it did not give (gone, overruns): silence
    std::atomic<int> losses{0};         // times it went
    std::atomic<double> lostAt{-1};     // steady s it last went; -1: never
    std::atomic<double> backAt{-1};     // steady s it last came back; -1: not since
    QString soundCardName = QStringLiteral("KW-08P USBCamera"); // wanted card name
    // The open microphone, owned: set by open() before the thread starts, then used and
    // replaced by the capture thread only.
    std::unique_ptr<CaptureSource> source;
    FFmpegEncode *encode = nullptr;     // receiver of the blocks, not owned
    ThreadExit exit;                    // joins run() visibly to the sanitizer
};

AudiocaptureThread::AudiocaptureThread(FFmpegEncode *encode, QObject *parent)
    : QThread(parent)
    , d(new AudiocaptureThreadPrivate)
{
    d->encode = encode;
}

AudiocaptureThread::~AudiocaptureThread()
{
    // Never free the state under a running loop.
    stopThread();
    d->exit.join(this);
    delete d;
}

void AudiocaptureThread::startThread()
{
    {
        std::lock_guard<std::mutex> lock(d->controlMutex);
        d->bRecord = false;
        d->bRun = true;
        d->stopAtNs = INT64_MAX;
    }
    d->bOver = false;
    d->exit.reset();
    start(QThread::InheritPriority);
}

void AudiocaptureThread::stopThread()
{
    {
        std::lock_guard<std::mutex> lock(d->controlMutex);
        if (d->bRun)
            d->stopAtNs = std::chrono::steady_clock::now().time_since_epoch().count();
        d->bRecord = false;
        d->bRun = false;
    }
    d->controlCondition.notify_all();
}

bool AudiocaptureThread::isOver() const { return d->bOver; }

void AudiocaptureThread::startRecord()
{
    d->recordFrom = steadySeconds();
    {
        std::lock_guard<std::mutex> lock(d->controlMutex);
        d->bRecord = true;
    }
    d->controlCondition.notify_all();
}

void AudiocaptureThread::setPause(bool on) { d->bPause = on; }
int AudiocaptureThread::frameSize() const { return d->frameSize; }
void AudiocaptureThread::setFrameSize(int samples) { d->frameSize = samples; }
int AudiocaptureThread::audioChannel() { return d->audioChannel; }
int AudiocaptureThread::sampleRate() { return d->sampleRate; }
QString AudiocaptureThread::soundCardName() const { return d->soundCardName; }
void AudiocaptureThread::setSoundCardName(const QString &name) { d->soundCardName = name; }

QString AudiocaptureThread::snd_card_find(QString name) { return AlsaSource::findCard(name); }

AudiocaptureThread::Outage AudiocaptureThread::outage() const
{
    Outage o;
    o.losses = d->losses;
    o.missingMs = d->missingFrames * 1000 / std::max(d->sampleRate.load(), 1);
    const double from = d->recordFrom, lostAt = d->lostAt, backAt = d->backAt;
    o.lostAt = lostAt < 0 ? -1 : std::max(0.0, lostAt - from);
    o.backAt = backAt < 0 ? -1 : std::max(0.0, backAt - from);
    return o;
}

bool AudiocaptureThread::open()
{
    return open([] { return false; });
}

bool AudiocaptureThread::open(const std::function<bool()> &stopRequested)
{
    QString why;
    if (openSource(stopRequested, &why))
        return true;
    qCWarning(lcAudio()).noquote()
        << QStringLiteral("the camera's microphone is not recorded: %1").arg(why);
    return false;
}

// The sound server first: it shares the microphone with every other program and serves
// it even while another one records. The raw device is for machines without one.
// Once a recording has its microphone, it keeps to the same path.
bool AudiocaptureThread::openSource(const std::function<bool()> &stopRequested, QString *why)
{
    QStringList names{d->soundCardName};
    for (const char *fallback : kFallbackNames)
        if (!names.contains(QLatin1String(fallback), Qt::CaseInsensitive))
            names << QString::fromLatin1(fallback);
    d->source.reset();
    QString serverWhy, deviceWhy;
    auto server = std::make_unique<PulseSource>();
    if ((!d->opened || d->serverPath) && server->open(names, stopRequested, &serverWhy)) {
        d->source = std::move(server);
    } else if (d->opened && d->serverPath) {
        *why = serverWhy;
        return false;
    } else {
        server.reset();
        auto device = std::make_unique<AlsaSource>();
        if (!device->open(names, stopRequested, &deviceWhy)) {
            *why = QStringLiteral("%1 (sound server: %2)").arg(deviceWhy, serverWhy);
            return false;
        }
        d->source = std::move(device);
    }
    if (!d->opened)
        d->serverPath = dynamic_cast<PulseSource *>(d->source.get()) != nullptr;
    d->opened = true;
    d->sampleRate = d->source->rate();
    d->audioChannel = d->source->channels();
    return true;
}

void AudiocaptureThread::run()
{
    // Nothing may leave a worker thread: a failure here costs the sound, not the host.
    try {
        capture();
    } catch (const std::exception &e) {
        qCWarning(lcAudio()) << "sound capture failed, recording goes on without sound:" << e.what();
        endAfterFailure();
    } catch (...) {
        qCWarning(lcAudio()) << "sound capture failed, recording goes on without sound";
        endAfterFailure();
    }
    d->exit.markReturned();
}

void AudiocaptureThread::endAfterFailure()
{
    d->source.reset();
    d->bOver = true;
    d->encode->endAudio();
}

// One look for the microphone that went, started; false while it stays gone.
bool AudiocaptureThread::reopen()
{
    QString why;
    if (openSource([this] { return !d->bRun; }, &why) && d->source->start())
        return true;
    d->source.reset();
    return false;
}

// Waits up to `pause` unless the thread is stopped first (false).
bool AudiocaptureThread::pauseUnlessStopped(std::chrono::milliseconds pause)
{
    std::unique_lock<std::mutex> lock(d->controlMutex);
    d->controlCondition.wait_for(lock, pause, [&] { return !d->bRun; });
    return d->bRun;
}

// Waits until capture may begin (true) or the thread is stopped first (false).
bool AudiocaptureThread::waitForRecord()
{
    std::unique_lock<std::mutex> lock(d->controlMutex);
    d->controlCondition.wait(lock, [&] { return d->bRecord || !d->bRun; });
    return d->bRun;
}

void AudiocaptureThread::capture()
{
    // A recording stopped before its first frame never calls startRecord: stop ends the wait.
    waitForRecord();

    const int frames = d->frameSize;
    const int channels = d->audioChannel;
    const int rate = d->sampleRate;
    std::vector<int16_t> readBuffer;
    bool capturing = d->bRun && frames > 0 && d->source && d->source->start();

    BlockCutter cutter(frames, std::max(channels, 1), std::max(rate, 1));
    // A block that ends more than half a block after the stop is not part of the recording.
    const double halfBlock = 0.5 * frames / std::max(rate, 1);
    bool continues = false; // the next block follows the last one handed on
    int overruns = 0;
    // Hands on the whole blocks cut; false once they pass the stop.
    const auto handOn = [&] {
        d->missingFrames = cutter.lostFrames();
        while (cutter.hasBlock()) {
            AudioBlock block = cutter.takeBlock();
            const double stopAt = d->stopAtNs.load() / 1e9;
            if (block.captureTime + double(frames) / rate - halfBlock > stopAt)
                return false;
            if (d->bPause) {
                continues = false; // paused time is not recorded
                continue;
            }
            block.continues = continues;
            continues = true;
            d->encode->addAudio(std::move(block));
        }
        return true;
    };
    while (capturing && d->bRun) {
        const CaptureSource::Read got = d->source->read(readBuffer, frames, d->bRun);
        if (got.status == CaptureSource::Status::Data) {
            cutter.addRead(readBuffer.data(), got.frames, got.endTime);
            capturing = handOn();
            continue;
        }
        if (got.status == CaptureSource::Status::Stopped)
            break;
        if (got.status == CaptureSource::Status::Gap) {
            // The sound lost meanwhile becomes silence.
            ++overruns;
            cutter.beginGap(false);
            continue;
        }
        d->source.reset();
        cutter.beginGap(true);
        d->lostAt = steadySeconds();
        d->backAt = -1;
        ++d->losses;
        qCWarning(lcAudio()).noquote()
            << QStringLiteral("the camera's microphone went: silence is recorded while it is "
                              "looked for every %1 ms")
                   .arg(kReopenPause.count());
        // Silence on the timeline while it is gone, handed on as time passes.
        bool back = false;
        while (capturing && d->bRun && !(back = reopen())) {
            cutter.fillGap(steadySeconds());
            capturing = handOn() && pauseUnlessStopped(kReopenPause);
        }
        if (!back)
            break;
        d->backAt = steadySeconds();
        qCWarning(lcAudio()).noquote()
            << QStringLiteral("the camera's microphone is back after %1 s")
                   .arg(d->backAt - d->lostAt, 0, 'f', 1);
        // The encoder was set up for the first source's layout: one that came back with
        // another would hand it blocks it would misread, so capture ends.
        if (d->audioChannel != channels || d->sampleRate != rate) {
            qCWarning(lcAudio()).noquote()
                << QStringLiteral("the microphone came back as %1 channel(s) at %2 Hz, not %3 at "
                                  "%4: sound capture ends")
                       .arg(channels).arg(rate).arg(d->audioChannel.load()).arg(d->sampleRate.load());
            d->audioChannel = channels;
            d->sampleRate = rate;
            break;
        }
    }

    d->source.reset();
    d->missingFrames = cutter.lostFrames();
    if (cutter.lostFrames() > 0)
        qCWarning(lcAudio()).noquote()
            << QStringLiteral("%1 ms of sound lost (%2 overruns): filled with silence")
                   .arg(cutter.lostFrames() * 1000 / std::max(rate, 1))
                   .arg(overruns);
    if (d->bRun && d->bRecord)
        qCWarning(lcAudio()) << "the microphone stopped delivering: recording goes on without sound";
    d->bOver = true;
    // The writer stops keeping a place for sound that will not come.
    d->encode->endAudio();
    printf("AudiocaptureThread over\n");
    fflush(stdout);
}
