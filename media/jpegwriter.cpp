#include "jpegsnapshot.h"
#include "mediawriter.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <string>
#include <sys/stat.h>
#include <unistd.h>

extern "C" {
#include <libavfilter/buffersink.h>
#include <libavfilter/buffersrc.h>
#include <libswscale/swscale.h>
}

#include "ffmpeglog.h"
#include "filtergraph.h"
#include "safefile.h"
#include "logcategories.h"

namespace {

// How the two snapshot writers differ.
struct JpegWriterKind {
    const char *prefix;          // file name before the number
    const char *description;     // the filter graph drawn over the picture; %1: the movie's
                                 // options for the logo
    const char *font;            // the font file the description needs, or null
    bool frameFirst;             // prepare the frame before anything else
    FilterGraphLines lines;      // numbers printed with "initFilters %d"
};

const JpegWriterKind kTextSnapshot{
    "/tmp/aaIMG_",
    "drawtext=fontfile=/usr/share/fonts/wps-office/fs_GB2312.ttf:fontsize=40:"
    "text='hello world\n1234\n你好':x=100:y=100:fontcolor=0xffffff",
    "/usr/share/fonts/wps-office/fs_GB2312.ttf",
    false,
    {368, 383, 392}};

const JpegWriterKind kLogoSnapshot{
    "/tmp/IMG_", "movie=%1[wm];[in][wm]overlay=0:0[out]", nullptr, true,
    {1045, 1075, 1084}};

// The logo laid over the thread's snapshots, in the process's working directory.
const char *const kLogoFile = "cur_use_logo.png";

// JPEG's picture format and the time base of its one frame.
constexpr AVPixelFormat kJpegFormat = AV_PIX_FMT_YUVJ420P;
constexpr AVRational kJpegTimeBase{1, 25};

// Everything one snapshot holds; released however the writer returns.
struct Snapshot {
    AVFormatContext *ctx = nullptr;
    AVCodecContext *codec = nullptr;
    AVFrame *frame = nullptr;
    AVFrame *filtered = nullptr;
    AVFrame *fullRange = nullptr;
    AVPacket *packet = nullptr;
    FilterGraph graph;
    std::string temp; // the fresh file written before it is renamed over the name; removed
                      // unless it was

    ~Snapshot()
    {
        av_packet_free(&packet);
        av_frame_free(&fullRange);
        av_frame_free(&filtered);
        av_frame_free(&frame);
        avcodec_free_context(&codec);
        if (ctx) {
            safefile::closeIo(&ctx->pb);
            avformat_free_context(ctx);
        }
        if (!temp.empty())
            unlink(temp.c_str());
    }
};

// One line saying what failed and FFmpeg's words for why.
void reportAvError(const char *what, int error)
{
    char text[AV_ERROR_MAX_STRING_SIZE] = {0};
    av_strerror(error, text, sizeof text);
    qCWarning(lcMedia, "%s: %s", what, text);
}

// The frame to encode: the picture converted to JPEG's format; -1 after a message.
int prepareFrame(Snapshot &s, cv::Mat &img)
{
    s.frame = av_frame_alloc();
    if (!s.frame) {
        qCWarning(lcMedia, "cannot allocate the snapshot's picture");
        return -1;
    }
    s.frame->format = kJpegFormat;
    s.frame->width = img.cols;
    s.frame->height = img.rows;
    if (av_frame_get_buffer(s.frame, 0) < 0) {
        printf("alloc buffer failed");
        return -1;
    }
    if (av_frame_make_writable(s.frame) < 0) {
        puts("cannot make picture writable");
        return -1;
    }
    if (fill_yuv_image(s.frame, img.cols, img.rows, img) != 0) {
        puts("cannot fill yuv images");
        return -1;
    }
    s.frame->pts = 0;
    return 0;
}

// Opens the file and the encoder and writes the header; -1 after a message.
int openJpeg(Snapshot &s, const char *name, int width, int height)
{
    s.ctx = avformat_alloc_context();
    s.ctx->oformat = s.ctx ? av_guess_format("mjpeg", nullptr, nullptr) : nullptr;
    if (!s.ctx || !s.ctx->oformat) {
        qCWarning(lcMedia, "cannot make the JPEG container");
        return -1;
    }
    // The names are fixed and the directory shared: the picture goes to a fresh file of
    // our own, renamed over the name at the end, so a link planted there is replaced,
    // never written through.
    std::string error;
    const std::string path = name;
    const size_t slash = path.rfind('/');
    const std::string prefix = path.substr(0, slash + 1) + "." + path.substr(slash + 1) + ".";
    const int fd = safefile::createTemp(prefix, &s.temp, &error);
    s.ctx->pb = fd < 0 ? nullptr : safefile::openIo(fd);
    if (!s.ctx->pb) {
        printf("Couldn't open output file.");
        qCWarning(lcMedia, "cannot open a file for %s: %s", name, fd < 0 ? error.c_str() : "out of memory");
        return -1;
    }
    s.ctx->flags |= AVFMT_FLAG_CUSTOM_IO;
    AVStream *st = avformat_new_stream(s.ctx, nullptr);
    if (!st)
        return -1;
    const AVCodec *codec = avcodec_find_encoder(s.ctx->oformat->video_codec);
    if (!codec) {
        printf("Codec not found.");
        return -1;
    }
    s.codec = avcodec_alloc_context3(codec);
    if (!s.codec) {
        qCWarning(lcMedia, "cannot allocate the JPEG encoder");
        return -1;
    }
    s.codec->codec_type = AVMEDIA_TYPE_VIDEO;
    s.codec->pix_fmt = kJpegFormat;
    s.codec->width = width;
    s.codec->height = height;
    s.codec->time_base = kJpegTimeBase;
    // One picture: encoder threads would cost more to start than they save.
    s.codec->thread_count = 1;
    st->time_base = kJpegTimeBase;
    av_dump_format(s.ctx, 0, name, 1);
    if (avcodec_open2(s.codec, codec, nullptr) < 0) {
        printf("Could not open codec.");
        return -1;
    }
    if (avcodec_parameters_from_context(st->codecpar, s.codec) < 0) {
        qCWarning(lcMedia, "cannot copy the JPEG parameters");
        return -1;
    }
    if (avformat_write_header(s.ctx, nullptr) < 0) {
        puts("write header error");
        return -1;
    }
    return 0;
}

// The graph hands out limited-range YUV 4:2:0; JPEG is full range. Encoding the one as
// the other would wash the picture out, so it is converted first.
AVFrame *toJpegRange(const AVFrame *in)
{
    AVFrame *out = av_frame_alloc();
    if (!out)
        return nullptr;
    out->format = kJpegFormat;
    out->width = in->width;
    out->height = in->height;
    SwsContext *sws = sws_getContext(in->width, in->height, static_cast<AVPixelFormat>(in->format),
                                     in->width, in->height, kJpegFormat, SWS_POINT, nullptr,
                                     nullptr, nullptr);
    if (!sws || av_frame_get_buffer(out, 0) < 0) {
        sws_freeContext(sws);
        av_frame_free(&out);
        return nullptr;
    }
    sws_scale(sws, in->data, in->linesize, 0, in->height, out->data, out->linesize);
    sws_freeContext(sws);
    out->pts = in->pts;
    return out;
}

// Passes the frame through the graph, encodes it and writes the file's one packet and its
// trailer; 0, or -1 after a message (nothing is published then).
int filterAndEncode(Snapshot &s)
{
    if (av_buffersrc_add_frame_flags(s.graph.source(), s.frame, AV_BUFFERSRC_FLAG_KEEP_REF) < 0) {
        av_log(nullptr, AV_LOG_ERROR, "Error while feeding the filtergraph\n");
        return -1;
    }
    s.filtered = av_frame_alloc();
    if (!s.filtered) {
        qCWarning(lcMedia, "cannot allocate the filtered picture");
        return -1;
    }
    // A graph that gives no frame would leave a file with a header and a trailer only.
    const int got = av_buffersink_get_frame_flags(s.graph.sink(), s.filtered, 0);
    if (got < 0) {
        reportAvError("the filter graph gave no picture", got);
        return -1;
    }
    s.fullRange = toJpegRange(s.filtered);
    if (!s.fullRange) {
        qCWarning(lcMedia, "cannot convert the picture to JPEG's range");
        return -1;
    }
    if (avcodec_send_frame(s.codec, s.fullRange) < 0) {
        printf("Encode Error.");
        return -1;
    }
    int ret = avcodec_send_frame(s.codec, nullptr);
    if (ret < 0) {
        reportAvError("cannot finish the picture", ret);
        return -1;
    }
    int packets = 0;
    while ((ret = avcodec_receive_packet(s.codec, s.packet)) >= 0) {
        s.packet->stream_index = s.ctx->streams[0]->index;
        ret = av_write_frame(s.ctx, s.packet);
        av_packet_unref(s.packet);
        if (ret < 0) {
            reportAvError("cannot write the picture", ret);
            return -1;
        }
        ++packets;
    }
    if (ret != AVERROR_EOF || packets == 0) {
        reportAvError("cannot encode the picture", ret == AVERROR_EOF ? AVERROR_BUG : ret);
        return -1;
    }
    ret = av_write_trailer(s.ctx);
    if (ret < 0) {
        reportAvError("cannot write the picture's trailer", ret);
        return -1;
    }
    return 0;
}

// Another user's file at the name is not ours to replace: said rather than tried.
bool ownNameOrFree(const char *name)
{
    struct stat st;
    if (lstat(name, &st) != 0 || st.st_uid == geteuid())
        return true;
    qCWarning(lcMedia, "cannot write %s: it belongs to another user", name);
    return false;
}

// Publishes the written file under its name; 0, or -1 after a message.
int publish(Snapshot &s, const char *name)
{
    const int fd = safefile::fdOf(s.ctx->pb);
    if (fchmod(fd, safefile::publicMode()) != 0) {
        qCWarning(lcMedia, "cannot write %s: %s", name, strerror(errno));
        return -1;
    }
    const int closed = safefile::closeIo(&s.ctx->pb);
    if (closed < 0) {
        reportAvError(("cannot write " + std::string(name)).c_str(), closed);
        return -1;
    }
    if (rename(s.temp.c_str(), name) != 0) {
        qCWarning(lcMedia, "cannot write %s: %s", name, strerror(errno));
        return -1;
    }
    s.temp.clear();
    return 0;
}

int saveJpeg(const JpegWriterKind &kind, cv::Mat &img, int n)
{
    ffmpeglog::route();
    Snapshot s;
    // Only a picture the converter can read is taken.
    if (img.empty() || img.type() != CV_8UC3)
        return -1;
    if (kind.frameFirst && prepareFrame(s, img) < 0)
        return -1;
    char name[1024] = {0};
    snprintf(name, sizeof name, "%s%d.jpg", kind.prefix, n);
    if (!ownNameOrFree(name))
        return -1;
    if (openJpeg(s, name, img.cols, img.rows) < 0)
        return -1;
    if (!kind.frameFirst && prepareFrame(s, img) < 0)
        return -1;
    if (kind.font) {
        const int fontOk = checkFontFile(kind.font);
        if (fontOk < 0)
            return fontOk;
    }
    // The logo is read as a picture from a local file, whatever its name says.
    std::string description = kind.description;
    const size_t logoAt = description.find("%1");
    if (logoAt != std::string::npos)
        description.replace(logoAt, 2, pictureMovieOptions(kLogoFile));
    const int ret = s.graph.build(img.cols, img.rows, kJpegFormat, kJpegTimeBase,
                                  s.codec->sample_aspect_ratio, description.c_str(), kind.lines);
    if (ret < 0)
        return ret;
    s.packet = av_packet_alloc();
    if (!s.packet || av_new_packet(s.packet, img.cols * img.rows * 3) < 0) {
        qCWarning(lcMedia, "cannot allocate the JPEG packet");
        return -1;
    }
    av_packet_unref(s.packet);
    const int encoded = filterAndEncode(s);
    if (encoded < 0)
        return encoded;
    return publish(s, name);
}

} // namespace

namespace jpegsnapshot {

int withText(cv::Mat img, int n)
{
    return saveJpeg(kTextSnapshot, img, n);
}

int withLogo(cv::Mat img, int n)
{
    return saveJpeg(kLogoSnapshot, img, n);
}

} // namespace jpegsnapshot
