#ifndef SYNTHETICCAMERA_H
#define SYNTHETICCAMERA_H

#include <atomic>
#include <chrono>
#include <mutex>
#include <opencv2/core/mat.hpp>
#include <vector>

#include "plugincomponent.h"

// A camera that needs no hardware: a moving colour pattern with the frame number
// drawn as text and as a row of black/white marks (readable after lossy encoding),
// delivered at a chosen camera rate. getFrame blocks until the next frame is due,
// as a real capture call does. Used by the demo host, the benchmarks and the tests.
class SyntheticCamera : public PluginComponent
{
public:
    // cameraFps <= 0: every getFrame returns a new frame at once.
    SyntheticCamera(int width, int height, double cameraFps);

    void beginUse() override;
    bool getFrame(cv::Mat &frame) override;
    void endUse() override;

    // The picture of frame `index`, taken `msecs` after the camera started.
    static cv::Mat makeFrame(int width, int height, long index, long long msecs);
    // Reads the frame number back from the marks of a (decoded) picture; -1 if unreadable.
    static long readFrameNumber(const cv::Mat &bgr);

    int beginCount() const { return m_begins; }
    int endCount() const { return m_ends; }
    long framesDelivered() const { return m_delivered; }
    // The newest frame delivered, shared (any thread).
    cv::Mat lastFrame() const;

private:
    using Clock = std::chrono::steady_clock;

    const int m_width;                    // pixels
    const int m_height;                   // pixels
    const Clock::duration m_period;       // between frames; zero: no pacing
    Clock::time_point m_start;            // when the first frame was asked for
    bool m_started = false;
    std::atomic<int> m_begins{0};         // beginUse calls
    std::atomic<int> m_ends{0};           // endUse calls
    std::atomic<long> m_delivered{0};     // frames handed out
    mutable std::mutex m_lastMutex;       // guards m_last
    cv::Mat m_last;                       // newest frame handed out
};

// Hands out pictures drawn beforehand, in turn, at the camera's rate on a steady-clock
// schedule, so that drawing costs nothing while a recording is measured. The pictures are
// lent: the recorder copies what it keeps.
class CyclingCamera : public PluginComponent
{
public:
    CyclingCamera(std::vector<cv::Mat> pictures, int fps);
    // The synthetic camera's frames 0 to count - 1, as taken at fps.
    static std::vector<cv::Mat> synthetic(int width, int height, int fps, int count);

    // Each recording starts the schedule afresh, as a camera opened again would.
    void beginUse() override { m_next = 0; }
    bool getFrame(cv::Mat &frame) override;
    void endUse() override {}

private:
    using Clock = std::chrono::steady_clock;

    const std::vector<cv::Mat> m_pictures;
    const Clock::duration m_period; // between frames
    Clock::time_point m_start;      // when the first frame was asked for
    long m_next = 0;                // index of the next frame; the recorder's threads only
};

#endif // SYNTHETICCAMERA_H
