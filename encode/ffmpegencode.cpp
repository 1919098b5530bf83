#include "ffmpegencode.h"

#include <QDateTime>
#include <QDebug>
#include <QFileInfo>
#include <algorithm>
#include <cstdio>
#include <cstdlib>

#include "media/ffmpegapi.h"

namespace {

// Longest single wait for a hand-over; the run flag is looked at least this often.
constexpr std::chrono::milliseconds kQueueWait{100};

} // namespace

FFmpegEncode::FFmpegEncode(QObject *parent)
    : QThread(parent)
{
}

FFmpegEncode::~FFmpegEncode()
{
    // The thread may still be draining: let it finish the file, then free what is left.
    m_isRun.store(false);
    queueCondition.notify_all();
    exit.join(this);
    freeQueued();
}

void FFmpegEncode::setIsOver(bool v)
{
    if (v)
        m_state.fetch_or(kOver, std::memory_order_acq_rel);
    else
        m_state.fetch_and(~kOver, std::memory_order_acq_rel);
}

void FFmpegEncode::setRun(bool run)
{
    m_isRun.store(run);
    if (!run)
        return;
    exit.reset();
    start(QThread::InheritPriority);
    startEncode();
}

void FFmpegEncode::startEncode()
{
    startCount = 0;
    startTime = QDateTime::currentMSecsSinceEpoch();
}

void FFmpegEncode::addVideo(cv::Mat &frame)
{
    addVideo(frame, 1);
}

void FFmpegEncode::addVideo(cv::Mat &frame, int times)
{
    if (times <= 0)
        return;
    // The copy is private until queued: made outside the lock, it keeps the writer and
    // the capture thread from waiting while megabytes of pixels move.
    cv::Mat copy;
    frame.copyTo(copy);
    {
        std::lock_guard<std::mutex> lock(queueMutex);
        // Repeats sit next to each other in the queue: the writer only reads them.
        for (int i = 0; i < times; ++i)
            videoList.append(copy);
        videoQueuedBytes += copy.total() * copy.elemSize();
        peakVideoQueued = std::max(peakVideoQueued, int(videoList.size()));
        peakVideoQueuedBytes = std::max(peakVideoQueuedBytes, videoQueuedBytes);
    }
    queueCondition.notify_one();
}

void FFmpegEncode::addAudio(unsigned char *block)
{
    {
        std::lock_guard<std::mutex> lock(queueMutex);
        audioList.append(block);
        peakAudioQueued = std::max(peakAudioQueued, int(audioList.size()));
    }
    queueCondition.notify_one();
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

int FFmpegEncode::peakVideoQueueCount()
{
    std::lock_guard<std::mutex> lock(queueMutex);
    return peakVideoQueued;
}

// How far the queues grew tells whether the writer kept up with the camera and the card.
void FFmpegEncode::logPeakQueues()
{
    std::lock_guard<std::mutex> lock(queueMutex);
    qDebug().noquote() << QStringLiteral("encoder: at most %1 video frames (%2 MiB) and %3 audio "
                                         "blocks were queued")
                              .arg(peakVideoQueued)
                              .arg(double(peakVideoQueuedBytes) / (1024 * 1024), 0, 'f', 1)
                              .arg(peakAudioQueued);
}

void FFmpegEncode::freeQueued()
{
    std::lock_guard<std::mutex> lock(queueMutex);
    for (unsigned char *block : audioList)
        free(block);
    audioList.clear();
    videoList.clear();
    videoQueuedBytes = 0;
}

void FFmpegEncode::run()
{
    encode();
    exit.markReturned();
}

void FFmpegEncode::encode()
{
    FFmpegApi writer;
    writer.setHasVideo(m_recVideo);
    writer.setHasAudio(m_recAudio);
    QByteArray path = m_videoPath.toUtf8();
    if (writer.open(path.data(), static_cast<int>(m_videoBitrate), static_cast<int>(m_fps),
                    static_cast<int>(m_width), static_cast<int>(m_height),
                    static_cast<int>(m_audioChannel), static_cast<int>(m_audioSampleRate))
        != 0) {
        // Made visible so that nobody waits for an open that will never come.
        m_state.store(kFailed, std::memory_order_release);
        return;
    }
    // The block size first: a reader that sees the output open reads it next.
    m_audioFrameSize.store(writer.audioFrameSize(), std::memory_order_relaxed);
    m_state.store(kOpen, std::memory_order_release);

    if (!m_recVideo && m_recAudio) {
        audioOnly(writer);
    } else {
        interleave(writer);
        puts("video writeer flush");
        fflush(stdout);
    }
    writer.flush();
    logPeakQueues();
    // Its directory removed while recording, the file was written to nowhere: say so.
    // (Devices and protocol URLs are not files to look for.)
    if (!m_videoPath.startsWith(QLatin1String("/dev/"))
        && !m_videoPath.contains(QLatin1String("://")) && !QFileInfo::exists(m_videoPath))
        qDebug().noquote() << QStringLiteral("record failed: the output file %1 no longer exists")
                                  .arg(m_videoPath);
    m_state.store(kOver, std::memory_order_release);
}

// Takes the oldest frame out of the queue and writes it with the queue open to producers.
void FFmpegEncode::writeFirstVideo(std::unique_lock<std::mutex> &lock, FFmpegApi &writer)
{
    cv::Mat frame = videoList.takeFirst();
    // The pixels leave the queue with the last of the frames that share them.
    if (videoList.isEmpty() || videoList.first().data != frame.data)
        videoQueuedBytes -= frame.total() * frame.elemSize();
    lock.unlock();
    writer.write_video(frame);
    frame.release();
    lock.lock();
}

// Takes the oldest block out of the queue, writes it and frees it.
void FFmpegEncode::writeFirstAudio(std::unique_lock<std::mutex> &lock, FFmpegApi &writer)
{
    unsigned char *block = audioList.takeFirst();
    lock.unlock();
    writer.write_audio(block);
    free(block);
    lock.lock();
}

void FFmpegEncode::interleave(FFmpegApi &writer)
{
    std::unique_lock<std::mutex> lock(queueMutex);
    for (;;) {
        if (m_isRun && (videoList.isEmpty() || audioList.isEmpty()))
            queueCondition.wait_for(lock, kQueueWait);

        const bool run = m_isRun;
        if (!run && videoList.isEmpty()) {
            if (audioList.isEmpty())
                break;
            writeFirstAudio(lock, writer);
            continue;
        }
        // Without an audio stream (or once the sound is gone) video never waits for it.
        const bool recVideo = m_recVideo, recAudio = m_recAudio;
        if (recVideo && (!recAudio || writer.encodeVideo())) {
            if (!videoList.isEmpty())
                writeFirstVideo(lock, writer);
            continue;
        }
        if (recAudio && !audioList.isEmpty()) {
            writeFirstAudio(lock, writer);
            continue;
        }
        if (!run) {
            // Draining, audio is due but no more will come: the frames still queued are
            // written rather than dropped, and nothing here waits on a lock for a change.
            writeFirstVideo(lock, writer);
            continue;
        }
        // Nothing due can be written yet: wait for a hand-over instead of spinning.
        queueCondition.wait_for(lock, kQueueWait);
    }
    lock.unlock();
    lock.lock();
    for (unsigned char *block : audioList)
        free(block);
    audioList.clear();
}

void FFmpegEncode::audioOnly(FFmpegApi &writer)
{
    std::unique_lock<std::mutex> lock(queueMutex);
    for (;;) {
        while (audioList.isEmpty()) {
            if (!m_isRun)
                return;
            queueCondition.wait_for(lock, kQueueWait);
        }
        writeFirstAudio(lock, writer);
    }
}
