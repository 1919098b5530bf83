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

namespace {

// An idle session (paused, or without a frame source) waits at most this long at a time
// for a wake-up, so that one missed (the component is set without the lock) costs little.
constexpr std::chrono::milliseconds kIdleWait{100};
// Longest wait for the feeder thread to come up.
constexpr std::chrono::milliseconds kFeederStartTimeout{5000};
// Longest wait for the first audio block before the recording goes on without it.
constexpr std::chrono::milliseconds kFirstAudioTimeout{3000};
// A start-up wait that the host's stop does not wake looks at the stop this often.
constexpr std::chrono::milliseconds kStopCheck{100};
// Answers to waitForRecordStart kept for callers that ask late.
constexpr size_t kAnswersKept = 16;
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

} // namespace

// The pipeline objects of one session. Declared in this order so that an exception
// unwinds capture, feeder, encoder: each destructor stops and joins its own thread.
struct RecordThread::Session {
    uint64_t generation = 0;          // the startRecord this session answers
    std::unique_ptr<FFmpegEncode> encoder;
    std::unique_ptr<VideoDataThread> feeder;
    std::unique_ptr<AudiocaptureThread> capture;
    qint64 startTime = kNoDuration;   // ms since the epoch; kNoDuration until the first frame
    qint64 endTime = kNoDuration;
};

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
    // Without the lock: a session idling for a component may miss this and look again
    // after kIdleWait.
    d->controlCondition.notify_all();
}

void RecordThread::startRecord()
{
    std::unique_lock<std::mutex> lock(d->mutex);
    if (d->wanted != 0)
        return; // a recording is requested: it is neither restarted nor disturbed
    const uint64_t generation = ++d->requested;
    d->pending = RecordingSettings{d->hasVideo, d->hasAudio, d->recWidth, d->recHeight,
                                   d->fps, d->videoBitrate, d->filename};
    // A pause left over from the last recording must not start this one paused.
    d->paused = false;
    d->wanted = generation;
    // A session still finishing the last file sees that it is no longer wanted.
    d->controlCondition.notify_all();
    if (d->threadActive)
        return; // the running thread takes this generation as soon as the last one ended
    // The thread is past its last look at the mutex, if it still runs at all.
    d->exit.join(this);
    d->exit.reset();
    d->threadActive = true;
    start(QThread::InheritPriority);
}

void RecordThread::stopRecord()
{
    std::unique_lock<std::mutex> lock(d->mutex);
    d->wanted = 0;
    d->controlCondition.notify_all();
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
    if (d->wanted != 0)
        d->paused = true;
    d->controlCondition.notify_all();
    return d->wanted != 0;
}

bool RecordThread::bResumeRec()
{
    std::unique_lock<std::mutex> lock(d->mutex);
    if (d->wanted != 0)
        d->paused = false;
    d->controlCondition.notify_all();
    return d->wanted != 0;
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
    // Answers for the newest startRecord: its own session's answer, kept under the mutex,
    // so a wake that came before this call is not lost and a finished start-up answers at
    // once. A session still finishing an earlier file does not answer for it.
    std::unique_lock<std::mutex> lock(d->mutex);
    const uint64_t target = d->requested;
    if (target == 0)
        return d->recording;
    const auto answered = [&] { return d->answered >= target; };
    if (msecs < 0)
        d->startCondition.wait(lock, answered);
    else if (!d->startCondition.wait_for(lock, std::chrono::milliseconds(msecs), answered))
        return false;
    for (const auto &[generation, recorded] : d->answers)
        if (generation == target)
            return recorded;
    return false; // superseded by newer generations before it was asked
}

// Publishes the answer for `generation` and wakes every waiter; the caller holds the mutex.
void RecordThread::answerLocked(uint64_t generation, bool recording)
{
    if (generation <= d->answered)
        return;
    d->answered = generation;
    d->answers.emplace_back(generation, recording);
    if (d->answers.size() > kAnswersKept)
        d->answers.pop_front();
    d->startCondition.notify_all();
}

// Session thread.
void RecordThread::answerStart(uint64_t generation, bool recording)
{
    std::lock_guard<std::mutex> lock(d->mutex);
    d->recording = recording;
    answerLocked(generation, recording);
}

void RecordThread::run()
{
    for (;;) {
        Session s;
        RecordingSettings settings;
        {
            std::lock_guard<std::mutex> lock(d->mutex);
            // A generation stopped before its session began will never record.
            if (d->wanted != d->requested)
                answerLocked(d->requested, false);
            if (d->wanted == 0) {
                d->threadActive = false;
                break;
            }
            s.generation = d->wanted;
            settings = d->pending;
        }
        try {
            runSession(s, settings);
        } catch (const std::exception &e) {
            qWarning() << "recording session ended by an exception:" << e.what();
        } catch (...) {
            qWarning() << "recording session ended by an unknown exception";
        }
        std::lock_guard<std::mutex> lock(d->mutex);
        d->recording = false;
        answerLocked(s.generation, false);
        // A session that ended by itself (it gave up, or its source failed) leaves the
        // recorder able to start again.
        if (d->wanted == s.generation)
            d->wanted = 0;
    }
    d->exit.markReturned();
}

bool RecordThread::stillWanted(const Session &s) const
{
    return d->wanted.load() == s.generation;
}

// Waits for a change while there is nothing to take: a stop, a pause or resume, and for
// a session that needs one, a frame source.
void RecordThread::waitWhileIdle(const Session &s, bool paused, bool needsComponent)
{
    std::unique_lock<std::mutex> lock(d->mutex);
    d->controlCondition.wait_for(lock, kIdleWait, [&] {
        return !stillWanted(s) || d->paused != paused
            || (needsComponent && !paused && d->component.load());
    });
}

// Opens the camera's microphone; false when it failed and the user has been told.
bool RecordThread::openMicrophone(Session &s)
{
    s.capture = std::make_unique<AudiocaptureThread>(s.encoder.get());
    if (s.capture->open([&] { return !stillWanted(s); }))
        return true;
    s.capture.reset();
    if (!stillWanted(s))
        return false; // stopped while a busy device was retried: not the microphone's fault
    d->hasAudio = false;
    qDebug() << "打开麦失败，将不录音";
    puts("打开麦失败，将不录音");
    fflush(stdout);
    return false;
}

void RecordThread::runSession(Session &s, const RecordingSettings &settings)
{
    d->recording = false;
    if (!settings.audio && !settings.video) {
        qDebug() << "未配置录制视频或者音频";
        answerStart(s.generation, false);
        return;
    }

    ComponentUse use(d->component.load());
    // Destroyed before `use`: endUse comes after the whole pipeline is gone.
    struct Teardown {
        Session &s;
        ~Teardown()
        {
            s.capture.reset();
            s.feeder.reset();
            s.encoder.reset();
        }
    } teardown{s};
    s.encoder = std::make_unique<FFmpegEncode>();
    const bool audio = settings.audio && openMicrophone(s);
    if (!audio && (!settings.video || !stillWanted(s))) {
        answerStart(s.generation, false);
        return;
    }

    FFmpegEncode &encoder = *s.encoder;
    // Sizes keep their low 32 bits, as the encoder's unsigned settings take them.
    encoder.setWidth(static_cast<unsigned int>(settings.width));
    encoder.setHeight(static_cast<unsigned int>(settings.height));
    encoder.setFps(static_cast<unsigned int>(settings.fps));
    encoder.setVideoBitrate(settings.bitrate);
    encoder.setVideo_path(settings.filename);
    encoder.setRecVideo(settings.video);
    encoder.setRecAudio(audio);
    if (audio) {
        encoder.setAudioChannel(static_cast<unsigned int>(s.capture->audioChannel()));
        encoder.setaudioSampleRate(static_cast<unsigned int>(s.capture->sampleRate()));
    }
    encoder.setRun(true);
    // Announced once the output is open, not before: a recording whose file cannot be
    // written must answer false to waitForRecordStart instead of a brief true.
    if (!encoder.waitForOpen()) {
        qDebug() << "record failed: the output file could not be opened";
        stopAfterFailedOpen(s);
        return;
    }
    // What the container can hold is what is recorded, and the host can see it.
    if (settings.video && !encoder.recVideo())
        d->hasVideo = false;
    if (audio && !encoder.recAudio()) {
        d->hasAudio = false;
        s.capture.reset();
    }

    if (encoder.recVideo())
        recordVideo(s);
    else
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
    s.feeder = std::make_unique<VideoDataThread>();
    VideoDataThread &feeder = *s.feeder;
    if (s.capture)
        s.capture->startThread();
    answerStart(s.generation, true);

    bool firstFramePending = true;
    while (stillWanted(s)) {
        const bool paused = d->paused;
        if (s.capture)
            s.capture->setPause(paused);
        feeder.setPause(paused);
        PluginComponent *component = d->component.load();
        if (paused || !component) {
            // Nothing is taken while paused; a video recording without a frame source
            // records nothing until it gets one.
            waitWhileIdle(s, paused, true);
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
            startBehindFirstFrame(s);
            firstFramePending = false;
        }
    }
    stopVideo(s);
}

// Starts the capture and the feeder behind the first frame.
void RecordThread::startBehindFirstFrame(Session &s)
{
    FFmpegEncode &encoder = *s.encoder;
    // One origin for picture and sound: frame 0 is due now, and the sound is placed
    // against it whenever its first block comes.
    encoder.setTimelineOrigin(std::chrono::steady_clock::now());
    if (s.capture)
        startCapture(*s.capture, encoder);
    encoder.startEncode();
    s.feeder->start(&encoder);
    s.feeder->waitForReady(kFeederStartTimeout);

    // The recording starts with a block of sound queued, unless the microphone is gone
    // or silent for too long: then the picture goes on without waiting for it.
    if (s.capture) {
        const auto deadline = std::chrono::steady_clock::now() + kFirstAudioTimeout;
        while (stillWanted(s) && std::chrono::steady_clock::now() < deadline
               && !encoder.waitForAudio(kStopCheck)) {
        }
    }
    s.startTime = nowMs();
    logTime(__LINE__, s.startTime);
}

// The recording lasted end - start ms, or kNoDuration when it never started.
static qint64 durationMs(qint64 start, qint64 end)
{
    return start == kNoDuration ? kNoDuration : end - start;
}

void RecordThread::stopVideo(Session &s)
{
    // Feeder, capture, encoder. The picture and the sound are told at the same moment, so
    // that they end together; both are joined before the encoder finishes the file.
    s.feeder->stop();
    if (s.capture)
        s.capture->stopThread();
    s.feeder.reset();
    s.capture.reset();

    s.endTime = nowMs();
    logTime(__LINE__, s.endTime);
    const qint64 duration = durationMs(s.startTime, s.endTime);
    qDebug() << "record MSecs:" << duration;
    printf("msecs:%d\n", static_cast<int>(duration));
    fflush(stdout);

    s.encoder->finish();
    d->recording = false;
    qDebug() << "record over";
    s.encoder.reset();
}

// The encoder could not open its output: take down what was started, record nothing.
void RecordThread::stopAfterFailedOpen(Session &s)
{
    s.capture.reset();
    s.feeder.reset();
    s.encoder.reset();
    answerStart(s.generation, false);
}

void RecordThread::recordAudioOnly(Session &s)
{
    FFmpegEncode &encoder = *s.encoder;
    AudiocaptureThread &capture = *s.capture;
    // `capture` is stopped and destroyed before the encoder finishes.
    capture.startThread();
    startCapture(capture, encoder);
    s.startTime = nowMs();
    logTime(__LINE__, s.startTime);
    answerStart(s.generation, true);

    while (stillWanted(s)) {
        const bool paused = d->paused;
        capture.setPause(paused);
        waitWhileIdle(s, paused, false);
    }

    s.endTime = nowMs();
    logTime(__LINE__, s.endTime);
    s.capture.reset();
    encoder.finish();

    const qint64 duration = durationMs(s.startTime, s.endTime);
    qDebug() << "record MSecs:" << duration;
    qDebug() << "record over";
    printf("msec:%d\n", static_cast<int>(duration));
    fflush(stdout);
    d->recording = false;
    s.encoder.reset();
}
