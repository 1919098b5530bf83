#ifndef LIPSYNC_H
#define LIPSYNC_H

#include <chrono>
#include <vector>

#include <opencv2/core.hpp>

#include "plugin/plugincomponent.h"

struct MediaFile;

// A camera for lip-sync checks: black frames at its own rate, and white ones for the
// first two frames taken at or after every flash instant (epoch + k x period, steady
// clock), the instants the simulated card beeps at. It can hold one getFrame for a while,
// as a camera that stalls.
class FlashCamera : public PluginComponent
{
public:
    using Clock = std::chrono::steady_clock;
    FlashCamera(int width, int height, int fps, Clock::time_point epoch,
                std::chrono::milliseconds period);
    // The getFrame that comes `after` into the recording blocks for `length` (none when
    // `after` is negative).
    void stallOnce(Clock::duration after, Clock::duration length)
    {
        m_stallAfter = after;
        m_stallLength = length;
    }
    void beginUse() override {}
    bool getFrame(cv::Mat &frame) override;
    void endUse() override {}

private:
    cv::Size m_size;
    Clock::duration m_framePeriod, m_flashPeriod;
    Clock::time_point m_epoch, m_start; // flash instant 0; the first getFrame
    long m_next = 0, m_lastFlash = -1;  // frames delivered; flash instant shown last
    int m_whiteLeft = 0;               // white frames still to give for it
    Clock::duration m_stallAfter{-1}, m_stallLength{0}; // no stall while negative
};

// When each flash shows in the file's picture: the time of every frame that turns white.
std::vector<double> flashTimes(const MediaFile &f);
// When each beep starts in the file's sound: the first loud sample after silence.
std::vector<double> beepOnsets(const MediaFile &f);
// flash - beep of every flash that has a beep within `maxApart` seconds, in order.
std::vector<double> pairOffsets(const std::vector<double> &flashes,
                                const std::vector<double> &beeps, double maxApart);

#endif // LIPSYNC_H
