#include "ffmpegencode.h"

#include <QDebug>
#include <QFileInfo>
#include <algorithm>
#include <cstdio>
#include <cstdlib>

#include "media/mediawriter.h"
#include "soundtimeline.h"
#include "media/logcategories.h"

namespace {

// Where a queued picture's pixels start, and how many bytes they take.
const void *pixelsOf(const cv::Mat &picture, const EncoderPicture &converted)
{
    return converted ? static_cast<const void *>(converted->buf[0]->data) : picture.datastart;
}

size_t pictureBytes(const cv::Mat &picture, const EncoderPicture &converted)
{
    return converted ? converted->buf[0]->size : picture.total() * picture.elemSize();
}

long toMs(int64_t samples, unsigned int rate)
{
    return rate ? long(samples * 1000 / rate) : 0;
}

// The host's words for a write that failed.
QString writeFailure(int error)
{
    if (error == AVERROR(ENOSPC) || error == AVERROR(EDQUOT))
        return QStringLiteral("the disk is full");
    char text[AV_ERROR_MAX_STRING_SIZE] = {0};
    av_strerror(error, text, sizeof text);
    return QStringLiteral("the output could not be written: %1").arg(QString::fromUtf8(text));
}

} // namespace

FFmpegEncode::FFmpegEncode(QObject *parent)
    : QThread(parent)
{
}

FFmpegEncode::~FFmpegEncode()
{
    // The thread may still be draining: let it finish the file, then free what is left.
    {
        std::lock_guard<std::mutex> lock(queueMutex);
        m_isRun = false;
    }
    queueCondition.notify_all();
    exit.join(this);
    freeQueued();
}

// Publishes a new state and wakes whoever waits for one.
void FFmpegEncode::setState(int state)
{
    {
        std::lock_guard<std::mutex> lock(queueMutex);
        m_state.store(state, std::memory_order_release);
    }
    queueCondition.notify_all();
}

void FFmpegEncode::setRun(bool run)
{
    {
        std::lock_guard<std::mutex> lock(queueMutex);
        m_isRun = run;
    }
    queueCondition.notify_all();
    if (!run)
        return;
    exit.reset();
    start(QThread::InheritPriority);
}

bool FFmpegEncode::waitForOpen()
{
    std::unique_lock<std::mutex> lock(queueMutex);
    queueCondition.wait(lock, [&] { return m_state.load(std::memory_order_acquire) != 0; });
    return !(m_state.load(std::memory_order_acquire) & kFailed);
}

bool FFmpegEncode::waitForAudio(std::chrono::milliseconds timeout)
{
    std::unique_lock<std::mutex> lock(queueMutex);
    return queueCondition.wait_for(lock, timeout,
                                   [&] { return audioBlocksQueued > 0 || m_audioEnded; });
}

void FFmpegEncode::finish()
{
    setRun(false);
    exit.join(this);
}

void FFmpegEncode::addVideo(cv::Mat &frame)
{
    addVideo(frame, 1);
}

void FFmpegEncode::addVideo(cv::Mat &frame, int times)
{
    int64_t pts;
    {
        std::lock_guard<std::mutex> lock(queueMutex);
        pts = nextVideoPts;
    }
    addVideo(frame, times, pts);
}

void FFmpegEncode::addVideo(cv::Mat &frame, int times, int64_t pts)
{
    if (times <= 0 || frame.empty())
        return;
    {
        std::lock_guard<std::mutex> lock(queueMutex);
        if (!takesVideo(times, pts))
            return;
    }
    // The copy is private until queued: made outside the lock, it keeps the writer and
    // the capture thread from waiting while megabytes of pixels move.
    cv::Mat copy;
    frame.copyTo(copy);
    queueVideo(QueuedFrame{copy, nullptr, pts}, times);
}

void FFmpegEncode::addVideoConverted(EncoderPicture picture, int times, int64_t pts)
{
    if (times <= 0 || !picture)
        return;
    queueVideo(QueuedFrame{cv::Mat(), std::move(picture), pts}, times);
}

bool FFmpegEncode::takesVideo(int times, int64_t pts)
{
    nextVideoPts = pts + times;
    const int state = m_state.load(std::memory_order_relaxed);
    return !(((state & kOpen) && !m_recVideo) || (state & (kFailed | kOver)));
}

void FFmpegEncode::countEntry(const QueuedFrame &entry)
{
    if (entriesPerPicture[pixelsOf(entry.picture, entry.converted)]++ == 0)
        videoQueuedBytes += pictureBytes(entry.picture, entry.converted);
}

void FFmpegEncode::uncountEntry(const QueuedFrame &entry)
{
    const auto it = entriesPerPicture.find(pixelsOf(entry.picture, entry.converted));
    if (it == entriesPerPicture.end() || --it->second > 0)
        return;
    videoQueuedBytes -= pictureBytes(entry.picture, entry.converted);
    entriesPerPicture.erase(it);
}

void FFmpegEncode::queueVideo(const QueuedFrame &first, int times)
{
    const int64_t pts = first.pts;
    const int maxFrames = recordingFps(m_fps);
    {
        std::lock_guard<std::mutex> lock(queueMutex);
        if (!takesVideo(times, pts))
            return; // nothing will write it
        // Repeats share the pixels: the writer only reads them.
        for (int i = 0; i < times; ++i) {
            QueuedFrame entry = first;
            entry.pts = pts + i;
            countEntry(entry);
            videoList.append(std::move(entry));
        }
        // Over the bounds, the frames just before the newest go: the newest is kept, so
        // that the picture ends when the recording does, whatever was dropped on the way.
        while (videoList.size() > 1
               && (videoList.size() > maxFrames || videoQueuedBytes > kMaxQueuedVideoBytes)) {
            const int victim = videoList.size() - 2;
            uncountEntry(videoList[victim]);
            videoList.removeAt(victim);
            ++droppedVideo;
        }
        peakVideoQueued = std::max(peakVideoQueued, int(videoList.size()));
        peakVideoQueuedBytes = std::max(peakVideoQueuedBytes, videoQueuedBytes);
    }
    queueCondition.notify_all();
}

bool FFmpegEncode::soundQueueFull() const
{
    return queuedSoundFrames > int64_t(kMaxQueuedSoundSeconds * std::max(1u, m_audioSampleRate));
}

void FFmpegEncode::addAudio(AudioBlock block)
{
    {
        std::lock_guard<std::mutex> lock(queueMutex);
        const int state = m_state.load(std::memory_order_relaxed);
        const bool noStream = (state & kOpen) && !m_recAudio;
        if (noStream || (state & (kFailed | kOver)))
            return; // a file without sound, or no file at all: nothing will write it
        if (m_failed || soundQueueFull()) {
            lostSoundFrames += block.frames;
            if (!m_failed) {
                m_failure = QStringLiteral("the disk stalled: %1 s of sound waited to be written")
                                .arg(kMaxQueuedSoundSeconds);
                m_failed = true;
            }
            return;
        }
        queuedSoundFrames += block.frames;
        audioList.append(std::move(block));
        ++audioBlocksQueued;
        peakAudioQueued = std::max(peakAudioQueued, int(audioList.size()));
    }
    queueCondition.notify_all();
}

void FFmpegEncode::setTimelineOrigin(std::chrono::steady_clock::time_point origin)
{
    m_originNs = std::chrono::duration_cast<std::chrono::nanoseconds>(origin.time_since_epoch()).count();
}

std::chrono::steady_clock::time_point FFmpegEncode::timelineOrigin() const
{
    return std::chrono::steady_clock::time_point(std::chrono::nanoseconds(m_originNs.load()));
}

void FFmpegEncode::endAudio()
{
    {
        std::lock_guard<std::mutex> lock(queueMutex);
        m_audioEnded = true;
    }
    queueCondition.notify_all();
}

int FFmpegEncode::audioQueueCount()
{
    std::lock_guard<std::mutex> lock(queueMutex);
    return audioList.size();
}

int FFmpegEncode::videoQueueCount()
{
    std::lock_guard<std::mutex> lock(queueMutex);
    return videoList.size();
}

long FFmpegEncode::droppedVideoFrames()
{
    std::lock_guard<std::mutex> lock(queueMutex);
    return droppedVideo;
}

// How far the queues grew tells whether the writer kept up with the camera and the card.
void FFmpegEncode::logPeakQueues()
{
    std::lock_guard<std::mutex> lock(queueMutex);
    qCInfo(lcEncode).noquote() << QStringLiteral("encoder: at most %1 video frames (%2 MiB) and %3 audio "
                                                 "blocks were queued")
                              .arg(peakVideoQueued)
                              .arg(double(peakVideoQueuedBytes) / (1024 * 1024), 0, 'f', 1)
                              .arg(peakAudioQueued);
    if (droppedVideo > 0)
        qCWarning(lcEncode).noquote() << QStringLiteral("%1 video frames dropped: the encoder could not "
                                                        "keep up")
                                    .arg(droppedVideo);
}

void FFmpegEncode::freeQueued()
{
    std::lock_guard<std::mutex> lock(queueMutex);
    audioList.clear();
    queuedSoundFrames = 0;
    videoList.clear();
    entriesPerPicture.clear();
    videoQueuedBytes = 0;
}

QString FFmpegEncode::failure()
{
    std::lock_guard<std::mutex> lock(queueMutex);
    return m_failure;
}

void FFmpegEncode::fail(const QString &reason)
{
    {
        std::lock_guard<std::mutex> lock(queueMutex);
        if (!m_failed) {
            m_failure = reason;
            m_failed = true;
        }
    }
    queueCondition.notify_all();
}

bool FFmpegEncode::audioEnded()
{
    std::lock_guard<std::mutex> lock(queueMutex);
    return m_audioEnded;
}

FFmpegEncode::Progress FFmpegEncode::progress()
{
    std::lock_guard<std::mutex> lock(queueMutex);
    Progress p;
    p.framesWritten = writtenVideo;
    p.framesDropped = droppedVideo;
    p.framesRefused = refusedVideo;
    p.videoSeconds = m_fps ? double(lastVideoPts + 1) / recordingFps(m_fps) : 0;
    p.audioSeconds = m_audioSampleRate ? double(soundFramesOut) / m_audioSampleRate : 0;
    p.seconds = std::max(p.videoSeconds, p.audioSeconds);
    p.soundFilledMs = toMs(filledSoundFrames, m_audioSampleRate);
    p.soundLostMs = toMs(lostSoundFrames, m_audioSampleRate);
    return p;
}

void FFmpegEncode::run()
{
    // Nothing may leave a worker thread: an error ends the recording with its reason, and
    // the writer's destructor leaves the file as far as it was written.
    try {
        encode();
    } catch (const std::exception &e) {
        fail(QStringLiteral("an internal error: %1").arg(QString::fromUtf8(e.what())));
    } catch (...) {
        fail(QStringLiteral("an internal error"));
    }
    if (!isOver()) {
        freeQueued();
        setState(m_state.load() | kOver | (isEncodeOpen() ? 0 : kFailed));
    }
    exit.markReturned();
}

void FFmpegEncode::checkWriter(FFmpegApi &writer)
{
    if (writer.writeError() != 0)
        fail(writeFailure(writer.writeError()));
}

void FFmpegEncode::encode()
{
    FFmpegApi writer;
    writer.setHasVideo(m_recVideo);
    writer.setHasAudio(m_recAudio);
    // Picture and sound in step for hours: the sound follows the steady clock that times
    // the picture, by resampling (a pitch change far below hearing), not by timestamps.
    writer.setDriftCorrection(m_recVideo && m_recAudio);
    writer.setStopRequest([this] {
        std::lock_guard<std::mutex> lock(queueMutex);
        return !m_isRun;
    });
    QByteArray path = m_videoPath.toUtf8();
    if (writer.open(path.data(), static_cast<int>(m_videoBitrate), static_cast<int>(m_fps),
                    static_cast<int>(m_width), static_cast<int>(m_height),
                    static_cast<int>(m_audioChannel), static_cast<int>(m_audioSampleRate))
        != 0) {
        // Made visible so that nobody waits for an open that will never come.
        setState(kFailed);
        freeQueued();
        return;
    }
    // What the container could hold, and the block size, before anyone sees it open.
    const bool audioOnly = !m_recVideo && m_recAudio;
    m_recVideo = writer.hasVideo();
    m_recAudio = writer.hasAudio();
    m_audioFrameSize.store(writer.audioFrameSize(), std::memory_order_relaxed);
    setState(kOpen);

    SoundTimeline timeline(static_cast<int>(m_audioSampleRate));
    timeline.setCorrecting(m_recVideo && m_recAudio);
    if (m_originNs.load() != 0)
        timeline.setOrigin(m_originNs.load() / 1e9);
    writeQueued(writer, timeline);
    if (!audioOnly) {
        puts("video writeer flush");
        fflush(stdout);
    }
    writer.flush();
    logPeakQueues();
    // Its directory removed while recording, the file was written to nowhere: say so.
    // (Devices and protocol URLs are not files to look for.)
    if (!m_videoPath.startsWith(QLatin1String("/dev/"))
        && !m_videoPath.contains(QLatin1String("://")) && !QFileInfo::exists(m_videoPath))
        qCWarning(lcEncode).noquote() << QStringLiteral("record failed: the output file %1 no longer exists")
                                  .arg(m_videoPath);
    freeQueued();
    setState(kOver);
}

// Takes the oldest frame out of the queue and writes it with the queue open to producers.
void FFmpegEncode::writeFirstVideo(std::unique_lock<std::mutex> &lock, FFmpegApi &writer)
{
    QueuedFrame item = videoList.takeFirst();
    uncountEntry(item);
    lock.unlock();
    const int written = item.converted ? writer.write_video(item.converted.get(), item.pts)
                                       : writer.write_video(item.picture, item.pts);
    item.picture.release();
    item.converted.reset();
    checkWriter(writer);
    lock.lock();
    if (written == 0) {
        ++writtenVideo;
        lastVideoPts = std::max(lastVideoPts, item.pts);
    } else if (writer.writeError() == 0) {
        ++refusedVideo;
    }
}

// Takes the oldest block out of the queue and writes it where the timeline puts it.
void FFmpegEncode::writeFirstAudio(std::unique_lock<std::mutex> &lock, FFmpegApi &writer,
                                   SoundTimeline &timeline)
{
    AudioBlock block = audioList.takeFirst();
    queuedSoundFrames -= block.frames;
    // The origin is set before the capture starts, so the first block sees it.
    if (m_originNs.load() != 0)
        timeline.setOrigin(m_originNs.load() / 1e9);
    lock.unlock();
    const SoundTimeline::Placement p = timeline.place(block, writer.audioSamplesOut());
    if (p.leadSilence > 0) {
        AudioBlock silence;
        silence.frames = static_cast<int>(p.leadSilence);
        silence.channels = block.channels;
        silence.rate = block.rate;
        silence.samples.assign(size_t(silence.frames) * block.channels, 0);
        writer.write_audio(silence);
    }
    if (p.skip >= block.frames) {
        lock.lock();
        return; // the picture began after this block ended
    }
    if (p.skip > 0) {
        block.samples.erase(block.samples.begin(), block.samples.begin() + p.skip * block.channels);
        block.frames -= static_cast<int>(p.skip);
    }
    writer.write_audio(block, p.compensation);
    checkWriter(writer);
    lock.lock();
    filledSoundFrames += p.leadSilence;
    lostSoundFrames += p.skip;
    soundFramesOut = writer.audioSamplesOut();
}

// Writes whatever is queued as soon as it is queued, the earlier stream first, and waits
// only when both queues are empty: one stream, or one that ended, never holds the other.
// After setRun(false) it writes what is left and returns.
void FFmpegEncode::writeQueued(FFmpegApi &writer, SoundTimeline &timeline)
{
    std::unique_lock<std::mutex> lock(queueMutex);
    for (;;) {
        queueCondition.wait(lock, [&] {
            return !videoList.isEmpty() || !audioList.isEmpty() || !m_isRun || m_failed;
        });
        if (m_failed)
            return; // what is queued cannot be written: the file ends where it is
        if (videoList.isEmpty() && audioList.isEmpty())
            return; // stopped and drained
        const bool video = !videoList.isEmpty()
            && (audioList.isEmpty() || writer.encodeVideo(videoList.first().pts));
        if (video)
            writeFirstVideo(lock, writer);
        else
            writeFirstAudio(lock, writer, timeline);
    }
}
