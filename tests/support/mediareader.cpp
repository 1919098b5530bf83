#include "mediareader.h"

#include <opencv2/core.hpp>
#include <opencv2/imgproc.hpp>

extern "C" {
#include <libavformat/avformat.h>
#include <libswresample/swresample.h>
#include <libswscale/swscale.h>
}

namespace {

// One file being read: its decoders and the converters to BGR / S16.
struct Reader {
    MediaFile &out;
    bool keepPictures;
    AVFormatContext *fmt = nullptr;
    std::vector<AVCodecContext *> codecs{}; // by stream index, null where not decoded
    SwsContext *sws = nullptr;
    SwrContext *swr = nullptr;
    AVFrame *frame = av_frame_alloc();
    AVPacket *pkt = av_packet_alloc();

    ~Reader()
    {
        for (AVCodecContext *c : codecs)
            avcodec_free_context(&c);
        sws_freeContext(sws);
        swr_free(&swr);
        av_frame_free(&frame);
        av_packet_free(&pkt);
        avformat_close_input(&fmt);
    }
};

// Sets *error (when asked for) to `what` and FFmpeg's text for `code`; false.
bool fail(std::string *error, const std::string &what, int code)
{
    char text[AV_ERROR_MAX_STRING_SIZE] = {0};
    if (error)
        *error = what + ": " + av_make_error_string(text, sizeof text, code);
    return false;
}

int openDecoder(Reader &r, const AVStream *st)
{
    const AVCodec *codec = avcodec_find_decoder(st->codecpar->codec_id);
    AVCodecContext *c = r.codecs[st->index] = codec ? avcodec_alloc_context3(codec) : nullptr;
    if (!c)
        return AVERROR_DECODER_NOT_FOUND;
    c->pkt_timebase = st->time_base;
    const int ret = avcodec_parameters_to_context(c, st->codecpar);
    return ret < 0 ? ret : avcodec_open2(c, codec, nullptr);
}

int64_t framePts(const AVFrame *f)
{
    return f->pts == AV_NOPTS_VALUE ? f->best_effort_timestamp : f->pts;
}

// The matrix a player converts a picture with: the declared one; undeclared, BT.709 from
// 720 lines up and BT.601 below, as browsers and desktop players guess.
int playerMatrix(const AVFrame *f)
{
    constexpr int kHdLines = 720;
    if (f->colorspace != AVCOL_SPC_UNSPECIFIED && f->colorspace != AVCOL_SPC_RESERVED)
        return f->colorspace;
    return f->height >= kHdLines ? SWS_CS_ITU709 : SWS_CS_ITU601;
}

// A decoded picture as BGR the way a player shows it (playerMatrix, the declared range,
// limited where undeclared), with the scaler in `*sws` (kept for the next).
cv::Mat toBgr(SwsContext **sws, const AVFrame *f)
{
    const AVPixelFormat format = AVPixelFormat(f->format);
    *sws = sws_getCachedContext(*sws, f->width, f->height, format, f->width, f->height,
                                AV_PIX_FMT_BGR24, SWS_POINT, nullptr, nullptr, nullptr);
    const bool fullRange = f->color_range == AVCOL_RANGE_JPEG || format == AV_PIX_FMT_YUVJ420P
        || format == AV_PIX_FMT_YUVJ422P || format == AV_PIX_FMT_YUVJ444P;
    constexpr int kUnitFixed = 1 << 16; // swscale's brightness, contrast and saturation 1.0
    sws_setColorspaceDetails(*sws, sws_getCoefficients(playerMatrix(f)), fullRange,
                             sws_getCoefficients(SWS_CS_DEFAULT), 1, 0, kUnitFixed, kUnitFixed);
    // swscale's vector code writes past the end of short rows: give it room, then
    // keep only the picture.
    cv::Mat room(f->height + 2, f->width + 64, CV_8UC3);
    uint8_t *dst[1] = {room.data};
    const int dstStride[1] = {static_cast<int>(room.step)};
    sws_scale(*sws, f->data, f->linesize, 0, f->height, dst, dstStride);
    return room(cv::Rect(0, 0, f->width, f->height)).clone();
}

// Appends the samples of `f` as S16, through a resampler made for the first block.
void takeSamples(Reader &r, AVFrame *f, AVRational timeBase)
{
    MediaFile &out = r.out;
    if (!r.swr) {
        if (framePts(f) != AV_NOPTS_VALUE)
            out.audioStartSeconds = framePts(f) * av_q2d(timeBase);
        swr_alloc_set_opts2(&r.swr, &f->ch_layout, AV_SAMPLE_FMT_S16, f->sample_rate, &f->ch_layout,
                            static_cast<AVSampleFormat>(f->format), f->sample_rate, 0, nullptr);
        swr_init(r.swr);
        out.audioChannels = f->ch_layout.nb_channels;
        out.audioSampleRate = f->sample_rate;
    }
    const size_t at = out.samples.size();
    out.samples.resize(at + size_t(f->nb_samples) * out.audioChannels);
    uint8_t *dst[1] = {reinterpret_cast<uint8_t *>(out.samples.data() + at)};
    const int got = swr_convert(r.swr, dst, f->nb_samples, const_cast<const uint8_t **>(f->data),
                                f->nb_samples);
    out.samples.resize(at + size_t(std::max(got, 0)) * out.audioChannels);
}

// Gives `pkt` (null: the end) to the decoder `c`, if any, and takes what comes out.
void decode(Reader &r, AVCodecContext *c, const AVPacket *pkt)
{
    if (!c || avcodec_send_packet(c, pkt) < 0)
        return;
    for (AVFrame *f = r.frame; avcodec_receive_frame(c, f) >= 0; av_frame_unref(f)) {
        if (c->codec_type == AVMEDIA_TYPE_AUDIO) {
            takeSamples(r, f, c->pkt_timebase);
            continue;
        }
        // The writer's pictures are planar YUV: plane 0 is the luma.
        const cv::Mat luma(f->height, f->width, CV_8UC1, f->data[0], size_t(f->linesize[0]));
        r.out.frameBrightness.push_back(cv::mean(luma)[0]);
        r.out.framePts.push_back(framePts(f));
        if (r.keepPictures)
            r.out.frames.push_back(toBgr(&r.sws, f));
    }
}

} // namespace

double MediaStream::durationSeconds() const
{
    if (packetPts.empty())
        return 0;
    const auto last = std::max_element(packetPts.begin(), packetPts.end());
    const int64_t first = std::max<int64_t>(*std::min_element(packetPts.begin(), packetPts.end()), 0);
    return (*last + packetDuration[size_t(last - packetPts.begin())] - first) * av_q2d(timeBase);
}

const MediaStream *MediaFile::first(AVMediaType type) const
{
    const auto s = std::find_if(streams.begin(), streams.end(),
                                [&](const MediaStream &s) { return s.type == type; });
    return s == streams.end() ? nullptr : &*s;
}

double MediaFile::videoSeconds() const
{
    const MediaStream *v = video();
    if (!v)
        return 0;
    const size_t n = frames.empty() ? v->packetPts.size() : frames.size();
    // Every frame lasts one tick of the 1/fps time base the writer uses.
    return n * av_q2d(v->timeBase) * (v->packetDuration.empty() ? 1 : v->packetDuration[0]);
}

double MediaFile::audioSeconds() const
{
    return audioChannels && audioSampleRate ? double(samples.size()) / audioChannels / audioSampleRate : 0;
}

bool readMediaFile(const std::string &path, MediaFile &out, std::string *error, bool decodePictures,
                   bool keepPictures)
{
    out = MediaFile();
    Reader r{out, keepPictures};
    int ret = avformat_open_input(&r.fmt, path.c_str(), nullptr, nullptr);
    if (ret < 0 || (ret = avformat_find_stream_info(r.fmt, nullptr)) < 0)
        return fail(error, "cannot open " + path, ret);
    r.codecs.assign(r.fmt->nb_streams, nullptr);
    for (unsigned i = 0; i < r.fmt->nb_streams; ++i) {
        const AVStream *st = r.fmt->streams[i];
        const AVCodecParameters *p = st->codecpar;
        const double start = st->start_time == AV_NOPTS_VALUE ? NAN : st->start_time * av_q2d(st->time_base);
        out.streams.push_back(
            {p->codec_type, p->codec_id, st->time_base, p->width, p->height, start, {}, {},
             {p->color_space, p->color_primaries, p->color_trc, p->color_range, p->chroma_location}});
        const bool wanted = p->codec_type == AVMEDIA_TYPE_AUDIO
            || (p->codec_type == AVMEDIA_TYPE_VIDEO && decodePictures);
        if (wanted && (ret = openDecoder(r, st)) < 0)
            return fail(error, "cannot decode stream " + std::to_string(i) + " of " + path, ret);
    }
    while ((ret = av_read_frame(r.fmt, r.pkt)) >= 0) {
        MediaStream &s = out.streams[r.pkt->stream_index];
        s.packetPts.push_back(r.pkt->pts);
        s.packetDuration.push_back(r.pkt->duration);
        decode(r, r.codecs[r.pkt->stream_index], r.pkt);
        av_packet_unref(r.pkt);
    }
    for (AVCodecContext *c : r.codecs)
        decode(r, c, nullptr);
    return ret == AVERROR_EOF || fail(error, "read error in " + path, ret);
}

double dominantFrequency(const std::vector<int16_t> &interleaved, int channels, int channel, int sampleRate)
{
    // Half a second from the middle (the encoder's start and end are ramps), padded to a
    // second so that the spectrum's bins are 1 Hz apart; the strongest from 20 Hz to 8 kHz.
    const size_t frames = interleaved.size() / std::max(channels, 1);
    const size_t n = std::min<size_t>(frames, size_t(std::max(sampleRate, 0) / 2));
    if (sampleRate < 40 || n == 0)
        return 0;
    cv::Mat signal = cv::Mat::zeros(1, sampleRate, CV_64F), spectrum, parts[2], level;
    for (size_t i = 0; i < n; ++i)
        signal.at<double>(int(i)) = interleaved[((frames - n) / 2 + i) * channels + channel];
    cv::dft(signal, spectrum, cv::DFT_COMPLEX_OUTPUT);
    cv::split(spectrum, parts);
    cv::magnitude(parts[0], parts[1], level);
    cv::Point peak;
    cv::minMaxLoc(level.colRange(20, std::min(8000, sampleRate / 2) + 1), nullptr, nullptr, nullptr, &peak);
    return 20 + peak.x;
}

cv::Mat solidImage(int width, int height, const cv::Scalar &bgr)
{
    return cv::Mat(height, width, CV_8UC3, bgr);
}

cv::Mat paddedCopy(const cv::Mat &img, int extraPixelsPerRow)
{
    // A view of a wider picture: rows are (cols + extra) x 3 bytes apart, and the view
    // keeps the wider buffer alive.
    cv::Mat wide(img.rows, img.cols + extraPixelsPerRow, CV_8UC3, cv::Scalar(77, 77, 77));
    img.copyTo(wide.colRange(0, img.cols));
    return wide.colRange(0, img.cols);
}

cv::Mat textureImage(int width, int height, int seed)
{
    cv::Mat img(height, width, CV_8UC3);
    cv::RNG(seed).fill(img, cv::RNG::UNIFORM, 0, 256);
    cv::GaussianBlur(img, img, cv::Size(3, 3), 0);
    return img;
}

cv::Mat throughYuv420(const cv::Mat &bgr, cv::Size size)
{
    if (size.empty())
        size = bgr.size();
    AVFrame *yuv = av_frame_alloc();
    yuv->format = AV_PIX_FMT_YUV420P;
    yuv->width = size.width;
    yuv->height = size.height;
    // What the writer declares.
    yuv->colorspace = AVCOL_SPC_SMPTE170M;
    yuv->color_range = AVCOL_RANGE_MPEG;
    // There with the writer's kind of filter (a box where it scales down), back with the
    // reader's.
    SwsContext *to = sws_getContext(bgr.cols, bgr.rows, AV_PIX_FMT_BGR24, size.width, size.height,
                                    AV_PIX_FMT_YUV420P, SWS_AREA, nullptr, nullptr, nullptr);
    SwsContext *back = nullptr;
    const uint8_t *src[1] = {bgr.data};
    const int srcStride[1] = {static_cast<int>(bgr.step[0])};
    cv::Mat out;
    if (to && bgr.type() == CV_8UC3 && av_frame_get_buffer(yuv, 0) >= 0
        && sws_scale(to, src, srcStride, 0, bgr.rows, yuv->data, yuv->linesize) > 0)
        out = toBgr(&back, yuv);
    sws_freeContext(back);
    sws_freeContext(to);
    av_frame_free(&yuv);
    return out;
}

double meanAbsDiff(const cv::Mat &a, const cv::Mat &b)
{
    if (a.size() != b.size() || a.type() != b.type())
        return 1e9;
    return cv::norm(a, b, cv::NORM_L1) / (double(a.total()) * a.channels());
}
