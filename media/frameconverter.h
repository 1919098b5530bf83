#ifndef FRAMECONVERTER_H
#define FRAMECONVERTER_H

#include <cstdint>
#include <memory>
#include <vector>
#include <opencv2/core/mat.hpp>

extern "C" {
#include <libavutil/frame.h>
}

struct AVBufferPool;
struct AVCodecContext;

// Whether a camera frame of this OpenCV type can be recorded: 8-bit gray, BGR or BGRA.
// Any thread.
bool isCameraFrameType(int cvType);

// Declares on an encoder the colour every recorded picture is converted to.
void declarePictureColour(AVCodecContext *c);

// Converts a whole 8-bit gray, BGR or BGRA picture into `frame`, YUV 4:2:0 of limited
// (AV_PIX_FMT_YUV420P) or full range (AV_PIX_FMT_YUVJ420P), each 2x2 block's chroma the
// mean of its pixels, alpha ignored; scaled when the frame's size differs. `scratch` holds
// the picture at its own size meanwhile, kept from call to call. false for another type
// or format. Any thread, each with its own `scratch`.
bool convertPicture(const cv::Mat &img, AVFrame *frame, std::vector<uint8_t> &scratch);

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

    AVBufferPool *pool = nullptr; // buffers of poolBytes; freed when the last one returns
    size_t poolBytes = 0;         // bytes of one frame's three planes
    std::vector<uint8_t> scratch; // the picture at the host's size while it is scaled
};

#endif // FRAMECONVERTER_H
