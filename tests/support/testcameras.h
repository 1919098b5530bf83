#ifndef TESTCAMERAS_H
#define TESTCAMERAS_H

#include <atomic>
#include <chrono>
#include <thread>
#include <vector>

#include <opencv2/core.hpp>

#include "plugin/plugincomponent.h"

// A camera whose frames are one solid colour, 20 ms apart;
// counts the calls a host contract is checked against.
class SolidCamera : public PluginComponent
{
public:
    SolidCamera(int w, int h, cv::Scalar colour) : m_w(w), m_h(h), m_colour(colour) {}
    void beginUse() override { ++begins; }
    bool getFrame(cv::Mat &frame) override
    {
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
        frame = cv::Mat(m_h, m_w, CV_8UC3, m_colour);
        ++frames;
        return true;
    }
    void endUse() override { ++ends; }

    std::atomic<int> begins{0};
    std::atomic<int> ends{0};
    std::atomic<int> frames{0};

private:
    int m_w, m_h;
    cv::Scalar m_colour;
};

// A camera that never has a frame.
class DarkCamera : public PluginComponent
{
public:
    void beginUse() override { ++begins; }
    bool getFrame(cv::Mat &) override
    {
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
        ++asked;
        return false;
    }
    void endUse() override { ++ends; }
    std::atomic<int> begins{0};
    std::atomic<int> ends{0};
    std::atomic<int> asked{0};
};

// A camera that cycles through pre-rendered synthetic frames, so that drawing them costs
// nothing while a recording is measured; paced on a steady-clock schedule.
class PrerenderedCamera : public PluginComponent
{
public:
    static constexpr int kFrames = 30;
    PrerenderedCamera(int w, int h, int fps);
    void beginUse() override {}
    bool getFrame(cv::Mat &frame) override
    {
        if (m_next == 0)
            m_start = std::chrono::steady_clock::now();
        std::this_thread::sleep_until(m_start + m_period * m_next);
        frame = m_frames[m_next % kFrames];
        ++m_next;
        return true;
    }
    void endUse() override {}
    const std::vector<cv::Mat> &frames() const { return m_frames; }

private:
    const std::chrono::steady_clock::duration m_period;
    std::chrono::steady_clock::time_point m_start;
    long m_next = 0;
    std::vector<cv::Mat> m_frames;
};

#endif // TESTCAMERAS_H
