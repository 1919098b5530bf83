#include "ffmpegwriter.h"

#include "mediawriter.h"

// The exported writer hands every call to the library's own.

FFmpegApi::FFmpegApi()
    : d(std::make_unique<MediaWriter>())
{
}

FFmpegApi::~FFmpegApi() = default;

void FFmpegApi::setHasVideo(bool on) { d->setHasVideo(on); }
bool FFmpegApi::hasVideo() const { return d->hasVideo(); }
void FFmpegApi::setHasAudio(bool on) { d->setHasAudio(on); }
bool FFmpegApi::hasAudio() const { return d->hasAudio(); }
void FFmpegApi::setWriteMode(WriteMode mode) { d->setWriteMode(mode); }
FFmpegApi::WriteMode FFmpegApi::writeMode() const { return d->writeMode(); }
void FFmpegApi::setStopRequest(std::function<bool()> stopRequested) { d->setStopRequest(std::move(stopRequested)); }
int FFmpegApi::open(char *filename, int videoBitrate, int fps, int width, int height,
                    int audioChannel, int audioSampleRate)
{
    return d->open(filename, videoBitrate, fps, width, height, audioChannel, audioSampleRate);
}
int FFmpegApi::audioFrameSize() const { return d->audioFrameSize(); }
bool FFmpegApi::encodeVideo() { return d->encodeVideo(); }
bool FFmpegApi::encodeVideo(int64_t videoPts) { return d->encodeVideo(videoPts); }
int FFmpegApi::write_video(cv::Mat img) { return d->write_video(img); }
int FFmpegApi::write_video(cv::Mat img, int64_t pts) { return d->write_video(img, pts); }
int FFmpegApi::write_video(const AVFrame *picture, int64_t pts) { return d->write_video(picture, pts); }
int FFmpegApi::write_audio(unsigned char *data) { return d->write_audio(data); }
int FFmpegApi::write_audio(const AudioBlock &block, int compensation) { return d->write_audio(block, compensation); }
void FFmpegApi::setDriftCorrection(bool on) { d->setDriftCorrection(on); }
int64_t FFmpegApi::audioSamplesOut() const { return d->audioSamplesOut(); }
int FFmpegApi::writeError() const { return d->writeError(); }
void FFmpegApi::flush() { d->flush(); }
AVFrame *FFmpegApi::alloc_audio_frame(AVSampleFormat sample_fmt, const AVChannelLayout *channel_layout,
                                      int sample_rate, int nb_samples)
{
    return d->alloc_audio_frame(sample_fmt, channel_layout, sample_rate, nb_samples);
}
QString FFmpegApi::getFiltersDescr(stWaterprint &w) { return d->getFiltersDescr(w); }
int FFmpegApi::initFilters(AVCodecContext *c) { return d->initFilters(c); }
int FFmpegApi::write_watermark(cv::Mat img) { return d->write_watermark(img); }
AVCodecContext *FFmpegApi::videoEncoder() const { return d->videoEncoder(); }
AVCodecContext *FFmpegApi::audioEncoder() const { return d->audioEncoder(); }
