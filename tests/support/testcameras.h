#ifndef TESTCAMERAS_H
#define TESTCAMERAS_H

#include <atomic>
#include <chrono>
#include <thread>

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

#endif // TESTCAMERAS_H
