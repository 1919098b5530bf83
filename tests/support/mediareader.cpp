#include "mediareader.h"

#include <cmath>
#include <opencv2/core.hpp>
#include <opencv2/imgproc.hpp>

extern "C" {
#include <libavformat/avformat.h>
#include <libswresample/swresample.h>
#include <libswscale/swscale.h>
}

namespace {

std::string avError(int code)
{
    char buf[AV_ERROR_MAX_STRING_SIZE] = {0};
    av_strerror(code, buf, sizeof buf);
    return buf;
}

// Decoders of one file, one per video/audio stream, and the converters to BGR / S16.
struct Decoders {
    AVFormatContext *fmt = nullptr;
    std::vector<AVCodecContext *> codecs; // by stream index, null where not decoded
    SwsContext *sws = nullptr;
    SwrContext *swr = nullptr;
    AVFrame *frame = nullptr;
    AVPacket *pkt = nullptr;
    bool keepPictures = true;

    ~Decoders()
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

// Mean of the luma plane of a planar YUV picture (the writer's format).
double meanLuma(const AVFrame *f)
{
    double sum = 0;
    for (int y = 0; y < f->height; ++y) {
        const uint8_t *row = f->data[0] + y * f->linesize[0];
        for (int x = 0; x < f->width; ++x)
            sum += row[x];
    }
    return f->width && f->height ? sum / (double(f->width) * f->height) : 0;
}

// A decoded picture as BGR, with the scaler in `*sws` (kept for the next).
cv::Mat toBgr(SwsContext **sws, const AVFrame *f)
{
    *sws = sws_getCachedContext(*sws, f->width, f->height, static_cast<AVPixelFormat>(f->format),
                                f->width, f->height, AV_PIX_FMT_BGR24, SWS_POINT, nullptr,
                                nullptr, nullptr);
    // swscale's vector code writes past the end of short rows: give it room, then
    // keep only the picture.
    cv::Mat room(f->height + 2, f->width + 64, CV_8UC3);
    uint8_t *dst[1] = {room.data};
    const int dstStride[1] = {static_cast<int>(room.step)};
    sws_scale(*sws, f->data, f->linesize, 0, f->height, dst, dstStride);
    return room(cv::Rect(0, 0, f->width, f->height)).clone();
}

void takePicture(Decoders &d, const AVFrame *f, MediaFile &out)
{
    out.frameBrightness.push_back(meanLuma(f));
    out.framePts.push_back(f->pts == AV_NOPTS_VALUE ? f->best_effort_timestamp : f->pts);
    if (d.keepPictures)
        out.frames.push_back(toBgr(&d.sws, f));
}

void takeSamples(Decoders &d, const AVFrame *f, AVRational timeBase, MediaFile &out)
{
    if (!d.swr) {
        const int64_t pts = f->pts == AV_NOPTS_VALUE ? f->best_effort_timestamp : f->pts;
        if (pts != AV_NOPTS_VALUE)
            out.audioStartSeconds = pts * av_q2d(timeBase);
        AVChannelLayout layout = f->ch_layout; // 5.1 takes the layouts non-const
        swr_alloc_set_opts2(&d.swr, &layout, AV_SAMPLE_FMT_S16, f->sample_rate, &layout,
                            static_cast<AVSampleFormat>(f->format), f->sample_rate, 0, nullptr);
        swr_init(d.swr);
        out.audioChannels = f->ch_layout.nb_channels;
        out.audioSampleRate = f->sample_rate;
    }
    const size_t at = out.samples.size();
    out.samples.resize(at + static_cast<size_t>(f->nb_samples) * out.audioChannels);
    uint8_t *dst[1] = {reinterpret_cast<uint8_t *>(out.samples.data() + at)};
    const int got = swr_convert(d.swr, dst, f->nb_samples, const_cast<const uint8_t **>(f->data),
                                f->nb_samples);
    out.samples.resize(at + static_cast<size_t>(std::max(got, 0)) * out.audioChannels);
}

void receiveAll(Decoders &d, AVCodecContext *c, MediaFile &out)
{
    while (avcodec_receive_frame(c, d.frame) >= 0) {
        if (c->codec_type == AVMEDIA_TYPE_VIDEO)
            takePicture(d, d.frame, out);
        else
            takeSamples(d, d.frame, c->pkt_timebase, out);
        av_frame_unref(d.frame);
    }
}

bool openDecoder(Decoders &d, const AVStream *st, std::string *error)
{
    const AVCodec *codec = avcodec_find_decoder(st->codecpar->codec_id);
    if (!codec) {
        if (error)
            *error = "no decoder for stream " + std::to_string(st->index);
        return false;
    }
    AVCodecContext *c = avcodec_alloc_context3(codec);
    d.codecs[st->index] = c;
    if (!c || avcodec_parameters_to_context(c, st->codecpar) < 0) {
        if (error)
            *error = "cannot set up the decoder";
        return false;
    }
    c->pkt_timebase = st->time_base;
    const int ret = avcodec_open2(c, codec, nullptr);
    if (ret < 0) {
        if (error)
            *error = "cannot open the decoder: " + avError(ret);
        return false;
    }
    return true;
}

} // namespace

double MediaStream::durationSeconds() const
{
    if (packetPts.empty())
        return 0;
    int64_t first = packetPts.front(), last = packetPts.front();
    size_t lastIndex = 0;
    for (size_t i = 0; i < packetPts.size(); ++i) {
        first = std::min(first, packetPts[i]);
        if (packetPts[i] >= last) {
            last = packetPts[i];
            lastIndex = i;
        }
    }
    return (last + packetDuration[lastIndex] - std::max<int64_t>(first, 0)) * av_q2d(timeBase);
}

const MediaStream *MediaFile::video() const
{
    for (const MediaStream &s : streams)
        if (s.type == AVMEDIA_TYPE_VIDEO)
            return &s;
    return nullptr;
}

const MediaStream *MediaFile::audio() const
{
    for (const MediaStream &s : streams)
        if (s.type == AVMEDIA_TYPE_AUDIO)
            return &s;
    return nullptr;
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
    if (!audioChannels || !audioSampleRate)
        return 0;
    return double(samples.size()) / audioChannels / audioSampleRate;
}

bool readMediaFile(const std::string &path, MediaFile &out, std::string *error, bool decodePictures,
                   bool keepPictures)
{
    out = MediaFile();
    Decoders d;
    d.keepPictures = keepPictures;
    int ret = avformat_open_input(&d.fmt, path.c_str(), nullptr, nullptr);
    if (ret < 0) {
        if (error)
            *error = "cannot open " + path + ": " + avError(ret);
        return false;
    }
    ret = avformat_find_stream_info(d.fmt, nullptr);
    if (ret < 0) {
        if (error)
            *error = "cannot read the streams of " + path + ": " + avError(ret);
        return false;
    }
    out.formatName = d.fmt->iformat->name;
    d.codecs.assign(d.fmt->nb_streams, nullptr);
    d.frame = av_frame_alloc();
    d.pkt = av_packet_alloc();
    for (unsigned i = 0; i < d.fmt->nb_streams; ++i) {
        const AVStream *st = d.fmt->streams[i];
        MediaStream s;
        s.index = static_cast<int>(i);
        s.type = st->codecpar->codec_type;
        s.codecId = st->codecpar->codec_id;
        s.timeBase = st->time_base;
        s.width = st->codecpar->width;
        s.height = st->codecpar->height;
        s.sampleRate = st->codecpar->sample_rate;
        s.channels = st->codecpar->ch_layout.nb_channels;
        s.frameSize = st->codecpar->frame_size;
        out.streams.push_back(s);
        const bool decode = s.type == AVMEDIA_TYPE_AUDIO
            || (s.type == AVMEDIA_TYPE_VIDEO && decodePictures);
        if (decode && !openDecoder(d, st, error))
            return false;
    }
    while ((ret = av_read_frame(d.fmt, d.pkt)) >= 0) {
        MediaStream &s = out.streams[d.pkt->stream_index];
        s.packetPts.push_back(d.pkt->pts);
        s.packetDts.push_back(d.pkt->dts);
        s.packetDuration.push_back(d.pkt->duration);
        out.packetStreamOrder.push_back(d.pkt->stream_index);
        AVCodecContext *c = d.codecs[d.pkt->stream_index];
        if (c && avcodec_send_packet(c, d.pkt) >= 0)
            receiveAll(d, c, out);
        av_packet_unref(d.pkt);
    }
    if (ret != AVERROR_EOF) {
        if (error)
            *error = "read error in " + path + ": " + avError(ret);
        return false;
    }
    for (AVCodecContext *c : d.codecs) {
        if (c && avcodec_send_packet(c, nullptr) >= 0)
            receiveAll(d, c, out);
    }
    return true;
}

// Goertzel power of frequency f over n frames of one channel, starting at frame `start`.
static double tonePower(const std::vector<int16_t> &interleaved, int channels, int channel,
                        int sampleRate, size_t start, size_t n, double f)
{
    const double coeff = 2 * std::cos(2 * M_PI * f / sampleRate);
    double s1 = 0, s2 = 0;
    for (size_t i = 0; i < n; ++i) {
        const double s0 = interleaved[(start + i) * channels + channel] + coeff * s1 - s2;
        s2 = s1;
        s1 = s0;
    }
    return s1 * s1 + s2 * s2 - coeff * s1 * s2;
}

double dominantFrequency(const std::vector<int16_t> &interleaved, int channels, int channel,
                         int sampleRate)
{
    // Half a second from the middle (the encoder's start and end are ramps); a 10 Hz scan
    // from 20 Hz to 8 kHz, then 1 Hz steps around the best.
    const size_t frames = interleaved.size() / std::max(channels, 1);
    const size_t n = std::min<size_t>(frames, static_cast<size_t>(sampleRate / 2));
    const size_t start = (frames - n) / 2;
    const double top = std::min(8000.0, sampleRate / 2.0 - 1);
    auto best = [&](double from, double to, double step) {
        double bestPower = -1, bestF = from;
        for (double f = from; f <= to; f += step) {
            const double p = tonePower(interleaved, channels, channel, sampleRate, start, n, f);
            if (p > bestPower) {
                bestPower = p;
                bestF = f;
            }
        }
        return bestF;
    };
    const double coarse = best(20, top, 10);
    return best(std::max(20.0, coarse - 10), std::min(top, coarse + 10), 1);
}

cv::Mat solidImage(int width, int height, const cv::Scalar &bgr)
{
    return cv::Mat(height, width, CV_8UC3, bgr);
}

cv::Mat gradientImage(int width, int height)
{
    cv::Mat img(height, width, CV_8UC3);
    for (int y = 0; y < height; ++y)
        for (int x = 0; x < width; ++x)
            img.at<cv::Vec3b>(y, x) = cv::Vec3b(static_cast<uchar>(x * 255 / std::max(1, width - 1)),
                                                static_cast<uchar>(y * 255 / std::max(1, height - 1)),
                                                128);
    return img;
}

cv::Mat paddedCopy(const cv::Mat &img, int extraPixelsPerRow)
{
    // A view of a wider picture: rows are (cols + extra) x 3 bytes apart, and the view
    // keeps the wider buffer alive.
    cv::Mat wide(img.rows, img.cols + extraPixelsPerRow, CV_8UC3, cv::Scalar(77, 77, 77));
    cv::Mat view = wide(cv::Rect(0, 0, img.cols, img.rows));
    img.copyTo(view);
    return view;
}

cv::Mat textureImage(int width, int height, int seed)
{
    cv::RNG rng(seed);
    cv::Mat img(height, width, CV_8UC3);
    rng.fill(img, cv::RNG::UNIFORM, 0, 256);
    cv::GaussianBlur(img, img, cv::Size(3, 3), 0);
    return img;
}

cv::Mat throughYuv420(const cv::Mat &bgr)
{
    AVFrame *yuv = av_frame_alloc();
    if (!yuv)
        return {};
    yuv->format = AV_PIX_FMT_YUV420P;
    yuv->width = bgr.cols;
    yuv->height = bgr.rows;
    SwsContext *to = sws_getContext(bgr.cols, bgr.rows, AV_PIX_FMT_BGR24, bgr.cols, bgr.rows,
                                    AV_PIX_FMT_YUV420P, SWS_FAST_BILINEAR, nullptr, nullptr,
                                    nullptr);
    cv::Mat out;
    if (to && bgr.type() == CV_8UC3 && av_frame_get_buffer(yuv, 0) >= 0) {
        const uint8_t *src[1] = {bgr.data};
        const int srcStride[1] = {static_cast<int>(bgr.step[0])};
        sws_scale(to, src, srcStride, 0, bgr.rows, yuv->data, yuv->linesize);
        SwsContext *back = nullptr;
        out = toBgr(&back, yuv);
        sws_freeContext(back);
    }
    sws_freeContext(to);
    av_frame_free(&yuv);
    return out;
}

double meanAbsDiff(const cv::Mat &a, const cv::Mat &b)
{
    if (a.size() != b.size() || a.type() != b.type())
        return 1e9;
    cv::Mat diff;
    cv::absdiff(a, b, diff);
    const cv::Scalar m = cv::mean(diff);
    return (m[0] + m[1] + m[2]) / 3.0;
}
