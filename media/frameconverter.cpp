#include "frameconverter.h"

#include <cstdio>
#include <exception>
#include <opencv2/imgproc.hpp>

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavutil/buffer.h>
#include <libswscale/swscale.h>
}

namespace {

// OpenCV's SIMD conversion gives swscale's colours (BT.601, limited range) in under half
// its time, but it neither scales nor takes odd sizes nor gray: those go through swscale.
int directConversion(int cvType)
{
    switch (cvType) {
    case CV_8UC3: return cv::COLOR_BGR2YUV_I420;
    case CV_8UC4: return cv::COLOR_BGRA2YUV_I420;
    default: return -1;
    }
}

AVPixelFormat sourceFormat(int cvType)
{
    switch (cvType) {
    case CV_8UC1: return AV_PIX_FMT_GRAY8;
    case CV_8UC3: return AV_PIX_FMT_BGR24;
    case CV_8UC4: return AV_PIX_FMT_BGRA;
    default: return AV_PIX_FMT_NONE;
    }
}

void freeFrame(const AVFrame *frame)
{
    AVFrame *owned = const_cast<AVFrame *>(frame);
    av_frame_free(&owned);
}

} // namespace

FrameConverter::~FrameConverter()
{
    // Buffers still shared by queued pictures keep the pool alive until they return.
    av_buffer_pool_uninit(&pool);
    sws_freeContext(scaler);
}

// A frame of the pool's next free buffer, its planes packed as I420 (OpenCV's layout).
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
            std::fputs("cannot make the picture pool\n", stderr);
            return nullptr;
        }
    }
    AVFrame *frame = av_frame_alloc();
    if (!frame) {
        std::fputs("cannot allocate a picture\n", stderr);
        return nullptr;
    }
    frame->buf[0] = av_buffer_pool_get(pool);
    if (!frame->buf[0]) {
        std::fputs("cannot take a picture buffer from the pool\n", stderr);
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

bool FrameConverter::convertDirect(const cv::Mat &img, AVFrame *frame)
{
    cv::Mat planes(frame->height * 3 / 2, frame->width, CV_8UC1, frame->data[0]);
    cv::cvtColor(img, planes, directConversion(img.type()));
    // cvtColor reallocates a destination it cannot use: then nothing reached the frame.
    return planes.data == frame->data[0];
}

bool FrameConverter::convertScaled(const cv::Mat &img, AVFrame *frame)
{
    scaler = sws_getCachedContext(scaler, img.cols, img.rows, sourceFormat(img.type()),
                                  frame->width, frame->height, AV_PIX_FMT_YUV420P,
                                  SWS_FAST_BILINEAR, nullptr, nullptr, nullptr);
    if (!scaler) {
        std::fputs("cannot make the picture scaler\n", stderr);
        return false;
    }
    const uint8_t *src[1] = {img.data};
    const int srcStride[1] = {static_cast<int>(img.step[0])};
    return sws_scale(scaler, src, srcStride, 0, img.rows, frame->data, frame->linesize) > 0;
}

EncoderPicture FrameConverter::convert(const cv::Mat &img, int width, int height)
{
    if (img.empty() || img.dims != 2 || sourceFormat(img.type()) == AV_PIX_FMT_NONE || width <= 0
        || height <= 0)
        return nullptr;
    AVFrame *frame = pooledFrame(width, height);
    if (!frame)
        return nullptr;
    EncoderPicture picture(frame, freeFrame);
    const bool direct = directConversion(img.type()) >= 0 && img.cols == width
        && img.rows == height && width % 2 == 0 && height % 2 == 0;
    bool converted = false;
    // Callers run on threads nothing may leave: OpenCV's exceptions end here.
    try {
        converted = direct ? convertDirect(img, frame) : convertScaled(img, frame);
    } catch (const std::exception &e) {
        std::fprintf(stderr, "cannot convert the camera picture: %s\n", e.what());
        return nullptr;
    }
    if (!converted) {
        std::fputs("cannot convert the camera picture\n", stderr);
        return nullptr;
    }
    return picture;
}
