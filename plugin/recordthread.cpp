#include "recordthread.h"
#include "recordthread_p.h"

#include "audio/audiocapturethread.h"
#include "encode/ffmpegencode.h"
#include "encode/videodatathread.h"
#include "media/ffmpeglog.h"

#include <QDateTime>

#include <QDebug>
#include <chrono>
#include <cstdio>
#include <memory>

RecordThread::RecordThread(QObject *parent)
    : QThread(parent)
    , d(new RecordThreadPrivate)
{
    ffmpeglog::route();
}

RecordThread::~RecordThread()
{
    // Destroying a running QThread aborts the process: end the session first.
    stopRecord();
    d->exit.join(this);
    delete d;
}

void RecordThread::setPluginComponent(PluginComponent *component)
{
    d->component.store(component);
}

void RecordThread::startRecord()
{
    std::unique_lock<std::mutex> lock(d->mutex);
    if (d->runRequested)
        return;
    d->runRequested = true;
    // A pause left over from the last recording must not start this one paused.
    d->paused = false;
    d->startPending = true;
    if (d->threadActive) {
        // The last session is still stopping: its thread runs this one next, so the
        // request is neither lost nor started twice.
        d->restartPending = true;
        return;
    }
    // The thread is past its last look at the mutex, if it still runs at all.
    d->exit.join(this);
    d->exit.reset();
    d->threadActive = true;
    start(QThread::InheritPriority);
}

void RecordThread::stopRecord()
{
    std::unique_lock<std::mutex> lock(d->mutex);
    d->runRequested = false;
    d->restartPending = false;
}

bool RecordThread::isRecording()
{
    return d->recording;
}

bool RecordThread::hasVideo() const
{
    return d->hasVideo;
}

void RecordThread::setHasVideo(bool on)
{
    std::unique_lock<std::mutex> lock(d->mutex);
    d->hasVideo = on;
}

bool RecordThread::hasAudio() const
{
    return d->hasAudio;
}

void RecordThread::setHasAudio(bool on)
{
    std::unique_lock<std::mutex> lock(d->mutex);
    d->hasAudio = on;
}

QString RecordThread::filename() const
{
    // Read under the mutex: a copy taken during setFilename's assignment would race.
    std::unique_lock<std::mutex> lock(d->mutex);
    return d->filename;
}

void RecordThread::setFilename(const QString &name)
{
    std::unique_lock<std::mutex> lock(d->mutex);
    d->filename = name;
}

bool RecordThread::bPauseRec()
{
    std::unique_lock<std::mutex> lock(d->mutex);
    if (d->runRequested)
        d->paused = true;
    return d->runRequested;
}

bool RecordThread::bResumeRec()
{
    std::unique_lock<std::mutex> lock(d->mutex);
    if (d->runRequested)
        d->paused = false;
    return d->runRequested;
}

void RecordThread::vSetRecSize(long width, long height)
{
    // Odd sizes are rounded up: YUV 4:2:0 needs even dimensions.
    d->recWidth = (width % 2) ? width + 1 : width;
    d->recHeight = (height % 2) ? height + 1 : height;
}

int RecordThread::fps() const
{
    return d->fps;
}

void RecordThread::setFps(int fps)
{
    d->fps = fps;
}

unsigned int RecordThread::videoBitrate() const
{
    return d->videoBitrate;
}

void RecordThread::setVideoBitrate(unsigned int bitrate)
{
    d->videoBitrate = bitrate;
}

bool RecordThread::waitForRecordStart(int msecs)
{
    // The session's answer is kept in startPending under the mutex, so a wake that
    // came before this call is not lost and a finished start-up answers at once.
    std::unique_lock<std::mutex> lock(d->mutex);
    const auto answered = [this] { return !d->startPending; };
    if (msecs < 0)
        d->startCondition.wait(lock, answered);
    else
        d->startCondition.wait_for(lock, std::chrono::milliseconds(msecs), answered);
    return d->recording;
}

// Session thread: publishes whether the session records and wakes every waiter.
void RecordThread::announceStart(bool recording)
{
    std::lock_guard<std::mutex> lock(d->mutex);
    d->recording = recording;
    d->startPending = false;
    d->startCondition.notify_all();
}

void RecordThread::run()
{
    for (;;) {
        try {
            runSession();
        } catch (const std::exception &e) {
            qWarning() << "recording session ended by an exception:" << e.what();
        } catch (...) {
            qWarning() << "recording session ended by an unknown exception";
        }
        std::lock_guard<std::mutex> lock(d->mutex);
        d->recording = false;
        d->startPending = false;
        d->startCondition.notify_all();
        if (d->restartPending) {
            d->restartPending = false;
            continue;
        }
        // A session that gave up leaves the recorder able to start again.
        d->runRequested = false;
        d->threadActive = false;
        break;
    }
    d->exit.markReturned();
}

namespace {

// Start-up waits poll at this period (microseconds).
constexpr unsigned long kStartupPollUs = 10;
// The audio-only loop polls the host's flags at this period (microseconds).
constexpr unsigned long kAudioLoopPollUs = 100;
// The video path's stop sequence polls at this period (seconds).
constexpr unsigned long kStopPollSeconds = 1;
// While paused, or without a component, the video loop sleeps this long per pass (ms).
constexpr unsigned long kIdlePassMs = 5;
// Longest wait for the feeder thread to come up (ms).
constexpr qint64 kFeederStartTimeoutMs = 5000;
// Longest wait for the first audio block before the recording goes on without it (ms).
constexpr qint64 kFirstAudioTimeoutMs = 3000;
// Duration printed when no first frame ever started the recording.
constexpr qint64 kNoDuration = -1;

qint64 nowMs()
{
    return QDateTime::currentMSecsSinceEpoch();
}

void logTime(int line, qint64 ms)
{
    qDebug() << line << "run" << ms;
}

// Brackets the session's use of the host component: endUse is the very last action,
// also when the session is left by an exception.
class ComponentUse
{
public:
    explicit ComponentUse(PluginComponent *component) : m_component(component)
    {
        if (m_component)
            m_component->beginUse();
    }
    ~ComponentUse()
    {
        if (m_component)
            m_component->endUse();
    }
    ComponentUse(const ComponentUse &) = delete;
    ComponentUse &operator=(const ComponentUse &) = delete;

private:
    PluginComponent *m_component;
};

// Polls until `done` or `failed` holds; false when it ended on `failed`.
template <typename Done, typename Failed>
bool pollUntil(Done done, Failed failed, unsigned long periodUs)
{
    while (!done()) {
        if (failed())
            return false;
        QThread::usleep(periodUs);
    }
    return true;
}

// The encoder has opened its output (true) or has given up (false).
bool waitForEncoderOpen(FFmpegEncode &encoder)
{
    return pollUntil([&] { return encoder.isEncodeOpen(); },
                     [&] { return encoder.isFailed() || encoder.isOver(); }, kStartupPollUs);
}

} // namespace

// The pipeline objects of one session. Declared in this order so that an exception
// unwinds capture, feeder, encoder, then the component: each destructor stops and
// joins its own thread.
struct RecordThread::Session {
    std::unique_ptr<FFmpegEncode> encoder;
    std::unique_ptr<VideoDataThread> feeder;
    std::unique_ptr<AudiocaptureThread> capture;
    qint64 startTime = kNoDuration; // ms since the epoch; kNoDuration until the first frame
    qint64 endTime = kNoDuration;
};

void RecordThread::runSession()
{
    d->recording = false;
    if (!d->hasAudio && !d->hasVideo) {
        qDebug() << "未配置录制视频或者音频";
        announceStart(false);
        return;
    }

    ComponentUse use(d->component.load());
    Session s;
    s.encoder = std::make_unique<FFmpegEncode>();

    if (d->hasAudio) {
        s.capture = std::make_unique<AudiocaptureThread>(s.encoder.get());
        if (!s.capture->open()) {
            d->hasAudio = false;
            qDebug() << "打开麦失败，将不录音";
            puts("打开麦失败，将不录音");
            fflush(stdout);
            s.capture.reset();
        }
    }
    if (!d->hasAudio && !d->hasVideo) {
        announceStart(false);
        return;
    }

    FFmpegEncode &encoder = *s.encoder;
    // Sizes keep their low 32 bits, as the encoder's unsigned settings take them.
    encoder.setWidth(static_cast<unsigned int>(d->recWidth.load()));
    encoder.setHeight(static_cast<unsigned int>(d->recHeight.load()));
    encoder.setFps(static_cast<unsigned int>(d->fps.load()));
    encoder.setVideoBitrate(d->videoBitrate);
    encoder.setVideo_path(filename());
    encoder.setRecVideo(d->hasVideo);
    encoder.setRecAudio(d->hasAudio);
    if (d->hasAudio && s.capture) {
        encoder.setAudioChannel(static_cast<unsigned int>(s.capture->audioChannel()));
        encoder.setaudioSampleRate(static_cast<unsigned int>(s.capture->sampleRate()));
    }

    if (d->hasVideo || !d->hasAudio)
        recordVideo(s);
    else if (s.capture)
        recordAudioOnly(s);
}

// Hands the capture the encoder's block size and lets it record.
static void startCapture(AudiocaptureThread &capture, FFmpegEncode &encoder)
{
    capture.setFrameSize(encoder.audioFrameSize());
    capture.startRecord();
}

void RecordThread::recordVideo(Session &s)
{
    FFmpegEncode &encoder = *s.encoder;
    s.feeder = std::make_unique<VideoDataThread>();
    VideoDataThread &feeder = *s.feeder;
    if (s.capture)
        s.capture->startThread();
    encoder.setRun(true);

    // Announced once the output is open, not before: a recording whose file cannot be
    // written must answer false to waitForRecordStart instead of a brief true.
    if (!waitForEncoderOpen(encoder)) {
        qDebug() << "record failed: the output file could not be opened";
        stopAfterFailedOpen(s);
        return;
    }
    announceStart(true);

    bool firstFramePending = true;
    while (d->runRequested) {
        const bool paused = d->paused;
        if (s.capture)
            s.capture->setPause(paused);
        feeder.setPause(paused);
        if (paused) {
            // Yield the processor: nothing is taken while paused.
            QThread::msleep(kIdlePassMs);
            continue;
        }

        if (s.capture && s.capture->isOver() && encoder.recAudio()) {
            // The microphone is gone for good: the picture must not wait for its sound.
            qDebug() << "the microphone stopped delivering: recording goes on without sound";
            encoder.setRecAudio(false);
        }

        PluginComponent *component = d->component.load();
        if (!component) {
            // A video recording without a frame source records nothing until it gets one.
            QThread::msleep(kIdlePassMs);
            continue;
        }
        bool handed = false;
        {
            cv::Mat frame;
            bool got = false;
            try {
                got = component->getFrame(frame);
            } catch (const std::exception &e) {
                // The recording so far is kept: stop as if the host had asked to.
                qWarning() << "getFrame threw, stopping the recording:" << e.what();
                break;
            } catch (...) {
                qWarning() << "getFrame threw, stopping the recording";
                break;
            }
            if (got && frame.data && frame.dims > 0 && frame.total() > 0) {
                feeder.setData(frame);
                handed = true;
            }
        }
        if (handed && firstFramePending) {
            if (!startBehindFirstFrame(s))
                break;
            firstFramePending = false;
        }
    }
    stopVideo(s);
}

// Starts the capture and the feeder behind the first frame; false when the encoder
// has failed meanwhile.
bool RecordThread::startBehindFirstFrame(Session &s)
{
    FFmpegEncode &encoder = *s.encoder;
    if (!waitForEncoderOpen(encoder))
        return false;
    if (s.capture)
        startCapture(*s.capture, encoder);
    encoder.startEncode();
    s.feeder->start(&encoder);

    const qint64 feederDeadline = nowMs() + kFeederStartTimeoutMs;
    pollUntil([&] { return s.feeder->isReady(); },
              [&] { return nowMs() > feederDeadline; }, kStartupPollUs);

    // The recording starts with a block of sound queued, unless the microphone is gone
    // or silent for too long: then the picture goes on without waiting for it.
    const qint64 audioDeadline = nowMs() + kFirstAudioTimeoutMs;
    pollUntil([&] { return !d->hasAudio || encoder.audioQueueCount() > 0; },
              [&] {
                  return !d->runRequested || (s.capture && s.capture->isOver())
                      || nowMs() > audioDeadline;
              },
              kStartupPollUs);

    s.startTime = nowMs();
    logTime(__LINE__, s.startTime);
    return true;
}

// The recording lasted end - start ms, or kNoDuration when it never started.
static qint64 durationMs(qint64 start, qint64 end)
{
    return start == kNoDuration ? kNoDuration : end - start;
}

void RecordThread::stopVideo(Session &s)
{
    FFmpegEncode &encoder = *s.encoder;
    s.feeder->stop();
    if (s.capture)
        s.capture->stopThread();
    QThread::sleep(1);
    encoder.setRun(false);

    s.endTime = nowMs();
    logTime(__LINE__, s.endTime);
    const qint64 duration = durationMs(s.startTime, s.endTime);
    qDebug() << "record MSecs:" << duration;
    printf("msecs:%d\n", static_cast<int>(duration));
    fflush(stdout);

    // A failed encoder never reports over: its failure ends the wait too.
    while (!encoder.isOver() && !encoder.isFailed())
        QThread::sleep(kStopPollSeconds);
    if (s.capture) {
        while (!s.capture->isOver())
            QThread::sleep(kStopPollSeconds);
        s.capture.reset();
    }
    d->recording = false;
    qDebug() << "record over";
    s.feeder.reset();
    s.encoder.reset();
}

// The encoder could not open its output: take down what was started, record nothing.
void RecordThread::stopAfterFailedOpen(Session &s)
{
    if (s.capture) {
        s.capture->stopThread();
        s.capture.reset();
    }
    s.feeder.reset();
    s.encoder.reset();
    announceStart(false);
}

void RecordThread::recordAudioOnly(Session &s)
{
    FFmpegEncode &encoder = *s.encoder;
    AudiocaptureThread &capture = *s.capture;
    capture.startThread();
    encoder.setRun(true);
    if (!waitForEncoderOpen(encoder)) {
        qDebug() << "record failed: the output file could not be opened";
        stopAfterFailedOpen(s);
        return;
    }
    startCapture(capture, encoder);
    s.startTime = nowMs();
    logTime(__LINE__, s.startTime);
    announceStart(true);

    while (d->runRequested) {
        capture.setPause(d->paused);
        QThread::usleep(kAudioLoopPollUs);
    }

    s.endTime = nowMs();
    logTime(__LINE__, s.endTime);
    QThread::usleep(1000000);
    capture.stopThread();
    while (!capture.isOver())
        QThread::usleep(kStartupPollUs);
    encoder.setRun(false);
    while (!encoder.isOver() && !encoder.isFailed())
        QThread::usleep(kStartupPollUs);
    s.capture.reset();

    const qint64 duration = durationMs(s.startTime, s.endTime);
    qDebug() << "record MSecs:" << duration;
    qDebug() << "record over";
    printf("msec:%d\n", static_cast<int>(duration));
    fflush(stdout);
    d->recording = false;
    s.encoder.reset();
}
