#include "frameconverter.h"
#include "logcategories.h"

#include <array>
#include <cstdio>
#include <exception>
#include <libyuv.h>

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavutil/buffer.h>
}

namespace {

// libyuv converts RGB with BT.601's matrix only: pictures of every size are BT.601, and say so.
constexpr AVColorSpace kMatrix = AVCOL_SPC_SMPTE170M;
constexpr AVColorPrimaries kPrimaries = AVCOL_PRI_SMPTE170M;
constexpr AVColorTransferCharacteristic kTransfer = AVCOL_TRC_SMPTE170M;
// Each chroma sample is the mean of its 2x2 block: it sits at the block's centre.
constexpr AVChromaLocation kChromaSiting = AVCHROMA_LOC_CENTER;
// Neutral chroma, for gray pictures.
constexpr uint8_t kNeutralChroma = 128;

// One YUV 4:2:0 picture's planes.
struct Planes {
    uint8_t *data[3];
    int linesize[3];
    int width, height; // of the luma plane; chroma is (width + 1) / 2 x (height + 1) / 2
};

// A gray level as limited-range luma (16-235), as BT.601 gives it for equal channels.
uint8_t limitedLuma(int gray)
{
    return static_cast<uint8_t>(16 + (gray * 219 + 127) / 255);
}

void grayToLimited(const cv::Mat &img, const Planes &p)
{
    static const std::array<uint8_t, 256> table = [] {
        std::array<uint8_t, 256> t{};
        for (int g = 0; g < 256; ++g)
            t[g] = limitedLuma(g);
        return t;
    }();
    for (int y = 0; y < p.height; ++y) {
        const uint8_t *in = img.ptr<uint8_t>(y);
        uint8_t *out = p.data[0] + size_t(y) * p.linesize[0];
        for (int x = 0; x < p.width; ++x)
            out[x] = table[in[x]];
    }
    const int chromaWidth = (p.width + 1) / 2;
    const int chromaHeight = (p.height + 1) / 2;
    libyuv::SetPlane(p.data[1], p.linesize[1], chromaWidth, chromaHeight, kNeutralChroma);
    libyuv::SetPlane(p.data[2], p.linesize[2], chromaWidth, chromaHeight, kNeutralChroma);
}

// `img` into planes of its own size; false for a type libyuv is not given.
bool convertSameSize(const cv::Mat &img, const Planes &p, bool fullRange)
{
    const uint8_t *src = img.data;
    const int stride = static_cast<int>(img.step[0]);
    uint8_t *const *d = p.data;
    const int *l = p.linesize;
    switch (img.type()) {
    case CV_8UC1:
        if (!fullRange) {
            grayToLimited(img, p);
            return true;
        }
        return libyuv::I400ToI420(src, stride, d[0], l[0], d[1], l[1], d[2], l[2], p.width,
                                  p.height) == 0;
    // OpenCV's BGR and BGRA are libyuv's RGB24 and ARGB (named by the little-endian word).
    case CV_8UC3:
        return (fullRange ? libyuv::RGB24ToJ420 : libyuv::RGB24ToI420)(
                   src, stride, d[0], l[0], d[1], l[1], d[2], l[2], p.width, p.height) == 0;
    case CV_8UC4:
        return (fullRange ? libyuv::ARGBToJ420 : libyuv::ARGBToI420)(
                   src, stride, d[0], l[0], d[1], l[1], d[2], l[2], p.width, p.height) == 0;
    default:
        return false;
    }
}

void freeFrame(const AVFrame *frame)
{
    AVFrame *owned = const_cast<AVFrame *>(frame);
    av_frame_free(&owned);
}

} // namespace

bool isCameraFrameType(int cvType)
{
    return cvType == CV_8UC1 || cvType == CV_8UC3 || cvType == CV_8UC4;
}

FrameConverter::~FrameConverter()
{
    // Buffers still shared by queued pictures keep the pool alive until they return.
    av_buffer_pool_uninit(&pool);
}

void declarePictureColour(AVCodecContext *c)
{
    c->colorspace = kMatrix;
    c->color_primaries = kPrimaries;
    c->color_trc = kTransfer;
    c->color_range = AVCOL_RANGE_MPEG;
    c->chroma_sample_location = kChromaSiting;
}

bool convertPicture(const cv::Mat &img, AVFrame *frame, std::vector<uint8_t> &scratch)
{
    const bool fullRange = frame->format == AV_PIX_FMT_YUVJ420P;
    if ((!fullRange && frame->format != AV_PIX_FMT_YUV420P) || img.empty() || img.dims != 2
        || frame->width <= 0 || frame->height <= 0)
        return false;
    const Planes out{{frame->data[0], frame->data[1], frame->data[2]},
                     {frame->linesize[0], frame->linesize[1], frame->linesize[2]},
                     frame->width,
                     frame->height};
    if (img.cols == out.width && img.rows == out.height)
        return convertSameSize(img, out, fullRange);
    // Converted whole first, so that chroma averages the host's own pixels, then scaled.
    const int chromaWidth = (img.cols + 1) / 2;
    const size_t lumaBytes = size_t(img.cols) * img.rows;
    const size_t chromaBytes = size_t(chromaWidth) * ((img.rows + 1) / 2);
    scratch.resize(lumaBytes + 2 * chromaBytes);
    uint8_t *y = scratch.data();
    const Planes whole{{y, y + lumaBytes, y + lumaBytes + chromaBytes},
                       {img.cols, chromaWidth, chromaWidth},
                       img.cols,
                       img.rows};
    return convertSameSize(img, whole, fullRange)
        && libyuv::I420Scale(whole.data[0], whole.linesize[0], whole.data[1], whole.linesize[1],
                             whole.data[2], whole.linesize[2], whole.width, whole.height,
                             out.data[0], out.linesize[0], out.data[1], out.linesize[1],
                             out.data[2], out.linesize[2], out.width, out.height,
                             libyuv::kFilterBox)
        == 0;
}

// A frame of the pool's next free buffer, its planes packed as I420.
AVFrame *FrameConverter::pooledFrame(int width, int height)
{
    const int chromaWidth = (width + 1) / 2;
    const int chromaHeight = (height + 1) / 2;
    const size_t lumaBytes = size_t(width) * height;
    const size_t chromaBytes = size_t(chromaWidth) * chromaHeight;
    const size_t bytes = lumaBytes + 2 * chromaBytes;
    if (!pool || poolBytes != bytes) {
        av_buffer_pool_uninit(&pool);
        // Padded: SIMD readers may read a little past the last plane.
        pool = av_buffer_pool_init(bytes + AV_INPUT_BUFFER_PADDING_SIZE, nullptr);
        poolBytes = pool ? bytes : 0;
        if (!pool) {
            qCWarning(lcMedia, "cannot make the picture pool");
            return nullptr;
        }
    }
    AVFrame *frame = av_frame_alloc();
    if (!frame) {
        qCWarning(lcMedia, "cannot allocate a picture");
        return nullptr;
    }
    frame->buf[0] = av_buffer_pool_get(pool);
    if (!frame->buf[0]) {
        qCWarning(lcMedia, "cannot take a picture buffer from the pool");
        av_frame_free(&frame);
        return nullptr;
    }
    frame->format = AV_PIX_FMT_YUV420P;
    frame->width = width;
    frame->height = height;
    frame->data[0] = frame->buf[0]->data;
    frame->data[1] = frame->data[0] + lumaBytes;
    frame->data[2] = frame->data[1] + chromaBytes;
    frame->linesize[0] = width;
    frame->linesize[1] = chromaWidth;
    frame->linesize[2] = chromaWidth;
    return frame;
}

EncoderPicture FrameConverter::convert(const cv::Mat &img, int width, int height)
{
    if (img.empty() || img.dims != 2 || !isCameraFrameType(img.type()) || width <= 0 || height <= 0)
        return nullptr;
    AVFrame *frame = pooledFrame(width, height);
    if (!frame)
        return nullptr;
    EncoderPicture picture(frame, freeFrame);
    bool converted = false;
    // Callers run on threads nothing may leave: exceptions (the scratch's allocation) end here.
    try {
        converted = convertPicture(img, frame, scratch);
    } catch (const std::exception &e) {
        qCWarning(lcMedia, "cannot convert the camera picture: %s", e.what());
        return nullptr;
    }
    if (!converted) {
        qCWarning(lcMedia, "cannot convert the camera picture");
        return nullptr;
    }
    return picture;
}
