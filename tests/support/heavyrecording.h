#ifndef HEAVYRECORDING_H
#define HEAVYRECORDING_H

#include <chrono>
#include <string>
#include <vector>

#include <opencv2/core.hpp>

class LoadedRecorder;

// Pictures of noise for a camera to cycle through: every frame costs the encoder the most
// it can, so the writer falls behind if anything does. Up to 30 (fewer for large sizes, so
// that the test's own memory stays small) defeat prediction as well as fresh noise.
std::vector<cv::Mat> noisePictures(int width, int height);

// What one heavy recording cost and left behind.
struct HeavyRecordingReport {
    bool started = false;            // waitForRecordStart answered true
    bool stopped = false;            // the session ended after stopRecord
    double wallSeconds = 0;          // from the start answer to stopRecord
    double drainSeconds = 0;         // from stopRecord to the end of the session
    long peakQueuedFrames = -1;      // as the encoder reported it (-1: not reported)
    double peakQueuedMiB = -1;       // pixels in those frames
    long framesNotMadeUp = -1;       // the feeder's count of frames lost to stalls over 1 s
    long framesDropped = 0;          // the encoder's count of frames its full queue dropped
    std::vector<long> rssKiB;        // resident size at each sample while recording
};

// Records `length` of noise at width x height and fps, with the plugin's current sound
// settings, into `file`; samples resident size every `sampleEvery`.
HeavyRecordingReport recordHeavy(LoadedRecorder &rec, const std::string &file, int width,
                                 int height, int fps, unsigned bitrate,
                                 std::chrono::seconds length, std::chrono::seconds sampleEvery);

#endif // HEAVYRECORDING_H
