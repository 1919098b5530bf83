#ifndef FFMPEGAPI_H
#define FFMPEGAPI_H

#include <QList>
#include <QString>
#include <QThread>
#include <atomic>
#include <condition_variable>
#include <functional>
#include <mutex>
#include <opencv2/core/mat.hpp>
#include <memory>
#include <string>

#include "audioblock.h"
#include "threadexit.h"

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavformat/avformat.h>
#include <libavutil/channel_layout.h>
#include <libavutil/samplefmt.h>
}

// What a host may link against: the media writer with its watermark and the snapshot
// writers. Everything else in the library is hidden.
#ifndef KWRECORDER_EXPORT
#define KWRECORDER_EXPORT __attribute__((visibility("default")))
#endif

struct AVAudioFifo;
class PeriodicSync;
struct AVFilterContext;
struct AVFilterGraph;
struct SwrContext;
struct SwsContext;

// Encoder state of one output stream.
struct OutputStream {
    AVStream *st = nullptr;          // the stream in the container (owned by the container)
    AVCodecContext *enc = nullptr;   // the encoder, owned: freed by flush or a failed open
    int64_t next_pts = 0;            // video: next frame's pts (1/fps); audio: samples per
                                     // channel out of the resampler so far (1/rate)
    int64_t samples_count = 0;       // audio: samples per channel given to the encoder
    AVFrame *frame = nullptr;        // the encoder's input frame
    AVFrame *tmp_frame = nullptr;    // audio: the resampler's output, in the encoder's format
    SwrContext *swr_ctx = nullptr;   // audio: S16 interleaved -> encoder format and channels
    AVAudioFifo *fifo = nullptr;     // audio: converted samples waiting to fill a frame
    int in_channels = 0;             // audio: channels of the blocks given to write_audio
};

// A text / local time / logo watermark.
struct stWaterprint {
    QString text;
    QString fontFile;
    int fontSize = 0;
    int x = 0;
    int y = 0;
    int fontColor = 0;   // 0xRRGGBB
    int bLocalTime = 0;  // 1: the local time is drawn before the text
    int bText = 0;       // 1: draw the text
    QString logoFile;
    int logoX = 0;
    int logoY = 0;
    int bLogo = 0;       // 1: overlay the logo
};

// The frame rate a recording uses for a requested one: 0 and negative rates (also when
// seen as huge unsigned values) are taken as 10, and rates above 1000 are held at 1000,
// so that the writer's time base and the feeder's schedule always agree.
int recordingFps(long long fps);

int add_stream(OutputStream *ost, AVFormatContext *oc, const AVCodec **codec, AVCodecID codec_id,
               int bitrate, int fps, int width, int height, int audioChannel, int sampleRate);
// Whether a camera frame of this OpenCV type can be recorded: 8-bit gray, BGR or BGRA.
bool isCameraFrameType(int cvType);
// Converts the top-left width x height pixels of an 8-bit gray, BGR or BGRA Mat into
// `frame`; 0, or -1 for another type or a scaler that cannot be made. `*scaler` is kept from call to call
// while the conversion's sizes and formats stay, and rebuilt when they change; the
// caller frees it with sws_freeContext.
int fill_yuv_image(AVFrame *frame, int width, int height, const cv::Mat &img,
                   SwsContext **scaler);
// The same with a scaler of its own for this one frame.
int fill_yuv_image(AVFrame *frame, int width, int height, cv::Mat &img);

// The media writer: one object writes one file, used by one thread at a time.
// Order of use: setHasVideo/setHasAudio (and setWriteMode), open, then
// write_video/write_audio as encodeVideo() says, then flush exactly once.
class KWRECORDER_EXPORT FFmpegApi
{
public:
    // How the container is laid out and when its bytes reach the disk.
    enum class WriteMode {
        // The index is written at flush; until then an MP4 is unreadable. The reference
        // the others are measured against.
        IndexAtEnd,
        // The file plays up to about the last second at any moment while it is written:
        // an MP4/MOV is fragmented (a fragment at least every second), Matroska clusters
        // close every second, every packet goes to the kernel as it is written and the
        // file is synced to the disk every PeriodicSync::kPeriod. flush leaves it so.
        Recoverable,
        // Recoverable while recording; flush rewrites a fragmented MP4/MOV as a standard
        // one (rewriteAsStandardMp4). The default.
        RecoverableThenStandard,
    };

    FFmpegApi();
    // Releases whatever a failed open built, or an open writer never flushed.
    ~FFmpegApi();
    FFmpegApi(const FFmpegApi &) = delete;
    FFmpegApi &operator=(const FFmpegApi &) = delete;

    void setHasVideo(bool on) { m_hasVideo = on; }
    bool hasVideo() const { return m_hasVideo; }
    void setHasAudio(bool on) { m_hasAudio = on; }
    bool hasAudio() const { return m_hasAudio; }
    void setWriteMode(WriteMode mode) { m_writeMode = mode; }
    WriteMode writeMode() const { return m_writeMode; }
    // Before open: asked while the output file is being opened; true gives the open up.
    void setStopRequest(std::function<bool()> stopRequested)
    {
        m_stopRequested = std::move(stopRequested);
    }

    // 0, or -1 after a message naming what failed.
    int open(char *filename, int videoBitrate, int fps, int width, int height,
             int audioChannel, int audioSampleRate);
    int audioFrameSize() const { return m_audioFrameSize; }
    bool encodeVideo();
    // Whether a video frame with this pts (frame periods) is due before the next audio.
    bool encodeVideo(int64_t videoPts);
    // 0, or -1 (a frame of the wrong size or type is refused without a timestamp advance).
    // Without a pts the frame follows the last one written.
    int write_video(cv::Mat img);
    // pts in frame periods: a frame that was never written leaves its place empty.
    int write_video(cv::Mat img, int64_t pts);
    // The same for a picture already converted for the encoder (its size and format), which
    // is only read: no conversion, no copy.
    int write_video(const AVFrame *picture, int64_t pts);
    // Reads channels x audioFrameSize() x 2 bytes of interleaved S16 (channels as given
    // to open); always 0.
    int write_audio(unsigned char *data);
    // Converts the block to the encoder's format and channels (more channels than the
    // encoder has are mixed down), stretched by `compensation` samples (positive: more
    // out than in) when drift correction is on, and encodes every whole frame it
    // completes. 0, or -1 for a block the writer was not opened for.
    int write_audio(const AudioBlock &block, int compensation = 0);
    // Before open: let write_audio stretch the sound to keep it on the picture's clock.
    // Off, the samples pass unchanged.
    void setDriftCorrection(bool on) { m_driftCorrection = on; }
    // Samples per channel out of the resampler so far: the sound's timeline, 1/rate.
    int64_t audioSamplesOut() const { return audio_st.next_pts; }
    // The first error an encoder, a packet, the trailer or the close got (an AVERROR), 0
    // while every one succeeded. The file stays as far as it was written.
    int writeError() const { return m_writeError; }
    // Drains both encoders, writes the trailer and releases everything; in
    // RecoverableThenStandard mode a fragmented MP4/MOV is then rewritten as a standard
    // one (or, when that fails, kept as it is after a message saying why).
    void flush();
    AVFrame *alloc_audio_frame(AVSampleFormat sample_fmt, const AVChannelLayout *channel_layout,
                               int sample_rate, int nb_samples);
    void test();

    // Watermark filter graph.
    QString getFiltersDescr(stWaterprint &w);
    int initFilters(AVCodecContext *c);
    int write_watermark(cv::Mat img);

    // Writes /tmp/aaIMG_<n>.jpg with a text drawn on it.
    static int SaveAsJPEG(cv::Mat img, int n);

    // Read-only views for callers that drive the filter graph or inspect the streams.
    AVCodecContext *videoEncoder() const { return video_st.enc; }
    AVCodecContext *audioEncoder() const { return audio_st.enc; }

private:
    int openOutput(AVDictionary *options, int audioChannel, int audioSampleRate);
    int openFile();
    int openAudio(AVDictionary *options, int inputChannels);
    int openResampler(int inputChannels);
    bool reserveResamplerOutput(int samples);
    int encodeAudioFifo(bool all);
    int drainAudio();
    void setRecoverableOptions(AVDictionary **muxerOptions);
    int closeOutput();
    void finishFile();
    int encodeAndWrite(OutputStream *ost, AVFrame *frame);
    void reportWriteError(const char *what, int error);
    // The video frame filled from `img` with the next timestamp, or null when `img` cannot
    // be taken (wrong type, too small) and the timestamp stays.
    AVFrame *nextVideoFrame(cv::Mat &img, int64_t pts);
    // Encodes a timed picture, through the watermark graph when there is one.
    int encodeVideoFrame(AVFrame *frame);
    void release();

    char *m_filename = nullptr;   // borrowed, valid only while open runs
    int m_width = 0;              // pixels
    int m_height = 0;             // pixels
    int m_fps = 0;                // frames per second
    int m_bitrate = 0;            // bits per second
    OutputStream video_st;
    OutputStream audio_st;
    const AVOutputFormat *fmt = nullptr;
    AVFormatContext *oc = nullptr;        // owned until flush
    const AVCodec *video_codec = nullptr;
    const AVCodec *audio_codec = nullptr;
    bool m_hasVideo = true;
    bool m_hasAudio = true;
    int m_audioFrameSize = 0;     // samples per channel in one audio block
    bool m_driftCorrection = false; // the resampler may stretch the sound
    bool m_useFilter = false;     // write_video goes through the watermark graph
    SwsContext *m_scaler = nullptr; // BGR -> the encoder's format: one for the recording
    AVFrame *m_input = nullptr;   // the reference write_video gives the encoder a picture by
    AVFilterContext *buffersink_ctx = nullptr;
    AVFilterContext *buffersrc_ctx = nullptr;
    AVFilterGraph *filter_graph = nullptr;
    bool m_headerWritten = false; // a trailer is owed
    bool m_writeFailed = false;   // a packet could not be written: told once, not per packet
    int m_writeError = 0;         // the AVERROR of that first failed write
    WriteMode m_writeMode = WriteMode::RecoverableThenStandard;
    std::string m_path;           // the output's name, kept from open for flush
    std::function<bool()> m_stopRequested; // the recording is no longer wanted
    bool m_fragmented = false;    // the output is a fragmented MP4/MOV
    std::unique_ptr<PeriodicSync> m_sync; // syncs a Recoverable output while it is written
};

// The process-wide snapshot thread: frames queued from any thread are written to
// /tmp/IMG_13.jpg in the background, in order, the newest few kept when they come faster
// than they are written.
class KWRECORDER_EXPORT FilterThread : public QThread
{
public:
    // Any thread. The instance lives until the process ends.
    static FilterThread *instance();
    // Any thread. Queues one frame (its pixels are shared, not copied); starts the
    // thread on first use. The queue keeps the newest few: older waiting frames make room.
    void start(cv::Mat img);
    // Any thread. Frames dropped from the queue so far to make room for newer ones.
    quint64 dropped();
    // Any thread. Writes /tmp/IMG_<n>.jpg with cur_use_logo.png laid over it.
    int saveAsJPEG(cv::Mat img, int n);
    ~FilterThread() override;

protected:
    void run() override;

private:
    FilterThread();
    // Blocks until the queue is written out, or kDrainLimitMs passed.
    void drain();

    // Waits for the queue at process exit, while everything the writer uses still exists.
    struct ExitDrain {
        ~ExitDrain();
    };

    std::atomic<bool> bStarted{false};  // the thread has been started
    std::mutex mutex;                   // guards imageList, bWriting and droppedFrames
    std::condition_variable waitCondition; // one wake per queued frame
    std::condition_variable idleCondition; // woken when a frame has been written
    QList<cv::Mat> imageList;           // frames waiting to be written, oldest first
    bool bWriting = false;              // a frame taken from imageList is being written
    quint64 droppedFrames = 0;          // frames removed unwritten to keep the bound
};

#endif // FFMPEGAPI_H
