#pragma once

#include <cmath>
#include <cstdint>
#include <string>
#include <vector>

#include <opencv2/core/mat.hpp>

extern "C" {
#include <libavcodec/avcodec.h>
}

// The colour a video stream declares (container or bitstream), as ffprobe shows it.
struct DeclaredColour {
    AVColorSpace matrix = AVCOL_SPC_UNSPECIFIED;
    AVColorPrimaries primaries = AVCOL_PRI_UNSPECIFIED;
    AVColorTransferCharacteristic transfer = AVCOL_TRC_UNSPECIFIED;
    AVColorRange range = AVCOL_RANGE_UNSPECIFIED;
    AVChromaLocation chromaSiting = AVCHROMA_LOC_UNSPECIFIED;
};

// What a written file holds, read back with libavformat/libavcodec.
struct MediaStream {
    AVMediaType type = AVMEDIA_TYPE_UNKNOWN;
    AVCodecID codecId = AV_CODEC_ID_NONE;
    AVRational timeBase{0, 1};
    int width = 0, height = 0;        // video
    // Where a player starts the stream (the container's start time, with its edit list
    // applied), seconds; NAN when the file does not say.
    double startSeconds = NAN;
    // Every packet's pts and duration in file order (stream time base).
    std::vector<int64_t> packetPts, packetDuration;
    DeclaredColour colour;            // video
    // From the first pts to the end of the last packet, in seconds. An encoder's priming
    // (AAC's first 1024 samples, before pts 0) is not played, so it is not counted.
    double durationSeconds() const;
};

struct MediaFile {
    std::vector<MediaStream> streams;
    std::vector<cv::Mat> frames;      // decoded pictures, CV_8UC3 BGR as a player shows them, display order
    std::vector<int64_t> framePts;    // their pts in the video stream's time base
    std::vector<double> frameBrightness; // their mean luma, 0-255 (kept also without pictures)
    double audioStartSeconds = 0;     // pts of the first decoded sample
    std::vector<int16_t> samples;     // decoded audio, interleaved S16
    int audioChannels = 0, audioSampleRate = 0;

    // The first stream of a type, or nullptr.
    const MediaStream *first(AVMediaType type) const;
    const MediaStream *video() const { return first(AVMEDIA_TYPE_VIDEO); }
    const MediaStream *audio() const { return first(AVMEDIA_TYPE_AUDIO); }
    // Decoded pictures (or, without decoding, packets) x the stream's frame period.
    double videoSeconds() const;
    // Decoded samples per channel / rate.
    double audioSeconds() const;
};

// false (and *error set) when the file cannot be opened or read. Without
// `keepPictures` the pictures are decoded for their brightness and times only, so that
// long recordings fit in memory.
bool readMediaFile(const std::string &path, MediaFile &out, std::string *error = nullptr,
                   bool decodePictures = true, bool keepPictures = true);

// The dominant frequency in Hz of one channel of interleaved S16 samples.
double dominantFrequency(const std::vector<int16_t> &interleaved, int channels, int channel,
                         int sampleRate);

// A CV_8UC3 BGR picture of one colour, or with rows padded past width x 3 bytes (same
// pixels as `img`).
cv::Mat solidImage(int width, int height, const cv::Scalar &bgr);
cv::Mat paddedCopy(const cv::Mat &img, int extraPixelsPerRow);
// A BGR picture of blurred noise, the same for the same seed: scaled, cropped or
// swapped for another, it differs everywhere.
cv::Mat textureImage(int width, int height, int seed);
// `bgr` as a lossless file of it decodes: converted to YUV 4:2:0 by swscale (BT.601,
// limited range), scaled to `size` in the same pass when one is given, and back the
// reader's way, each with a scaler made for this picture alone.
cv::Mat throughYuv420(const cv::Mat &bgr, cv::Size size = cv::Size());

// Mean absolute difference per channel value between two same-size BGR pictures.
double meanAbsDiff(const cv::Mat &a, const cv::Mat &b);

