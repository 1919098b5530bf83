#ifndef FFMPEGWRITER_H
#define FFMPEGWRITER_H

#include <QString>
#include <cstdint>
#include <functional>
#include <memory>
#include <opencv2/core/mat.hpp>

#include "audioblock.h"
#include "jpegsnapshot.h"
#include "kwrecorderexport.h"
#include "watermark.h"

extern "C" {
#include <libavutil/channel_layout.h>
#include <libavutil/samplefmt.h>
}

struct AVCodecContext;
struct AVFrame;
class MediaWriter;

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
        // file is synced to the disk every second. flush leaves it so.
        Recoverable,
        // Recoverable while recording; flush finishes a fragmented MP4/MOV as a standard
        // one in place. The default.
        RecoverableThenStandard,
    };

    FFmpegApi();
    // Releases whatever a failed open built, or an open writer never flushed.
    ~FFmpegApi();
    FFmpegApi(const FFmpegApi &) = delete;
    FFmpegApi &operator=(const FFmpegApi &) = delete;

    void setHasVideo(bool on);
    bool hasVideo() const;
    void setHasAudio(bool on);
    bool hasAudio() const;
    void setWriteMode(WriteMode mode);
    WriteMode writeMode() const;
    // Before open: asked while the output file is being opened; true gives the open up.
    void setStopRequest(std::function<bool()> stopRequested);

    // 0, or -1 after a message naming what failed.
    int open(char *filename, int videoBitrate, int fps, int width, int height,
             int audioChannel, int audioSampleRate);
    int audioFrameSize() const;
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
    // to open); 0, or -1 when the encoder failed.
    int write_audio(unsigned char *data);
    // Converts the block to the encoder's format and channels (more channels than the
    // encoder has are mixed down), stretched by `compensation` samples (positive: more
    // out than in) when drift correction is on, and encodes every whole frame it
    // completes. 0, or -1 for a block the writer was not opened for.
    int write_audio(const AudioBlock &block, int compensation = 0);
    // Before open: let write_audio stretch the sound to keep it on the picture's clock.
    // Off, the samples pass unchanged.
    void setDriftCorrection(bool on);
    // Samples per channel out of the resampler so far: the sound's timeline, 1/rate.
    int64_t audioSamplesOut() const;
    // The first error an encoder, a packet, the trailer or the close got (an AVERROR), 0
    // while every one succeeded. The file stays as far as it was written.
    int writeError() const;
    // Drains both encoders, writes the trailer and releases everything; in
    // RecoverableThenStandard mode a fragmented MP4/MOV is then rewritten as a standard
    // one (or, when that fails, kept as it is after a message saying why).
    void flush();
    AVFrame *alloc_audio_frame(AVSampleFormat sample_fmt, const AVChannelLayout *channel_layout,
                               int sample_rate, int nb_samples);

    // Watermark filter graph.
    QString getFiltersDescr(stWaterprint &w);
    int initFilters(AVCodecContext *c);
    int write_watermark(cv::Mat img);

    // Writes /tmp/aaIMG_<n>.jpg with a text drawn on it.
    static int SaveAsJPEG(cv::Mat img, int n) { return jpegsnapshot::withText(img, n); }

    // Read-only views for callers that drive the filter graph or inspect the streams.
    AVCodecContext *videoEncoder() const;
    AVCodecContext *audioEncoder() const;

private:
    std::unique_ptr<MediaWriter> d; // the encoders, the container and their state
};

#endif // FFMPEGWRITER_H
