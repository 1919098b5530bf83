#include "recordthread.h"
#include "recordthread_p.h"

#include "audio/audiocapturethread.h"
#include "encode/ffmpegencode.h"
#include "encode/videodatathread.h"
#include "media/mediawriter.h"
#include "media/ffmpeglog.h"
#include "media/frameconverter.h"
#include "media/logcategories.h"

#include <QDateTime>
#include <QFileInfo>

#include <QDebug>
#include <chrono>
#include <cstdio>
#include <malloc.h>
#include <memory>
#include <system_error>

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
// A source with no frame ready is asked again after this long, or a frame period when
// that is shorter: a non-blocking source costs no core, a ready frame waits little.
constexpr std::chrono::milliseconds kNoFrameWait{10};
// The status's counters and the checks for a recording that must end are refreshed this
// often while recording.
constexpr std::chrono::milliseconds kProgressPeriod{100};
// The host's own stop, as the status says it.
const char kStoppedByHost[] = "stopped by the host";

qint64 nowMs()
{
    return QDateTime::currentMSecsSinceEpoch();
}

void logTime(int line, qint64 ms)
{
    qDebug() << line << "run" << ms;
}

} // namespace

// The frame source of one recording, pinned when it begins (or when the first one is set,
// for a recording started without one): a source set later is used from the next
// recording, and endUse reaches the source that got beginUse.
class ComponentUse
{
public:
    ComponentUse() = default;
    ~ComponentUse() { end(); }
    ComponentUse(const ComponentUse &) = delete;
    ComponentUse &operator=(const ComponentUse &) = delete;

    PluginComponent *get() const { return m_component; }
    void adopt(PluginComponent *component)
    {
        if (m_component || !component)
            return;
        m_component = component;
        m_component->beginUse();
    }
    void end()
    {
        if (m_component)
            m_component->endUse();
        m_component = nullptr;
    }

private:
    PluginComponent *m_component = nullptr;
};

// The pipeline objects of one session. Declared in this order so that an exception
// unwinds capture, feeder, encoder: each destructor stops and joins its own thread.
struct Session {
    ComponentUse use;                 // the frame source; ended after the pipeline is gone
    uint64_t generation = 0;          // the startRecord this session answers
    std::unique_ptr<FFmpegEncode> encoder;
    std::unique_ptr<VideoDataThread> feeder;
    std::unique_ptr<AudiocaptureThread> capture;
    qint64 startTime = kNoDuration;   // ms since the epoch; kNoDuration until the first frame
    qint64 endTime = kNoDuration;
    QString file;                     // the output path
    QString endReason;                // why it ends; empty: the host stopped it
    long framesRefused = 0;           // camera frames of a type that cannot be recorded
    bool micLost = false;             // the sound ended before the stop
    AudiocaptureThread::Outage outage; // the microphone's absences, as last seen
    std::chrono::steady_clock::time_point lastProgress; // when the status was last refreshed

    // Takes the pipeline down: capture, feeder, encoder, each joining its own thread.
    void tearDown()
    {
        capture.reset();
        feeder.reset();
        encoder.reset();
    }
};

// The sessions, one after another, on the worker thread. It holds its own share of the
// private state: a host may delete the instance from inside the frame source's calls.
class SessionRunner
{
public:
    explicit SessionRunner(std::shared_ptr<RecordThreadPrivate> state) : d(std::move(state)) {}
    // Runs every session asked for until none is wanted.
    void loop();

private:
    void runSession(Session &s, const RecordingSettings &settings);
    bool openMicrophone(Session &s);
    bool stillWanted(const Session &s) const;
    void waitWhileIdle(const Session &s, bool paused, bool needsComponent);
    void recordVideo(Session &s);
    void startBehindFirstFrame(Session &s);
    void stopVideo(Session &s);
    void stopAfterFailedOpen(Session &s);
    void recordAudioOnly(Session &s);
    void answerStart(uint64_t generation, bool recording);
    void answerLocked(uint64_t generation, bool recording);
    bool waitForFrame(const Session &s, std::chrono::milliseconds period);
    bool takeFrame(Session &s, cv::Mat &frame);
    void publishProgress(Session &s, bool force);
    void setState(RecordingStatus::State state);
    void beginFinishing(Session &s);
    void endStatus(Session &s);
    bool shouldEnd(Session &s);

    std::shared_ptr<RecordThreadPrivate> d;
};

RecordThread::RecordThread(QObject *parent)
    : QThread(parent)
    , d(std::make_shared<RecordThreadPrivate>())
{
    ffmpeglog::route();
}

RecordThread::~RecordThread()
{
    {
        std::lock_guard<std::mutex> lock(d->mutex);
        d->wanted = 0;
        d->controlCondition.notify_all();
        // Deleted from inside a frame source call: the worker cannot wait for itself. This
        // object's thread lets go of it at once, and the worker finishes the file on the
        // state it shares, then ends.
        if (d->worker == std::this_thread::get_id()) {
            d->ownerGone = true;
            d->endCondition.notify_all();
        }
    }
    // Destroying a running QThread aborts the process: its run returns first.
    d->exit.join(this);
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
    // The host's wishes, never what the last recording could get.
    d->pending = RecordingSettings{d->wantVideo, d->wantAudio, d->recWidth, d->recHeight,
                                   d->fps, d->videoBitrate, d->filename};
    // A pause left over from the last recording must not start this one paused.
    d->paused = false;
    d->wanted = generation;
    // A session still finishing the last file sees that it is no longer wanted.
    d->controlCondition.notify_all();
    if (d->threadActive)
        return; // the running thread takes this generation as soon as the last one ended
    d->threadActive = true;
    lock.unlock();
    // Only the caller that set threadActive gets here. The last run may still be returning:
    // joined without the mutex, which that run takes on its way out.
    d->exit.join(this);
    d->exit.reset();
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
    d->wantVideo = on;
    d->hasVideo = on;
}

bool RecordThread::hasAudio() const
{
    return d->hasAudio;
}

void RecordThread::setHasAudio(bool on)
{
    std::unique_lock<std::mutex> lock(d->mutex);
    d->wantAudio = on;
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

// Session thread.
void SessionRunner::setState(RecordingStatus::State state)
{
    std::lock_guard<std::mutex> lock(d->mutex);
    d->status.state = state;
}

// Session thread: copies the writer's counters into the status, at most every
// kProgressPeriod unless `force`. The encoder's lock is taken before, not under, the mutex.
void SessionRunner::publishProgress(Session &s, bool force)
{
    const auto now = std::chrono::steady_clock::now();
    if (!s.encoder || (!force && now - s.lastProgress < kProgressPeriod))
        return;
    s.lastProgress = now;
    if (s.capture && !s.micLost && s.encoder->audioEnded())
        s.micLost = true;
    const FFmpegEncode::Progress p = s.encoder->progress();
    if (s.capture)
        s.outage = s.capture->outage();
    // Sound the microphone did not give is recorded as silence: lost all the same.
    long soundLostMs = p.soundLostMs + s.outage.missingMs;
    // Sound that never came (a microphone lost or stalled) leaves the sound shorter than the
    // picture by more than the last frame.
    const double shortBy = p.videoSeconds - p.audioSeconds - 1.0 / recordingFps(s.encoder->fps());
    if (s.encoder->recAudio() && s.encoder->recVideo() && shortBy > 0)
        soundLostMs += long(shortBy * 1000);
    const qint64 bytes = QFileInfo(s.file).size();
    std::lock_guard<std::mutex> lock(d->mutex);
    RecordingStatus &st = d->status;
    st.seconds = p.seconds;
    st.bytes = bytes;
    st.framesWritten = p.framesWritten;
    st.framesDropped = p.framesDropped;
    st.framesRefused = s.framesRefused + p.framesRefused;
    st.soundLostMs = soundLostMs;
    st.soundFilledMs = p.soundFilledMs;
    st.micLosses = s.outage.losses;
    st.micLostAt = s.outage.lostAt;
    st.micBackAt = s.outage.backAt;
}

// Session thread: the recording must end by itself (the writer failed or stalled, or an
// audio-only recording lost its microphone); the reason is kept.
bool SessionRunner::shouldEnd(Session &s)
{
    publishProgress(s, false);
    if (!s.encoder || !s.encoder->recordingFailed())
        return false;
    if (s.endReason.isEmpty())
        s.endReason = s.encoder->failure();
    return true;
}

// Session thread, before the file is finished: the host learns at once why it ends.
void SessionRunner::beginFinishing(Session &s)
{
    std::lock_guard<std::mutex> lock(d->mutex);
    d->status.state = RecordingStatus::State::Finishing;
    d->status.endReason = s.endReason.isEmpty() ? QString::fromLatin1(kStoppedByHost) : s.endReason;
}

// Session thread, once the file is finished: the final counters and why it ended.
void SessionRunner::endStatus(Session &s)
{
    publishProgress(s, true);
    std::lock_guard<std::mutex> lock(d->mutex);
    const bool byHost = s.endReason.isEmpty();
    d->status.state = byHost ? RecordingStatus::State::Finished : RecordingStatus::State::Failed;
    d->status.endReason = byHost ? QString::fromLatin1(kStoppedByHost) : s.endReason;
}

// Publishes the answer for `generation` and wakes every waiter; the caller holds the mutex.
void SessionRunner::answerLocked(uint64_t generation, bool recording)
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
void SessionRunner::answerStart(uint64_t generation, bool recording)
{
    std::lock_guard<std::mutex> lock(d->mutex);
    d->recording = recording;
    answerLocked(generation, recording);
}

RecordingStatus RecordThread::recordingStatus() const
{
    std::lock_guard<std::mutex> lock(d->mutex);
    return d->status;
}

RecordingStatusV1 RecordThread::recordingStatusV1() const
{
    const RecordingStatus s = recordingStatus();
    return {s.state,         s.file,          s.video,         s.audio,
            s.seconds,       s.bytes,         s.framesWritten, s.framesDropped,
            s.framesRefused, s.soundLostMs,   s.soundFilledMs, s.endReason};
}

bool RecordThread::waitForRecordEnd(int msecs)
{
    std::unique_lock<std::mutex> lock(d->mutex);
    const auto ended = [&] { return d->wanted == 0 && !d->threadActive; };
    if (msecs < 0) {
        d->endCondition.wait(lock, ended);
        return true;
    }
    return d->endCondition.wait_for(lock, std::chrono::milliseconds(msecs), ended);
}

void RecordThread::run()
{
    // Its own share of the state: once the owner is gone, `d` is not read again.
    const std::shared_ptr<RecordThreadPrivate> state = d;
    {
        std::lock_guard<std::mutex> lock(state->mutex);
        state->workerDone = false;
    }
    std::thread worker;
    try {
        worker = std::thread([state] { SessionRunner(state).loop(); });
    } catch (const std::system_error &e) {
        // No thread to spare: the sessions run here, as safe as ever but for a deletion
        // from inside the frame source's calls.
        qCWarning(lcPlugin, "cannot start the session thread, recording on the recorder's own: %s", e.what());
        SessionRunner(state).loop();
        state->exit.markReturned();
        return;
    }
    bool ownerGone = false;
    {
        std::unique_lock<std::mutex> lock(state->mutex);
        state->endCondition.wait(lock, [&] { return state->workerDone || state->ownerGone; });
        ownerGone = state->ownerGone;
    }
    if (ownerGone)
        worker.detach(); // ends by itself; the code stays loaded (-z nodelete)
    else
        worker.join();
    state->exit.markReturned();
}

void SessionRunner::loop()
{
    {
        std::lock_guard<std::mutex> lock(d->mutex);
        d->worker = std::this_thread::get_id();
    }
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
                d->workerDone = true;
                d->worker = std::thread::id();
                d->endCondition.notify_all();
                break;
            }
            s.generation = d->wanted;
            settings = d->pending;
            d->status = RecordingStatus{};
            d->status.state = RecordingStatus::State::Starting;
            d->status.file = settings.filename;
        }
        s.file = settings.filename;
        try {
            runSession(s, settings);
        } catch (const std::exception &e) {
            qCWarning(lcPlugin, "recording session ended by an exception: %s", e.what());
            s.endReason = QStringLiteral("an internal error: %1").arg(QString::fromUtf8(e.what()));
        } catch (...) {
            qCWarning(lcPlugin, "recording session ended by an unknown exception");
            s.endReason = QStringLiteral("an internal error");
        }
        // endUse comes after the whole pipeline is gone, however the session ended.
        s.tearDown();
        s.use.end();
        // The recording's threads freed their buffers into allocator arenas of their own,
        // which glibc keeps; given back here, a host that records again and again does not
        // hold the pictures of every earlier recording.
        malloc_trim(0);
        endStatus(s);
        std::lock_guard<std::mutex> lock(d->mutex);
        d->recording = false;
        answerLocked(s.generation, false);
        // A session that ended by itself (it gave up, or its source failed) leaves the
        // recorder able to start again.
        if (d->wanted == s.generation)
            d->wanted = 0;
    }
}

bool SessionRunner::stillWanted(const Session &s) const
{
    return d->wanted.load() == s.generation;
}

// Waits for a change while there is nothing to take: a stop, a pause or resume, and for
// a session that needs one, a frame source.
void SessionRunner::waitWhileIdle(const Session &s, bool paused, bool needsComponent)
{
    std::unique_lock<std::mutex> lock(d->mutex);
    d->controlCondition.wait_for(lock, kIdleWait, [&] {
        return !stillWanted(s) || d->paused != paused
            || (needsComponent && !paused && d->component.load());
    });
}

// Opens the camera's microphone; false when it failed and the user has been told.
bool SessionRunner::openMicrophone(Session &s)
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

void SessionRunner::runSession(Session &s, const RecordingSettings &settings)
{
    d->recording = false;
    d->hasVideo = settings.video;
    d->hasAudio = settings.audio;
    if (!settings.audio && !settings.video) {
        qDebug() << "未配置录制视频或者音频";
        s.endReason = QStringLiteral("nothing to record: neither video nor sound is wanted");
        answerStart(s.generation, false);
        return;
    }

    s.use.adopt(d->component.load());
    s.encoder = std::make_unique<FFmpegEncode>();
    const bool audio = settings.audio && openMicrophone(s);
    if (!audio && (!settings.video || !stillWanted(s))) {
        if (stillWanted(s))
            s.endReason = QStringLiteral("the microphone could not be opened");
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
        qCWarning(lcPlugin, "record failed: the output file could not be opened");
        s.endReason = encoder.recordingFailed() ? encoder.failure()
                                          : QStringLiteral("the output could not be opened");
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
    {
        std::lock_guard<std::mutex> lock(d->mutex);
        d->status.video = encoder.recVideo();
        d->status.audio = encoder.recAudio();
        d->status.state = RecordingStatus::State::Recording;
    }

    if (encoder.recVideo())
        recordVideo(s);
    else
        recordAudioOnly(s);
}

// Stops and deletes the capture, keeping what its microphone's absences cost.
static void endCapture(std::unique_ptr<AudiocaptureThread> &capture, AudiocaptureThread::Outage &outage)
{
    if (!capture)
        return;
    capture->stopThread();
    capture->wait();
    outage = capture->outage();
    capture.reset();
}

// Hands the capture the encoder's block size and lets it record.
static void startCapture(AudiocaptureThread &capture, FFmpegEncode &encoder)
{
    capture.setFrameSize(encoder.audioFrameSize());
    capture.startRecord();
}

// Waits up to `period` for a stop, a pause or resume after a source had no frame ready;
// false once the recording is no longer wanted.
bool SessionRunner::waitForFrame(const Session &s, std::chrono::milliseconds period)
{
    std::unique_lock<std::mutex> lock(d->mutex);
    const bool paused = d->paused;
    d->controlCondition.wait_for(lock, std::min(kNoFrameWait, period),
                                 [&] { return !stillWanted(s) || d->paused != paused; });
    return stillWanted(s);
}

// Asks the pinned source for a frame; true when `frame` holds one that can be recorded.
// A frame of another pixel type is refused, counted and reported once per recording.
// Throws what the source throws.
bool SessionRunner::takeFrame(Session &s, cv::Mat &frame)
{
    if (!s.use.get()->getFrame(frame) || !frame.data || frame.dims <= 0 || frame.total() == 0)
        return false;
    if (frame.dims == 2 && isCameraFrameType(frame.type()))
        return true;
    if (s.framesRefused++ == 0)
        qCWarning(lcPlugin).noquote() << QStringLiteral("camera frames of OpenCV type %1 cannot be recorded: "
                                                        "they are refused (8-bit gray, BGR and BGRA are taken)")
                                    .arg(frame.type());
    return false;
}

void SessionRunner::recordVideo(Session &s)
{
    s.feeder = std::make_unique<VideoDataThread>();
    VideoDataThread &feeder = *s.feeder;
    if (s.capture)
        s.capture->startThread();
    answerStart(s.generation, true);
    const std::chrono::milliseconds period(std::max(1, 1000 / recordingFps(s.encoder->fps())));

    bool firstFramePending = true;
    bool wasPaused = false;
    while (stillWanted(s) && !shouldEnd(s)) {
        const bool paused = d->paused;
        if (s.capture)
            s.capture->setPause(paused);
        feeder.setPause(paused);
        if (paused != wasPaused)
            setState(paused ? RecordingStatus::State::Paused : RecordingStatus::State::Recording);
        wasPaused = paused;
        s.use.adopt(d->component.load());
        if (paused || !s.use.get()) {
            // Nothing is taken while paused; a video recording without a frame source
            // records nothing until it gets one.
            waitWhileIdle(s, paused, true);
            continue;
        }
        bool handed = false;
        {
            cv::Mat frame;
            try {
                handed = takeFrame(s, frame);
            } catch (const std::exception &e) {
                // The recording so far is kept: stop as if the host had asked to.
                qCWarning(lcPlugin, "getFrame threw, stopping the recording: %s", e.what());
                s.endReason = QStringLiteral("the frame source failed: %1").arg(QString::fromUtf8(e.what()));
                break;
            } catch (...) {
                qCWarning(lcPlugin, "getFrame threw, stopping the recording");
                s.endReason = QStringLiteral("the frame source failed");
                break;
            }
            if (handed)
                feeder.setData(frame);
        }
        if (!handed) {
            waitForFrame(s, period);
            continue;
        }
        if (firstFramePending) {
            startBehindFirstFrame(s);
            firstFramePending = false;
        }
    }
    stopVideo(s);
}

// Starts the capture and the feeder behind the first frame.
void SessionRunner::startBehindFirstFrame(Session &s)
{
    FFmpegEncode &encoder = *s.encoder;
    // One origin for picture and sound: frame 0 is due now, and the sound is placed
    // against it whenever its first block comes.
    encoder.setTimelineOrigin(std::chrono::steady_clock::now());
    if (s.capture)
        startCapture(*s.capture, encoder);
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

void SessionRunner::stopVideo(Session &s)
{
    // Feeder, capture, encoder. The picture and the sound are told at the same moment, so
    // that they end together; both are joined before the encoder finishes the file.
    s.feeder->stop();
    if (s.capture)
        s.capture->stopThread();
    s.feeder.reset();
    endCapture(s.capture, s.outage);

    s.endTime = nowMs();
    logTime(__LINE__, s.endTime);
    const qint64 duration = durationMs(s.startTime, s.endTime);
    qDebug() << "record MSecs:" << duration;
    printf("msecs:%d\n", static_cast<int>(duration));
    fflush(stdout);

    // A writer that failed may be stuck on a stalled disk: the host is told at once.
    if (!s.endReason.isEmpty())
        d->recording = false;
    beginFinishing(s);
    s.encoder->finish();
    d->recording = false;
    qDebug() << "record over";
    endStatus(s);
    s.encoder.reset();
}

// The encoder could not open its output: take down what was started, record nothing.
void SessionRunner::stopAfterFailedOpen(Session &s)
{
    s.tearDown();
    answerStart(s.generation, false);
}

void SessionRunner::recordAudioOnly(Session &s)
{
    FFmpegEncode &encoder = *s.encoder;
    AudiocaptureThread &capture = *s.capture;
    // `capture` is stopped and destroyed before the encoder finishes.
    capture.startThread();
    startCapture(capture, encoder);
    s.startTime = nowMs();
    logTime(__LINE__, s.startTime);
    answerStart(s.generation, true);

    while (stillWanted(s) && !shouldEnd(s)) {
        const bool paused = d->paused;
        capture.setPause(paused);
        setState(paused ? RecordingStatus::State::Paused : RecordingStatus::State::Recording);
        if (s.micLost) {
            s.endReason = QStringLiteral("the microphone was lost");
            break;
        }
        waitWhileIdle(s, paused, false);
    }

    s.endTime = nowMs();
    logTime(__LINE__, s.endTime);
    endCapture(s.capture, s.outage);
    if (!s.endReason.isEmpty())
        d->recording = false;
    beginFinishing(s);
    encoder.finish();

    const qint64 duration = durationMs(s.startTime, s.endTime);
    qDebug() << "record MSecs:" << duration;
    qDebug() << "record over";
    printf("msec:%d\n", static_cast<int>(duration));
    fflush(stdout);
    d->recording = false;
    endStatus(s);
    s.encoder.reset();
}
