#ifndef FFMPEGENCODE_H
#define FFMPEGENCODE_H

#include <QList>
#include <QString>
#include <QThread>
#include <atomic>
#include <condition_variable>
#include <mutex>
#include <opencv2/core/mat.hpp>

#include "media/threadexit.h"

class FFmpegApi;

// The encoder thread of one recording: owns the media writer while it runs and drains
// the video and audio queues into it in timestamp order.
// The session thread constructs, sets, starts (setRun(true)), stops (setRun(false)),
// polls and destroys it; the feeder calls addVideo, the capture thread addAudio.
class FFmpegEncode : public QThread
{
    Q_OBJECT
public:
    explicit FFmpegEncode(QObject *parent = nullptr);
    // Waits for the thread, then frees whatever is still queued.
    ~FFmpegEncode() override;

    // Settings: written by the session before setRun(true), read once by run().
    unsigned int width() const { return m_width; }
    void setWidth(unsigned int v) { m_width = v; }
    unsigned int height() const { return m_height; }
    void setHeight(unsigned int v) { m_height = v; }
    unsigned int fps() const { return m_fps; }
    void setFps(unsigned int v) { m_fps = v; }
    unsigned int videoBitrate() const { return m_videoBitrate; }
    void setVideoBitrate(unsigned int v) { m_videoBitrate = v; }
    QString video_path() const { return m_videoPath; }
    void setVideo_path(const QString &path) { m_videoPath = path; }
    bool recVideo() const { return m_recVideo; }
    void setRecVideo(bool on) { m_recVideo = on; }
    bool recAudio() const { return m_recAudio; }
    void setRecAudio(bool on) { m_recAudio = on; }
    void setAudioChannel(unsigned int v) { m_audioChannel = v; }
    void setaudioSampleRate(unsigned int v) { m_audioSampleRate = v; }

    // Status, any thread.
    bool isOver() const { return m_state.load(std::memory_order_acquire) & kOver; }
    void setIsOver(bool v);
    bool isEncodeOpen() const { return m_state.load(std::memory_order_acquire) & kOpen; }
    // The writer could not open the output; the thread has ended and nothing was written.
    bool isFailed() const { return m_state.load(std::memory_order_acquire) & kFailed; }
    int audioFrameSize() const { return m_audioFrameSize.load(std::memory_order_acquire); }

    // Session thread.
    void setRun(bool run);
    void startEncode();

    // Producers, any thread.
    void addVideo(cv::Mat &frame);          // copies the pixels
    // Queues `times` frames with the same picture: one copy of the pixels, shared, so a
    // feeder catching up after a stall costs no more than one frame.
    void addVideo(cv::Mat &frame, int times);
    void addAudio(unsigned char *block);    // takes ownership of a malloc'ed block
    int audioQueueCount();
    int videoQueueCount();
    // Most frames that waited in the video queue at once in this recording.
    int peakVideoQueueCount();

protected:
    void run() override;

private:
    void encode();
    void interleave(FFmpegApi &writer);
    void audioOnly(FFmpegApi &writer);
    void writeFirstVideo(std::unique_lock<std::mutex> &lock, FFmpegApi &writer);
    void writeFirstAudio(std::unique_lock<std::mutex> &lock, FFmpegApi &writer);
    void freeQueued();
    void logPeakQueues();

    // Bits of m_state.
    static constexpr int kOpen = 1;   // the writer has opened the output
    static constexpr int kOver = 2;   // the file is finished (trailer written)
    static constexpr int kFailed = 4; // the output could not be opened

    // Settings (plain fields: written before the thread starts).
    std::atomic<bool> m_recVideo{true};      // record a video stream
    std::atomic<bool> m_recAudio{true};      // record an audio stream
    QString m_videoPath = QStringLiteral("/tmp/3456.mp4");
    unsigned int m_width = 800;              // pixels
    unsigned int m_height = 600;             // pixels
    unsigned int m_fps = 10;                 // frames per second
    unsigned int m_videoBitrate = 500000;    // bits per second
    unsigned int m_audioChannel = 1;         // channels in an audio block
    unsigned int m_audioSampleRate = 44100;  // Hz

    // Cross-thread flags.
    std::atomic<bool> m_isRun{false};        // keep waiting for queued items
    // kOpen / kOver / kFailed: one value, so "over and no longer open" is one store.
    std::atomic<int> m_state{0};
    std::atomic<int> m_audioFrameSize{1024}; // samples per channel per audio block

    // Queues, both guarded by queueMutex.
    std::mutex queueMutex;
    std::condition_variable queueCondition;  // one wake per hand-over
    QList<cv::Mat> videoList;                // private copies, oldest first
    QList<unsigned char *> audioList;        // owned blocks, oldest first
    size_t videoQueuedBytes = 0;             // bytes of pixels in videoList, shared ones once
    int peakVideoQueued = 0;                 // frames: videoList's longest length so far
    int peakAudioQueued = 0;                 // blocks: audioList's longest length so far
    size_t peakVideoQueuedBytes = 0;         // bytes: videoQueuedBytes's largest value so far

    std::atomic<int> startCount{0};          // reset when encoding (re)starts
    std::atomic<qint64> startTime{0};        // ms since the epoch, when encoding (re)started
    ThreadExit exit;                         // joins run() visibly to the sanitizer
};

#endif // FFMPEGENCODE_H
