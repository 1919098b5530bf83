#ifndef MEDIAWRITER_H
#define MEDIAWRITER_H

#include <QString>
#include <atomic>
#include <functional>
#include <memory>
#include <opencv2/core/mat.hpp>
#include <string>
#include <vector>

#include "ffmpegwriter.h"

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavformat/avformat.h>
#include <libavutil/channel_layout.h>
#include <libavutil/samplefmt.h>
}

struct AVAudioFifo;
class PeriodicSync;
struct AVFilterContext;
struct AVFilterGraph;
struct SwrContext;

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

// The frame rate a recording uses for a requested one: 0 and negative rates (also when
// seen as huge unsigned values) are taken as 10, and rates above 1000 are held at 1000,
// so that the writer's time base and the feeder's schedule always agree.
int recordingFps(long long fps);

int add_stream(OutputStream *ost, AVFormatContext *oc, const AVCodec **codec, AVCodecID codec_id,
               int bitrate, int fps, int width, int height, int audioChannel, int sampleRate);
// Converts the top-left width x height pixels of an 8-bit gray, BGR or BGRA Mat into
// `frame` of that size, as the recording converts (frameconverter.h); 0, or -1 for another
// type, size or format. `scratch` is the conversion's, kept from call to call.
int fill_yuv_image(AVFrame *frame, int width, int height, const cv::Mat &img,
                   std::vector<uint8_t> &scratch);
// The same with a scratch of its own for this one frame.
int fill_yuv_image(AVFrame *frame, int width, int height, cv::Mat &img);

// The writer behind FFmpegApi, with its FFmpeg state: what the library's own recorder
// drives directly.
class MediaWriter
{
public:
    using WriteMode = FFmpegApi::WriteMode;

    MediaWriter();
    ~MediaWriter();
    MediaWriter(const MediaWriter &) = delete;
    MediaWriter &operator=(const MediaWriter &) = delete;

    // The operations of FFmpegApi, which says what each does, by step.
    // Before open.
    void setHasVideo(bool on) { m_hasVideo = on; }
    void setHasAudio(bool on) { m_hasAudio = on; }
    void setWriteMode(WriteMode mode) { m_writeMode = mode; }
    void setDriftCorrection(bool on) { m_driftCorrection = on; }
    void setStopRequest(std::function<bool()> stopRequested) { m_stopRequested = std::move(stopRequested); }
    // Opening.
    int open(char *filename, int videoBitrate, int fps, int width, int height,
             int audioChannel, int audioSampleRate);
    int initFilters(AVCodecContext *c);
    QString getFiltersDescr(stWaterprint &w);
    // Writing.
    bool encodeVideo(int64_t videoPts);
    bool encodeVideo();
    int write_video(const AVFrame *picture, int64_t pts);
    int write_video(cv::Mat img, int64_t pts);
    int write_video(cv::Mat img);
    // More writing.
    int write_watermark(cv::Mat img);
    int write_audio(const AudioBlock &block, int compensation = 0);
    int write_audio(unsigned char *data);
    AVFrame *alloc_audio_frame(AVSampleFormat sample_fmt, const AVChannelLayout *channel_layout,
                               int sample_rate, int nb_samples);
    // Ending.
    void flush();
    int writeError() const { return m_writeError; }
    // What it has.
    bool hasVideo() const { return m_hasVideo; }
    bool hasAudio() const { return m_hasAudio; }
    WriteMode writeMode() const { return m_writeMode; }
    int audioFrameSize() const { return m_audioFrameSize; }
    int64_t audioSamplesOut() const { return audio_st.next_pts; }
    // Read-only views.
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
    std::vector<uint8_t> m_scratch; // the picture conversion's, one for the recording
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

#endif // MEDIAWRITER_H
