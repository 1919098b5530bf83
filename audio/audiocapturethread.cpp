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
#include "media/threadexit.h"

namespace {

// Card names tried after the configured one.
const char *const kFallbackNames[] = {"kwvizdesk", "camera"};
// Re-opens after the microphone went, and the pause between them (microseconds).
constexpr int kReopenAttempts = 11;
constexpr unsigned long kReopenPauseUs = 10;

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

bool AudiocaptureThread::open()
{
    return open([] { return false; });
}

bool AudiocaptureThread::open(const std::function<bool()> &stopRequested)
{
    QString why;
    if (openSource(stopRequested, &why))
        return true;
    qWarning().noquote() << QStringLiteral("the camera's microphone is not recorded: %1").arg(why);
    return false;
}

// The sound server first: it shares the microphone with every other program and serves
// it even while another one records. The raw device is for machines without one.
bool AudiocaptureThread::openSource(const std::function<bool()> &stopRequested, QString *why)
{
    QStringList names{d->soundCardName};
    for (const char *fallback : kFallbackNames)
        if (!names.contains(QLatin1String(fallback), Qt::CaseInsensitive))
            names << QString::fromLatin1(fallback);
    d->source.reset();
    QString serverWhy, deviceWhy;
    auto server = std::make_unique<PulseSource>();
    if (server->open(names, stopRequested, &serverWhy)) {
        d->source = std::move(server);
    } else {
        server.reset();
        auto device = std::make_unique<AlsaSource>();
        if (!device->open(names, stopRequested, &deviceWhy)) {
            *why = QStringLiteral("%1 (sound server: %2)").arg(deviceWhy, serverWhy);
            return false;
        }
        d->source = std::move(device);
    }
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
        qWarning() << "sound capture failed, recording goes on without sound:" << e.what();
        endAfterFailure();
    } catch (...) {
        qWarning() << "sound capture failed, recording goes on without sound";
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

// Re-opens the microphone after it went; false when it stays gone.
bool AudiocaptureThread::reopen()
{
    QString why;
    for (int attempt = 1; attempt <= kReopenAttempts && d->bRun; ++attempt) {
        if (openSource([this] { return !d->bRun; }, &why))
            return true;
        if (attempt < kReopenAttempts)
            QThread::usleep(kReopenPauseUs);
    }
    if (!why.isEmpty())
        qWarning().noquote() << QStringLiteral("the camera's microphone did not come back: %1").arg(why);
    return false;
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
    while (capturing && d->bRun) {
        const CaptureSource::Read got = d->source->read(readBuffer, frames, d->bRun);
        if (got.status == CaptureSource::Status::Data) {
            cutter.addRead(readBuffer.data(), got.frames, got.endTime);
            while (cutter.hasBlock()) {
                AudioBlock block = cutter.takeBlock();
                const double stopAt = d->stopAtNs.load() / 1e9;
                if (block.captureTime + double(frames) / rate - halfBlock > stopAt) {
                    capturing = false;
                    break;
                }
                if (d->bPause) {
                    continues = false; // paused time is not recorded
                    continue;
                }
                block.continues = continues;
                continues = true;
                d->encode->addAudio(std::move(block));
            }
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
        if (!d->bRun || !reopen() || !d->source->start())
            break;
        // The encoder was set up for the first source's layout: one that came back with
        // another would hand it blocks it would misread, so capture ends.
        if (d->audioChannel != channels || d->sampleRate != rate) {
            printf("the microphone came back as %d channel(s) at %d Hz, not %d at %d: "
                   "sound capture ends\n",
                   d->audioChannel.load(), d->sampleRate.load(), channels, rate);
            d->audioChannel = channels;
            d->sampleRate = rate;
            break;
        }
    }

    d->source.reset();
    if (cutter.lostFrames() > 0)
        qWarning().noquote() << QStringLiteral("%1 ms of sound lost (%2 overruns): filled with "
                                               "silence")
                                    .arg(cutter.lostFrames() * 1000 / std::max(rate, 1))
                                    .arg(overruns);
    if (d->bRun && d->bRecord)
        qDebug() << "the microphone stopped delivering: recording goes on without sound";
    d->bOver = true;
    // The writer stops keeping a place for sound that will not come.
    d->encode->endAudio();
    printf("AudiocaptureThread over\n");
    fflush(stdout);
}
