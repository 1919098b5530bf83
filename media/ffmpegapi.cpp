#include "mediawriter.h"

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <sys/stat.h>
#include <vector>

#include "ffmpeglog.h"
#include "frameconverter.h"
#include "periodicsync.h"
#include "safefile.h"
#include "inplacemp4.h"
#include "logcategories.h"

extern "C" {
#include <libavutil/audio_fifo.h>
#include <libavfilter/buffersink.h>
#include <libavfilter/buffersrc.h>
#include <libavfilter/avfilter.h>
#include <libavutil/opt.h>
#include <libswresample/swresample.h>
}

namespace {

// The video encoder's group of pictures, in frames.
constexpr int kGopSize = 12;
// The audio encoder's bit rate, bits per second.
constexpr int64_t kAudioBitrate = 64000;
// Block size used when the audio encoder takes frames of any size.
constexpr int kDefaultAudioFrameSize = 1024;
// Longest fragment of a recoverable MP4, microseconds. frag_keyframe closes one at every
// key frame (kGopSize frames: under a second from 12 fps up); frag_duration closes one
// at the first packet this long after the fragment's first, key frame or not, which
// covers 1-11 fps (at 1 fps every fragment is one frame). With sound, packets come every
// ~21 ms, so a fragment ends within this plus 21 ms at any frame rate.
constexpr int64_t kFragmentUs = 1000000;
// Cluster time limit of a recoverable Matroska file, milliseconds. The muxer holds a
// cluster in memory until a packet comes more than this after its start: 999 closes one
// at the first packet a second or more after it (times are whole milliseconds).
constexpr int64_t kClusterMs = 999;
// Longest span, microseconds, the muxer holds one stream's packets back waiting for the
// other's: a stream that ended or went quiet (a lost microphone) costs the file at most
// this much beyond its fragment, instead of the default ten seconds. Far above the sound's
// normal lag behind the picture (tens of ms).
constexpr int64_t kMaxInterleaveUs = 500000;
// Pixels a second up to which the video encoder runs on one thread: 1920x1080 at 30 fps
// (measured); above it one core may not keep up, and x264 chooses its threads.
constexpr int64_t kOneThreadPixelRate = int64_t(1920) * 1080 * 30;

void freeOutputStream(OutputStream *ost)
{
    avcodec_free_context(&ost->enc);
    av_frame_free(&ost->frame);
    av_frame_free(&ost->tmp_frame);
    swr_free(&ost->swr_ctx);
    if (ost->fifo) {
        av_audio_fifo_free(ost->fifo);
        ost->fifo = nullptr;
    }
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
    declarePictureColour(c);
    // One thread: in real time, sliced threads cost 7% more a frame at 720p30, as much at 1080p30.
    if (int64_t(width) * height * fps <= kOneThreadPixelRate)
        c->thread_count = 1;
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

int fill_yuv_image(AVFrame *frame, int width, int height, const cv::Mat &img,
                   std::vector<uint8_t> &scratch)
{
    if (!isCameraFrameType(img.type()) || img.cols < width || img.rows < height
        || frame->width != width || frame->height != height)
        return -1;
    return convertPicture(img(cv::Rect(0, 0, width, height)), frame, scratch) ? 0 : -1;
}

int fill_yuv_image(AVFrame *frame, int width, int height, cv::Mat &img)
{
    std::vector<uint8_t> scratch;
    return fill_yuv_image(frame, width, height, img, scratch);
}

MediaWriter::MediaWriter()
    : m_sync(std::make_unique<PeriodicSync>())
{
}

MediaWriter::~MediaWriter()
{
    // The writer owns what open built until flush: a failed open, or a writer given up
    // without flush, must not leak it.
    release();
}

// Frees the container, the encoders, the frames and the graph; safe to call twice.
void MediaWriter::release()
{
    m_sync->stop();
    avfilter_graph_free(&filter_graph);
    buffersrc_ctx = nullptr;
    buffersink_ctx = nullptr;
    m_useFilter = false;
    av_frame_free(&m_input);
    freeOutputStream(&video_st);
    freeOutputStream(&audio_st);
    if (oc) {
        if (!(oc->oformat->flags & AVFMT_NOFILE))
            safefile::closeIo(&oc->pb);
        avformat_free_context(oc);
        oc = nullptr;
    }
    m_headerWritten = false;
}

AVFrame *MediaWriter::alloc_audio_frame(AVSampleFormat sample_fmt, const AVChannelLayout *channel_layout,
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
        qCWarning(lcMedia, "cannot copy the video parameters");
        return -1;
    }
    return 0;
}

int MediaWriter::openAudio(AVDictionary *options, int inputChannels)
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
    if (!ost->frame) {
        qCWarning(lcMedia, "cannot allocate the sound frame");
        return -1;
    }
    printf("c->channels=%d\n", c->ch_layout.nb_channels);
    ost->fifo = av_audio_fifo_alloc(c->sample_fmt, c->ch_layout.nb_channels, 2 * frameSize);
    if (!ost->fifo) {
        qCWarning(lcMedia, "cannot allocate the sound queue");
        return -1;
    }
    if (openResampler(inputChannels) < 0) {
        qCWarning(lcMedia, "cannot set up the sound conversion");
        return -1;
    }
    if (avcodec_parameters_from_context(ost->st->codecpar, c) < 0) {
        qCWarning(lcMedia, "cannot copy the sound parameters");
        return -1;
    }
    return 0;
}

// S16 interleaved blocks of `inputChannels` to the encoder's format and channels, at the
// same rate. More channels than the encoder has (a microphone array) are averaged into
// each output channel: the layout of such a card names no speakers to mix by.
int MediaWriter::openResampler(int inputChannels)
{
    OutputStream *ost = &audio_st;
    AVCodecContext *c = ost->enc;
    ost->in_channels = inputChannels > 0 ? inputChannels : c->ch_layout.nb_channels;
    AVChannelLayout in;
    av_channel_layout_default(&in, ost->in_channels);
    int ret = swr_alloc_set_opts2(&ost->swr_ctx, &c->ch_layout, c->sample_fmt, c->sample_rate,
                                  &in, AV_SAMPLE_FMT_S16, c->sample_rate, 0, nullptr);
    av_channel_layout_uninit(&in);
    if (ret < 0)
        return ret;
    // Resampling from the start when the sound may be stretched: switched on later, the
    // filter's delay would shift the sound in the middle of the recording.
    if (m_driftCorrection && (ret = av_opt_set_int(ost->swr_ctx, "flags", SWR_FLAG_RESAMPLE, 0)) < 0)
        return ret;
    const int outChannels = c->ch_layout.nb_channels;
    if (ost->in_channels > 2 && outChannels < ost->in_channels) {
        std::vector<double> matrix(static_cast<size_t>(outChannels) * ost->in_channels,
                                   1.0 / ost->in_channels);
        if ((ret = swr_set_matrix(ost->swr_ctx, matrix.data(), ost->in_channels)) < 0)
            return ret;
    }
    return swr_init(ost->swr_ctx);
}

int MediaWriter::open(char *filename, int videoBitrate, int fps, int width, int height,
                    int audioChannel, int audioSampleRate)
{
    ffmpeglog::route();
    m_filename = filename;
    m_path = filename ? filename : "";
    m_fragmented = false;
    m_writeFailed = false;
    m_writeError = 0;
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

// The output is a local file opened by the library itself: no FFmpeg protocol is
// involved, so a colon in the name is an ordinary character and a link planted at the
// name is refused rather than written through.
int MediaWriter::openFile()
{
    std::string error;
    const int fd = safefile::createOutput(m_path, m_stopRequested, safefile::kOpenTimeout, &error);
    if (fd < 0) {
        printf("cannot open :%s\n", m_filename);
        qCWarning(lcMedia, "cannot open %s: %s", m_filename, error.c_str());
        return -1;
    }
    oc->pb = safefile::openIo(fd);
    if (!oc->pb) {
        printf("cannot open :%s\n", m_filename);
        qCWarning(lcMedia, "cannot open %s: out of memory", m_filename);
        return -1;
    }
    return 0;
}

int MediaWriter::openOutput(AVDictionary *options, int audioChannel, int audioSampleRate)
{
    const std::string protocol = safefile::protocolOf(m_path);
    if (!protocol.empty()) {
        printf("cannot open :%s\n", m_filename);
        qCWarning(lcMedia, "cannot open %s: only a local file can be recorded, not a %s: name",
                  m_filename, protocol.c_str());
        return -1;
    }
    avformat_alloc_output_context2(&oc, nullptr, nullptr, m_filename);
    if (!oc) {
        puts("Could not deduce output format from file extension: using MPEG.");
        avformat_alloc_output_context2(&oc, nullptr, "mpeg", m_filename);
    }
    if (!oc)
        return -1;
    fmt = oc->oformat;
    oc->flags |= AVFMT_FLAG_CUSTOM_IO;
    oc->max_interleave_delta = kMaxInterleaveUs;
    // Muxers that open further files of their own (segments, playlists) reach local files
    // only.
    oc->protocol_whitelist = av_strdup("file");
    if (!oc->protocol_whitelist) {
        qCWarning(lcMedia, "cannot open %s: out of memory", m_filename);
        return -1;
    }

    // A wanted stream whose container has no default codec of that kind is not made, and
    // the user is told rather than left with a file silently missing it.
    if (m_hasVideo && fmt->video_codec == AV_CODEC_ID_NONE) {
        m_hasVideo = false;
        qCWarning(lcMedia, "the container %s cannot hold video: recording without it", fmt->name);
    }
    if (m_hasAudio && fmt->audio_codec == AV_CODEC_ID_NONE) {
        m_hasAudio = false;
        qCWarning(lcMedia, "the container %s cannot hold sound: recording without it", fmt->name);
    }
    if (!m_hasVideo && !m_hasAudio) {
        qCWarning(lcMedia, "nothing to record: no stream is wanted that the container can hold");
        return -1;
    }
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
    if (m_hasAudio && openAudio(options, audioChannel) < 0)
        return -1;

    av_dump_format(oc, 0, m_filename, 1);
    if (!(fmt->flags & AVFMT_NOFILE) && openFile() < 0)
        return -1;
    AVDictionary *headerOptions = nullptr;
    av_dict_copy(&headerOptions, options, 0);
    if (m_writeMode != WriteMode::IndexAtEnd)
        setRecoverableOptions(&headerOptions);
    const int ret = avformat_write_header(oc, &headerOptions);
    av_dict_free(&headerOptions);
    if (ret < 0) {
        puts("write header error");
        return -1;
    }
    m_headerWritten = true;
    // Devices and protocol outputs are not regular files: start() refuses them.
    if (m_writeMode != WriteMode::IndexAtEnd && !(fmt->flags & AVFMT_NOFILE))
        m_sync->start(m_path);
    return 0;
}

void MediaWriter::setRecoverableOptions(AVDictionary **muxerOptions)
{
    // Every packet goes to the kernel as it is written, not in 32 KiB blocks.
    av_dict_set(muxerOptions, "flush_packets", "1", 0);
    const std::string name = fmt->name;
    if (name == "mp4" || name == "mov") {
        // delay_moov: the header waits for the first fragment, so it knows the sound's
        // negative first time (the encoder's priming) and does not move the sound late.
        av_dict_set(muxerOptions, "movflags",
                    "frag_keyframe+empty_moov+default_base_moof+delay_moov", 0);
        av_dict_set_int(muxerOptions, "frag_duration", kFragmentUs, 0);
        m_fragmented = true;
    } else if (name == "matroska" || name == "webm") {
        av_dict_set_int(muxerOptions, "cluster_time_limit", kClusterMs, 0);
    }
}

// A full disk or a vanished device fails every packet after the first: the user is told
// once what failed, and the caller (writeError) ends the recording.
void MediaWriter::reportWriteError(const char *what, int error)
{
    if (m_writeFailed)
        return;
    m_writeFailed = true;
    m_writeError = error;
    char text[AV_ERROR_MAX_STRING_SIZE] = {0};
    av_strerror(error, text, sizeof text);
    qCWarning(lcMedia, "%s: %s (%s)", what, text, oc && oc->url ? oc->url : "output");
}

// Sends one frame (null: drain) to the stream's encoder and writes every packet it gives.
// -1 when the encoder failed or a packet could not be written: told once, and kept for
// writeError, which ends the recording.
int MediaWriter::encodeAndWrite(OutputStream *ost, AVFrame *frame)
{
    const bool video = ost->enc->codec_type == AVMEDIA_TYPE_VIDEO;
    int ret = avcodec_send_frame(ost->enc, frame);
    // A second drain finds the encoder drained already: nothing is lost.
    if (ret < 0 && !(frame == nullptr && ret == AVERROR_EOF)) {
        reportWriteError(video ? "Error encoding a video frame" : "Error encoding audio", ret);
        return -1;
    }
    AVPacket *pkt = av_packet_alloc();
    if (!pkt) {
        reportWriteError("Error allocating a packet", AVERROR(ENOMEM));
        return -1;
    }
    int result = 0;
    for (;;) {
        ret = avcodec_receive_packet(ost->enc, pkt);
        if (ret == AVERROR(EAGAIN) || ret == AVERROR_EOF)
            break; // the encoder wants more, or is drained
        if (ret < 0) {
            reportWriteError(video ? "Error encoding a video frame" : "Error encoding audio", ret);
            result = -1;
            break;
        }
        // libx264 leaves the duration unset; without it an mp4 ends its last frame at
        // that frame's start, and players drop it.
        if (pkt->duration == 0 && video)
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

AVFrame *MediaWriter::nextVideoFrame(cv::Mat &img, int64_t pts)
{
    // A frame the encoder cannot take is refused, not encoded as garbage.
    if (img.empty() || !isCameraFrameType(img.type()) || img.cols < video_st.enc->width
        || img.rows < video_st.enc->height)
        return nullptr;
    AVFrame *frame = video_st.frame;
    if (av_frame_make_writable(frame) < 0) {
        puts("cannot make picture writable");
        return nullptr;
    }
    if (fill_yuv_image(frame, video_st.enc->width, video_st.enc->height, img, m_scratch) != 0) {
        puts("cannot fill yuv images");
        return nullptr;
    }
    // A pts at or before the last one would be refused by the muxer: it follows instead.
    frame->pts = std::max(pts, video_st.next_pts);
    video_st.next_pts = frame->pts + 1;
    return frame;
}

int MediaWriter::write_video(cv::Mat img)
{
    return write_video(img, video_st.next_pts);
}

int MediaWriter::write_video(cv::Mat img, int64_t pts)
{
    if (!m_headerWritten || !m_hasVideo || !video_st.frame)
        return -1;
    AVFrame *frame = nextVideoFrame(img, pts);
    if (!frame)
        return -1;
    return encodeVideoFrame(frame);
}

int MediaWriter::write_video(const AVFrame *picture, int64_t pts)
{
    if (!m_headerWritten || !m_hasVideo || !video_st.frame)
        return -1;
    if (!picture || picture->format != video_st.enc->pix_fmt
        || picture->width != video_st.enc->width || picture->height != video_st.enc->height)
        return -1;
    if (!m_input && !(m_input = av_frame_alloc())) {
        qCWarning(lcMedia, "cannot allocate the picture reference");
        return -1;
    }
    // A reference, not a copy: repeats of one picture share its pixels, each with its pts.
    if (av_frame_ref(m_input, picture) < 0) {
        qCWarning(lcMedia, "cannot reference the picture");
        return -1;
    }
    m_input->pts = std::max(pts, video_st.next_pts);
    video_st.next_pts = m_input->pts + 1;
    const int result = encodeVideoFrame(m_input);
    av_frame_unref(m_input);
    return result;
}

int MediaWriter::encodeVideoFrame(AVFrame *frame)
{
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

int MediaWriter::write_audio(unsigned char *data)
{
    if (!m_headerWritten || !m_hasAudio || !audio_st.swr_ctx || !data)
        return 0;
    AudioBlock block;
    block.frames = m_audioFrameSize;
    block.channels = audio_st.in_channels;
    block.rate = audio_st.enc->sample_rate;
    const auto *samples = reinterpret_cast<const int16_t *>(data);
    block.samples.assign(samples, samples + size_t(block.frames) * block.channels);
    write_audio(block);
    return 0;
}

int MediaWriter::write_audio(const AudioBlock &block, int compensation)
{
    if (!m_headerWritten || !m_hasAudio || !audio_st.swr_ctx)
        return 0;
    OutputStream *ost = &audio_st;
    if (block.channels != ost->in_channels || block.frames <= 0
        || block.samples.size() < size_t(block.frames) * block.channels)
        return -1; // the resampler was set up for another layout: it would misread it
    if (m_driftCorrection
        && swr_set_compensation(ost->swr_ctx, compensation, compensation ? block.frames : 0) < 0)
        qCWarning(lcMedia, "cannot set the sound's compensation");
    const int capacity = swr_get_out_samples(ost->swr_ctx, block.frames);
    if (capacity < 0 || !reserveResamplerOutput(capacity))
        return -1;
    const uint8_t *in[1] = {reinterpret_cast<const uint8_t *>(block.samples.data())};
    const int got = swr_convert(ost->swr_ctx, ost->tmp_frame->data, capacity, in, block.frames);
    if (got < 0)
        return -1;
    if (got > 0 && av_audio_fifo_write(ost->fifo, reinterpret_cast<void **>(ost->tmp_frame->data), got) < got)
        return -1;
    ost->next_pts += got;
    return encodeAudioFifo(false);
}

// The resampler's output frame holds at least `samples`; false after a message.
bool MediaWriter::reserveResamplerOutput(int samples)
{
    OutputStream *ost = &audio_st;
    if (ost->tmp_frame && ost->tmp_frame->nb_samples >= samples)
        return true;
    av_frame_free(&ost->tmp_frame);
    ost->tmp_frame = alloc_audio_frame(ost->enc->sample_fmt, &ost->enc->ch_layout,
                                       ost->enc->sample_rate, samples);
    if (!ost->tmp_frame)
        qCWarning(lcMedia, "cannot allocate the converted sound frame");
    return ost->tmp_frame != nullptr;
}

// Encodes whole frames from the fifo; with `all`, the last partial one too (padded with
// silence for an encoder that takes whole frames only).
int MediaWriter::encodeAudioFifo(bool all)
{
    OutputStream *ost = &audio_st;
    AVCodecContext *c = ost->enc;
    const bool smallLast = c->codec->capabilities
        & (AV_CODEC_CAP_SMALL_LAST_FRAME | AV_CODEC_CAP_VARIABLE_FRAME_SIZE);
    while (av_audio_fifo_size(ost->fifo) >= c->frame_size
           || (all && av_audio_fifo_size(ost->fifo) > 0)) {
        const int n = std::min(av_audio_fifo_size(ost->fifo), c->frame_size);
        if (av_frame_make_writable(ost->frame) < 0)
            return -1;
        ost->frame->nb_samples = smallLast ? n : c->frame_size;
        if (n < c->frame_size)
            av_samples_set_silence(ost->frame->data, n, c->frame_size - n,
                                   c->ch_layout.nb_channels, c->sample_fmt);
        if (av_audio_fifo_read(ost->fifo, reinterpret_cast<void **>(ost->frame->data), n) < n)
            return -1;
        ost->frame->pts = av_rescale_q(ost->samples_count, AVRational{1, c->sample_rate}, c->time_base);
        ost->samples_count += ost->frame->nb_samples;
        const int ret = encodeAndWrite(ost, ost->frame);
        ost->frame->nb_samples = c->frame_size;
        if (ret < 0)
            return ret;
    }
    return 0;
}

// Writes what the resampler and the fifo still hold; 0, or -1 after a message.
int MediaWriter::drainAudio()
{
    OutputStream *ost = &audio_st;
    if (!ost->swr_ctx || !ost->fifo)
        return 0;
    const int capacity = swr_get_out_samples(ost->swr_ctx, 0);
    if (capacity > 0) {
        if (!reserveResamplerOutput(capacity))
            return -1;
        const int got = swr_convert(ost->swr_ctx, ost->tmp_frame->data, capacity, nullptr, 0);
        if (got < 0) {
            reportWriteError("Error draining the resampler", got);
            return -1;
        }
        if (got > 0 && av_audio_fifo_write(ost->fifo, reinterpret_cast<void **>(ost->tmp_frame->data), got) < got) {
            reportWriteError("Error queueing the last sound", AVERROR(ENOMEM));
            return -1;
        }
        ost->next_pts += got;
    }
    return encodeAudioFifo(true);
}

bool MediaWriter::encodeVideo()
{
    return encodeVideo(video_st.next_pts);
}

bool MediaWriter::encodeVideo(int64_t videoPts)
{
    if (!m_hasAudio)
        return true;
    if (!m_hasVideo)
        return false;
    return av_compare_ts(videoPts, video_st.enc->time_base, audio_st.next_pts,
                         audio_st.enc->time_base)
        <= 0;
}

void MediaWriter::flush()
{
    if (!oc)
        return;
    m_sync->stop();
    bool complete = false; // the trailer is written and the file closed without an error
    // Drain what the encoders still hold: without it the last audio block is lost.
    if (m_headerWritten) {
        if (m_hasVideo && video_st.enc)
            encodeAndWrite(&video_st, nullptr);
        // A drain that fails is told and kept in writeError; the trailer still goes, so
        // that what was written stays readable.
        if (m_hasAudio && audio_st.enc && drainAudio() == 0)
            encodeAndWrite(&audio_st, nullptr);
        const int ret = av_write_trailer(oc);
        if (ret < 0)
            reportWriteError("Error writing the file trailer", ret);
        // After a failed write the file is left as it is: it plays up to its last whole
        // fragment, and its index would need room that a full disk does not have.
        complete = closeOutput() == 0 && ret >= 0 && !m_writeFailed;
    }
    release();
    if (complete)
        finishFile();
}

// Closes the output file, flushing what is still buffered; 0 or the error, told once.
int MediaWriter::closeOutput()
{
    if ((fmt->flags & AVFMT_NOFILE) || !oc->pb)
        return 0;
    const int ret = safefile::closeIo(&oc->pb);
    if (ret < 0)
        reportWriteError("Error closing the output file", ret);
    return ret < 0 ? ret : 0;
}

// A cleanly written recoverable file: a fragmented MP4 is finished as a standard one in place,
// any other is synced once more so that its end reaches the disk too.
void MediaWriter::finishFile()
{
    if (m_writeMode == WriteMode::IndexAtEnd)
        return;
    // A device or a file gone with its directory has nothing to finish (the encoder
    // reports a vanished file).
    struct stat st;
    if (stat(m_path.c_str(), &st) != 0 || !S_ISREG(st.st_mode))
        return;
    if (m_fragmented && m_writeMode == WriteMode::RecoverableThenStandard) {
        std::string error;
        if (!finishMp4InPlace(m_path, &error))
            qCWarning(lcMedia,
                      "Could not finish %s as a standard MP4: %s. The fragmented file is kept; "
                      "it plays as it is.",
                      m_path.c_str(), error.c_str());
        return;
    }
    if (const int err = syncPath(m_path))
        qCWarning(lcMedia, "Syncing %s to the disk failed: %s", m_path.c_str(), strerror(err));
}
