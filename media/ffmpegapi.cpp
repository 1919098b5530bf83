#include "ffmpegapi.h"

#include <algorithm>
#include <cstdio>
#include <cstring>

#include "ffmpeglog.h"

extern "C" {
#include <libavfilter/buffersink.h>
#include <libavfilter/buffersrc.h>
#include <libavfilter/avfilter.h>
#include <libavutil/opt.h>
#include <libswresample/swresample.h>
#include <libswscale/swscale.h>
}

namespace {

// The video encoder's group of pictures, in frames.
constexpr int kGopSize = 12;
// The audio encoder's bit rate, bits per second.
constexpr int64_t kAudioBitrate = 64000;
// Block size used when the audio encoder takes frames of any size.
constexpr int kDefaultAudioFrameSize = 1024;

void freeOutputStream(OutputStream *ost)
{
    avcodec_free_context(&ost->enc);
    av_frame_free(&ost->frame);
    av_frame_free(&ost->tmp_frame);
    swr_free(&ost->swr_ctx);
    ost->st = nullptr;
}

// Sets the encoder settings of a video stream.
void configureVideo(AVCodecContext *c, AVStream *st, AVCodecID codec_id, int bitrate, int fps,
                    int width, int height)
{
    c->codec_id = codec_id;
    c->bit_rate = bitrate;
    av_opt_set(c->priv_data, "preset", "superfast", 0);
    av_opt_set(c->priv_data, "tune", "zerolatency", 0);
    c->width = width;
    c->height = height;
    st->time_base = AVRational{1, fps};
    c->time_base = st->time_base;
    c->gop_size = kGopSize;
    c->pix_fmt = AV_PIX_FMT_YUV420P;
    if (c->codec_id == AV_CODEC_ID_MPEG2VIDEO)
        c->max_b_frames = 2;
    if (c->codec_id == AV_CODEC_ID_MPEG1VIDEO)
        c->mb_decision = 2;
}

// Sets the encoder settings of an audio stream.
void configureAudio(AVCodecContext *c, AVStream *st, const AVCodec *codec, int audioChannel,
                    int sampleRate)
{
    c->bit_rate = kAudioBitrate;
    av_opt_set(c->priv_data, "preset", "superfast", 0);
    av_opt_set(c->priv_data, "tune", "zerolatency", 0);
    c->sample_fmt = codec->sample_fmts ? codec->sample_fmts[0] : AV_SAMPLE_FMT_FLTP;
    c->sample_rate = sampleRate;
    st->time_base = AVRational{1, sampleRate};
    // The printed numbers are the channel masks (stereo 3, mono 4).
    if (audioChannel == 2) {
        av_channel_layout_default(&c->ch_layout, 2);
        printf("add stream audioChannel=2,%d\n", static_cast<int>(AV_CH_LAYOUT_STEREO));
    } else {
        av_channel_layout_default(&c->ch_layout, 1);
        printf("add stream audioChannel=1,%d\n", static_cast<int>(AV_CH_LAYOUT_MONO));
    }
}

} // namespace

int recordingFps(long long fps)
{
    constexpr long long kDefaultFps = 10;
    constexpr long long kMaxFps = 1000;
    if (fps <= 0 || fps > 0x7fffffffLL)
        return kDefaultFps;
    return static_cast<int>(std::min(fps, kMaxFps));
}

int add_stream(OutputStream *ost, AVFormatContext *oc, const AVCodec **codec, AVCodecID codec_id,
               int bitrate, int fps, int width, int height, int audioChannel, int sampleRate)
{
    *codec = avcodec_find_encoder(codec_id);
    if (!*codec) {
        fprintf(stderr, "Could not find encoder for '%s'\n", avcodec_get_name(codec_id));
        return -1;
    }
    ost->st = avformat_new_stream(oc, nullptr);
    if (!ost->st) {
        fprintf(stderr, "Could not allocate stream\n");
        return -1;
    }
    ost->st->id = static_cast<int>(oc->nb_streams) - 1;
    ost->enc = avcodec_alloc_context3(*codec);
    if (!ost->enc) {
        fprintf(stderr, "Could not allocate stream\n");
        return -1;
    }
    AVCodecContext *c = ost->enc;
    switch ((*codec)->type) {
    case AVMEDIA_TYPE_VIDEO:
        // A bit rate that does not fit (or 0) leaves the choice to the encoder.
        configureVideo(c, ost->st, codec_id, bitrate > 0 ? bitrate : 0, recordingFps(fps), width,
                       height);
        break;
    case AVMEDIA_TYPE_AUDIO:
        configureAudio(c, ost->st, *codec, audioChannel, sampleRate > 0 ? sampleRate : 1);
        break;
    default:
        break;
    }
    if (oc->oformat->flags & AVFMT_GLOBALHEADER)
        c->flags |= AV_CODEC_FLAG_GLOBAL_HEADER;
    return 0;
}

int fill_yuv_image(AVFrame *frame, int width, int height, cv::Mat &img)
{
    const int stride = static_cast<int>(img.step1());
    SwsContext *sws = sws_getContext(width, height, AV_PIX_FMT_BGR24, width, height,
                                     static_cast<AVPixelFormat>(frame->format), SWS_FAST_BILINEAR,
                                     nullptr, nullptr, nullptr);
    if (!sws)
        return -1;
    const uint8_t *src[1] = {img.data};
    const int srcStride[1] = {stride};
    sws_scale(sws, src, srcStride, 0, height, frame->data, frame->linesize);
    sws_freeContext(sws);
    return 0;
}

FFmpegApi::FFmpegApi() = default;

FFmpegApi::~FFmpegApi()
{
    // The writer owns what open built until flush: a failed open, or a writer given up
    // without flush, must not leak it.
    release();
}

// Frees the container, the encoders, the frames and the graph; safe to call twice.
void FFmpegApi::release()
{
    avfilter_graph_free(&filter_graph);
    buffersrc_ctx = nullptr;
    buffersink_ctx = nullptr;
    m_useFilter = false;
    freeOutputStream(&video_st);
    freeOutputStream(&audio_st);
    if (oc) {
        if (!(oc->oformat->flags & AVFMT_NOFILE))
            avio_closep(&oc->pb);
        avformat_free_context(oc);
        oc = nullptr;
    }
    m_headerWritten = false;
}

AVFrame *FFmpegApi::alloc_audio_frame(AVSampleFormat sample_fmt, const AVChannelLayout *channel_layout,
                                      int sample_rate, int nb_samples)
{
    AVFrame *frame = av_frame_alloc();
    if (!frame)
        return nullptr;
    frame->format = sample_fmt;
    av_channel_layout_copy(&frame->ch_layout, channel_layout);
    frame->sample_rate = sample_rate;
    frame->nb_samples = nb_samples;
    if (nb_samples && av_frame_get_buffer(frame, 0) < 0)
        av_frame_free(&frame);
    return frame;
}

// Opens the video encoder and its frame; -1 after the message of the step that failed.
static int openVideo(OutputStream *ost, const AVCodec *codec, AVDictionary *options, bool &hasVideo)
{
    AVDictionary *copy = nullptr;
    av_dict_copy(&copy, options, 0);
    const int ret = avcodec_open2(ost->enc, codec, &copy);
    av_dict_free(&copy);
    if (ret < 0) {
        hasVideo = false;
        puts("open video_codec failed");
        return -1;
    }
    ost->frame = av_frame_alloc();
    if (!ost->frame) {
        puts("alloc picture failed");
        return -1;
    }
    ost->frame->format = ost->enc->pix_fmt;
    ost->frame->width = ost->enc->width;
    ost->frame->height = ost->enc->height;
    // Alignment 0: the library's default for this CPU.
    if (av_frame_get_buffer(ost->frame, 0) < 0) {
        printf("alloc buffer failed");
        return -1;
    }
    if (avcodec_parameters_from_context(ost->st->codecpar, ost->enc) < 0) {
        puts("copy video parameters failed");
        return -1;
    }
    return 0;
}

int FFmpegApi::openAudio(AVDictionary *options)
{
    OutputStream *ost = &audio_st;
    AVCodecContext *c = ost->enc;
    AVDictionary *copy = nullptr;
    av_dict_copy(&copy, options, 0);
    const int ret = avcodec_open2(c, audio_codec, &copy);
    av_dict_free(&copy);
    if (ret < 0) {
        puts("open audio_codec failed");
        m_hasAudio = false;
        return -1;
    }
    int frameSize = c->frame_size;
    if (frameSize == 0) {
        frameSize = kDefaultAudioFrameSize;
        c->frame_size = frameSize;
    }
    m_audioFrameSize = frameSize;
    ost->frame = alloc_audio_frame(c->sample_fmt, &c->ch_layout, c->sample_rate, frameSize);
    ost->tmp_frame = alloc_audio_frame(AV_SAMPLE_FMT_S16, &c->ch_layout, c->sample_rate, frameSize);
    if (!ost->frame || !ost->tmp_frame) {
        puts("alloc audio frame failed");
        return -1;
    }
    printf("c->channels=%d\n", c->ch_layout.nb_channels);
    // Same layout and rate in and out: only the sample format and arrangement change.
    if (swr_alloc_set_opts2(&ost->swr_ctx, &c->ch_layout, c->sample_fmt, c->sample_rate,
                            &c->ch_layout, AV_SAMPLE_FMT_S16, c->sample_rate, 0, nullptr) < 0
        || swr_init(ost->swr_ctx) < 0) {
        puts("init resampler failed");
        return -1;
    }
    if (avcodec_parameters_from_context(ost->st->codecpar, c) < 0) {
        puts("copy audio parameters failed");
        return -1;
    }
    return 0;
}

int FFmpegApi::open(char *filename, int videoBitrate, int fps, int width, int height,
                    int audioChannel, int audioSampleRate)
{
    ffmpeglog::route();
    m_filename = filename;
    m_writeFailed = false;
    m_width = width;
    m_height = height;
    m_fps = fps;
    m_bitrate = videoBitrate;
    m_useFilter = false;

    AVDictionary *options = nullptr;
    av_dict_set(&options, "strict", "-2", 0);
    const int ret = openOutput(options, audioChannel, audioSampleRate);
    av_dict_free(&options);
    m_filename = nullptr;
    if (ret < 0) {
        // Nothing of a failed open survives it.
        release();
        return -1;
    }
    return 0;
}

int FFmpegApi::openOutput(AVDictionary *options, int audioChannel, int audioSampleRate)
{
    avformat_alloc_output_context2(&oc, nullptr, nullptr, m_filename);
    if (!oc) {
        puts("Could not deduce output format from file extension: using MPEG.");
        avformat_alloc_output_context2(&oc, nullptr, "mpeg", m_filename);
    }
    if (!oc)
        return -1;
    fmt = oc->oformat;

    // A wanted stream whose container has no default codec of that kind is not made.
    if (fmt->video_codec == AV_CODEC_ID_NONE)
        m_hasVideo = false;
    if (fmt->audio_codec == AV_CODEC_ID_NONE)
        m_hasAudio = false;
    if (m_hasVideo
        && add_stream(&video_st, oc, &video_codec, fmt->video_codec, m_bitrate, m_fps, m_width,
                      m_height, audioChannel, audioSampleRate) != 0)
        return -1;
    if (m_hasAudio
        && add_stream(&audio_st, oc, &audio_codec, fmt->audio_codec, m_bitrate, m_fps, m_width,
                      m_height, audioChannel, audioSampleRate) != 0)
        return -1;

    if (m_hasVideo) {
        if (openVideo(&video_st, video_codec, options, m_hasVideo) < 0)
            return -1;
        puts("initFilters 1");
        m_useFilter = false;
        puts("initFilters 2");
    }
    if (m_hasAudio && openAudio(options) < 0)
        return -1;

    av_dump_format(oc, 0, m_filename, 1);
    if (!(fmt->flags & AVFMT_NOFILE)) {
        if (avio_open(&oc->pb, m_filename, AVIO_FLAG_WRITE) < 0) {
            printf("cannot open :%s\n", m_filename);
            return -1;
        }
    }
    AVDictionary *headerOptions = nullptr;
    av_dict_copy(&headerOptions, options, 0);
    const int ret = avformat_write_header(oc, &headerOptions);
    av_dict_free(&headerOptions);
    if (ret < 0) {
        puts("write header error");
        return -1;
    }
    m_headerWritten = true;
    return 0;
}

// A full disk or a vanished device fails every packet after the first: the user is told
// once what failed, and the recording goes on until it is stopped.
void FFmpegApi::reportWriteError(const char *what, int error)
{
    if (m_writeFailed)
        return;
    m_writeFailed = true;
    char text[AV_ERROR_MAX_STRING_SIZE] = {0};
    av_strerror(error, text, sizeof text);
    fprintf(stderr, "%s: %s (%s)\n", what, text, oc && oc->url ? oc->url : "output");
}

// Sends one frame (null: drain) to the stream's encoder and writes every packet it gives.
// -1 when a packet could not be written; an encoder error only loses the frame.
int FFmpegApi::encodeAndWrite(OutputStream *ost, AVFrame *frame)
{
    if (avcodec_send_frame(ost->enc, frame) < 0)
        return 0;
    AVPacket *pkt = av_packet_alloc();
    if (!pkt)
        return -1;
    int result = 0;
    for (;;) {
        const int ret = avcodec_receive_packet(ost->enc, pkt);
        if (ret < 0)
            break; // EAGAIN, EOF or an encoder error: nothing more now
        // libx264 leaves the duration unset; without it an mp4 ends its last frame at
        // that frame's start, and players drop it.
        if (pkt->duration == 0 && ost->enc->codec_type == AVMEDIA_TYPE_VIDEO)
            pkt->duration = 1;
        av_packet_rescale_ts(pkt, ost->enc->time_base, ost->st->time_base);
        pkt->stream_index = ost->st->index;
        const int written = av_interleaved_write_frame(oc, pkt);
        if (written < 0) {
            reportWriteError("Error while writing output packet", written);
            result = -1;
            break;
        }
    }
    av_packet_free(&pkt);
    return result;
}

AVFrame *FFmpegApi::nextVideoFrame(cv::Mat &img)
{
    // A frame the encoder cannot take is refused, not encoded as garbage.
    if (img.empty() || img.type() != CV_8UC3 || img.cols < video_st.enc->width
        || img.rows < video_st.enc->height)
        return nullptr;
    AVFrame *frame = video_st.frame;
    if (av_frame_make_writable(frame) < 0) {
        puts("cannot make picture writable");
        return nullptr;
    }
    if (fill_yuv_image(frame, video_st.enc->width, video_st.enc->height, img) != 0) {
        puts("cannot fill yuv images");
        return nullptr;
    }
    frame->pts = video_st.next_pts++;
    return frame;
}

int FFmpegApi::write_video(cv::Mat img)
{
    if (!m_headerWritten || !m_hasVideo || !video_st.frame)
        return -1;
    AVFrame *frame = nextVideoFrame(img);
    if (!frame)
        return -1;
    if (!m_useFilter)
        return encodeAndWrite(&video_st, frame);

    if (av_buffersrc_add_frame_flags(buffersrc_ctx, frame, AV_BUFFERSRC_FLAG_KEEP_REF) < 0) {
        av_log(nullptr, AV_LOG_ERROR, "Error while feeding the filtergraph\n");
        return -1;
    }
    AVFrame *filtered = av_frame_alloc();
    if (!filtered)
        return -1;
    int result = 0;
    while (av_buffersink_get_frame_flags(buffersink_ctx, filtered, 0) >= 0) {
        result = encodeAndWrite(&video_st, filtered);
        av_frame_unref(filtered);
        if (result < 0)
            break;
    }
    av_frame_free(&filtered);
    return result;
}

int FFmpegApi::write_audio(unsigned char *data)
{
    if (!m_headerWritten || !m_hasAudio || !audio_st.tmp_frame || !data)
        return 0;
    OutputStream *ost = &audio_st;
    AVCodecContext *c = ost->enc;
    AVFrame *in = ost->tmp_frame;
    const int blockSize = in->nb_samples;
    if (av_frame_make_writable(in) < 0)
        return 0;
    memcpy(in->data[0], data, static_cast<size_t>(c->ch_layout.nb_channels) * blockSize * 2);
    in->pts = ost->next_pts;
    ost->next_pts += blockSize;

    const int outSamples = static_cast<int>(av_rescale_rnd(
        swr_get_delay(ost->swr_ctx, c->sample_rate) + blockSize, c->sample_rate, c->sample_rate,
        AV_ROUND_UP));
    av_frame_make_writable(ost->frame);
    swr_convert(ost->swr_ctx, ost->frame->data, outSamples,
                const_cast<const uint8_t **>(in->data), blockSize);
    ost->frame->pts = av_rescale_q(ost->samples_count, AVRational{1, c->sample_rate}, c->time_base);
    ost->samples_count += outSamples;
    encodeAndWrite(ost, ost->frame);
    return 0;
}

bool FFmpegApi::encodeVideo()
{
    if (!m_hasAudio)
        return true;
    if (!m_hasVideo)
        return false;
    return av_compare_ts(video_st.next_pts, video_st.enc->time_base, audio_st.next_pts,
                         audio_st.enc->time_base)
        <= 0;
}

void FFmpegApi::flush()
{
    if (!oc)
        return;
    // Drain what the encoders still hold: without it the last audio block is lost.
    if (m_headerWritten) {
        if (m_hasVideo && video_st.enc)
            encodeAndWrite(&video_st, nullptr);
        if (m_hasAudio && audio_st.enc)
            encodeAndWrite(&audio_st, nullptr);
        const int ret = av_write_trailer(oc);
        if (ret < 0)
            reportWriteError("Error writing the file trailer", ret);
    }
    release();
}

void FFmpegApi::test()
{
    void *opaque = nullptr;
    while (av_demuxer_iterate(&opaque)) {
    }
}
