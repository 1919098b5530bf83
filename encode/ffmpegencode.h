#ifndef FFMPEGENCODE_H
#define FFMPEGENCODE_H

#include <QList>
#include <QString>
#include <QThread>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <mutex>
#include <opencv2/core/mat.hpp>
#include <unordered_map>

#include "media/audioblock.h"
#include "media/frameconverter.h"
#include "media/threadexit.h"

class FFmpegApi;
class SoundTimeline;

// The encoder thread of one recording: owns the media writer while it runs and writes
// whatever is queued as soon as it can, the earlier of the two streams first.
// The session thread constructs, sets, starts (setRun(true)), stops (setRun(false)),
// waits for and destroys it; the feeder calls addVideoConverted, the capture thread addAudio
// and endAudio.
class FFmpegEncode : public QThread
{
    Q_OBJECT
public:
    // Most frames the video queue holds: one second of them, and at most this many bytes
    // of pixels. Frames beyond are dropped (and counted) instead of eating the machine's
    // memory when it cannot encode in real time.
    static constexpr size_t kMaxQueuedVideoBytes = size_t(256) << 20;
    // Most sound the audio queue holds, seconds. The writer takes every block as soon as
    // it can, so while it keeps up nothing is ever dropped; a disk that stalls the writer
    // this long ends the recording with a reason, and blocks past the bound are counted
    // as lost instead of growing the queue.
    static constexpr double kMaxQueuedSoundSeconds = 10.0;

    // What the writer has done so far, for the host's status.
    struct Progress {
        long framesWritten = 0;   // video frames encoded
        long framesDropped = 0;   // frames the full queue dropped
        long framesRefused = 0;   // frames the writer could not take (type, size)
        double seconds = 0;       // media written, the longer stream
        double videoSeconds = 0;  // picture written
        double audioSeconds = 0;  // sound written
        long soundFilledMs = 0;   // silence written before blocks that came late
        long soundLostMs = 0;     // sound cut, or refused past the queue's bound
    };

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
    // Whether the file has the stream: the session's wish before setRun(true), what the
    // container could hold once the output is open.
    bool recVideo() const { return m_recVideo; }
    void setRecVideo(bool on) { m_recVideo = on; }
    bool recAudio() const { return m_recAudio; }
    void setRecAudio(bool on) { m_recAudio = on; }
    void setAudioChannel(unsigned int v) { m_audioChannel = v; }
    void setaudioSampleRate(unsigned int v) { m_audioSampleRate = v; }

    // Status, any thread.
    bool isOver() const { return m_state.load(std::memory_order_acquire) & kOver; }
    bool isEncodeOpen() const { return m_state.load(std::memory_order_acquire) & kOpen; }
    // The writer could not open the output; the thread has ended and nothing was written.
    bool openFailed() const { return m_state.load(std::memory_order_acquire) & kFailed; }
    int audioFrameSize() const { return m_audioFrameSize.load(std::memory_order_acquire); }
    // The recording cannot go on (a write failed, the disk stalled, an error on a worker
    // thread): the session ends it. Any thread.
    bool recordingFailed() const { return m_failed.load(std::memory_order_acquire); }
    // Why, as a short sentence; empty when it has not failed. Any thread.
    QString failure();
    // Ends the recording for `reason`; the first reason given is kept. Any thread.
    void fail(const QString &reason);
    // The sound ended before the recording was stopped. Any thread.
    bool audioEnded();
    Progress progress();

    // Session thread.
    void setRun(bool run);
    // Blocks until the output is open (true) or could not be opened (false).
    bool waitForOpen();
    // Tells the thread to write what is queued and finish the file, and waits until it has.
    void finish();
    // Blocks until an audio block is queued or the sound has ended (true), or `timeout`
    // passed (false).
    bool waitForAudio(std::chrono::milliseconds timeout);

    // Producers, any thread. Frames carry their place on the timeline (pts, in frame
    // periods): a frame dropped under overload leaves a gap, not a shift.
    void addVideo(cv::Mat &frame);          // copies the pixels; pts follows the last one
    // Queues `times` frames with the same picture, pts `pts` .. pts + times - 1: one copy
    // of the pixels, shared, so a feeder catching up after a stall costs one frame.
    void addVideo(cv::Mat &frame, int times, int64_t pts);
    void addVideo(cv::Mat &frame, int times);
    // As addVideo, for a picture already converted for the encoder at the recording size:
    // the queue shares it by reference count (its bytes counted once however often it is
    // queued), and the writer encodes it as it is.
    void addVideoConverted(EncoderPicture picture, int times, int64_t pts);
    void addAudio(AudioBlock block);
    // The session, before the feeder and the capture start: when the picture's frame 0 is
    // due (steady clock). The sound is placed and kept against it.
    void setTimelineOrigin(std::chrono::steady_clock::time_point origin);
    // The feeder: the origin, or the epoch when none was set.
    std::chrono::steady_clock::time_point timelineOrigin() const;
    // The capture thread: no more sound will come (the microphone is gone or stopped).
    void endAudio();
    int audioQueueCount();
    int videoQueueCount();
    // Frames dropped because the queue was full.
    long droppedVideoFrames();

protected:
    void run() override;

private:
    struct QueuedFrame {
        cv::Mat picture;   // shared by repeats of one picture; empty when converted is set
        EncoderPicture converted; // shared likewise: the picture made for the encoder
        int64_t pts = 0;   // frame periods since the start of the recording
    };

    // Under queueMutex: whether a frame handed over now will be written; either way the
    // next frame without a pts follows these.
    bool takesVideo(int times, int64_t pts);
    // Queues the picture of `first` `times` over from its pts and applies the bounds.
    void queueVideo(const QueuedFrame &first, int times);
    // Under queueMutex: one queue entry of a picture more or less; its bytes count once,
    // from its first entry to its last.
    void countEntry(const QueuedFrame &entry);
    void uncountEntry(const QueuedFrame &entry);
    void encode();
    void writeQueued(FFmpegApi &writer, SoundTimeline &timeline);
    void writeFirstVideo(std::unique_lock<std::mutex> &lock, FFmpegApi &writer);
    void writeFirstAudio(std::unique_lock<std::mutex> &lock, FFmpegApi &writer,
                         SoundTimeline &timeline);
    void freeQueued();
    // Under queueMutex: whether the queued sound is past kMaxQueuedSoundSeconds.
    bool soundQueueFull() const;
    // After a write: ends the recording when the writer could not write.
    void checkWriter(FFmpegApi &writer);
    void logPeakQueues();
    void setState(int state);

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

    // kOpen / kOver / kFailed: one value, so "over and no longer open" is one store.
    std::atomic<int> m_state{0};
    std::atomic<int> m_audioFrameSize{1024}; // samples per channel per audio block

    // Shared by the encoder thread, the producers and the session; all guarded by
    // queueMutex. queueCondition is signalled by every hand-over, by setRun(false), by
    // endAudio and by every change of m_state.
    std::mutex queueMutex;
    std::condition_variable queueCondition;
    bool m_isRun = false;                    // keep waiting for more to write
    bool m_audioEnded = false;               // no more audio blocks will come
    long audioBlocksQueued = 0;              // blocks ever queued (a wait can miss none)
    QList<QueuedFrame> videoList;            // oldest first
    QList<AudioBlock> audioList;             // oldest first
    int64_t nextVideoPts = 0;                // pts of a frame queued without one
    size_t videoQueuedBytes = 0;             // bytes of pixels in videoList, shared ones once
    // Entries in videoList per picture, by the start of its pixels (alive while counted).
    std::unordered_map<const void *, int> entriesPerPicture;
    int peakVideoQueued = 0;                 // frames: videoList's longest length so far
    int peakAudioQueued = 0;                 // blocks: audioList's longest length so far
    size_t peakVideoQueuedBytes = 0;         // bytes: videoQueuedBytes's largest value so far
    long droppedVideo = 0;                   // frames not queued because the queue was full
    int64_t queuedSoundFrames = 0;           // samples per channel in audioList
    long refusedVideo = 0;                   // frames the writer refused
    long writtenVideo = 0;                   // frames the writer encoded
    int64_t filledSoundFrames = 0;           // samples of silence put before late blocks
    int64_t lostSoundFrames = 0;             // samples cut or refused at the bound
    int64_t lastVideoPts = -1;               // pts of the last frame written
    int64_t soundFramesOut = 0;              // samples per channel written
    QString m_failure;                       // why the recording cannot go on; empty: it can
    std::atomic<bool> m_failed{false};       // m_failure is set

    // Steady clock, ns since its epoch: when the picture's frame 0 is due; 0 when unset.
    std::atomic<int64_t> m_originNs{0};

    ThreadExit exit;                         // joins run() visibly to the sanitizer
};

#endif // FFMPEGENCODE_H
