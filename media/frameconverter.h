#ifndef FRAMECONVERTER_H
#define FRAMECONVERTER_H

#include <memory>
#include <opencv2/core/mat.hpp>

extern "C" {
#include <libavutil/frame.h>
}

struct AVBufferPool;
struct SwsContext;

// A camera picture converted for the encoder: YUV 4:2:0 in a pooled buffer, shared by
// reference count and never written again once made.
using EncoderPicture = std::shared_ptr<const AVFrame>;

// Converts camera frames (8-bit gray, BGR, BGRA) straight into pooled YUV 4:2:0 frames of
// one size, scaling in the same pass when the sizes differ. One thread at a time.
class FrameConverter
{
public:
    FrameConverter() = default;
    ~FrameConverter();
    FrameConverter(const FrameConverter &) = delete;
    FrameConverter &operator=(const FrameConverter &) = delete;

    // The picture at width x height, or null (a message says why) for a frame of another
    // type or a size nothing can be made of. Its buffer returns to the pool when the last
    // reference goes, whichever thread drops it.
    EncoderPicture convert(const cv::Mat &img, int width, int height);

private:
    AVFrame *pooledFrame(int width, int height);
    bool convertDirect(const cv::Mat &img, AVFrame *frame);
    bool convertScaled(const cv::Mat &img, AVFrame *frame);

    AVBufferPool *pool = nullptr; // buffers of poolBytes; freed when the last one returns
    size_t poolBytes = 0;         // bytes of one frame's three planes
    SwsContext *scaler = nullptr; // kept while the conversion's sizes and formats stay
};

#endif // FRAMECONVERTER_H
