#ifndef LIPSYNC_H
#define LIPSYNC_H

// Picture against sound, as the lip-sync test and the soak benchmark measure it: a camera
// that flashes and a card that beeps at the same steady-clock instants, and where the
// flashes and beeps land in the recorded file.
#include <chrono>
#include <vector>

#include <opencv2/core.hpp>

#include "plugin/plugincomponent.h"
#include "support/mediareader.h"

using Clock = std::chrono::steady_clock;

// The flashing camera's and the beeping card's schedule: a flash and a beep every
// kFlashEveryFrames frames of kFps.
constexpr int kFps = 30;
constexpr double kPeriod = 1.0 / kFps;
constexpr int kFlashEveryFrames = 60; // 2 s
constexpr double kFlashEvery = double(kFlashEveryFrames) / kFps;
constexpr long kBeepMs = 50;

// A camera whose frame n is taken at epoch + n / fps (steady clock), the instants the card
// beeps at being frames 0, 60, 120...: those and the frame after each are white (the
// feeder takes one of two whatever its phase), the rest black. Taken on the flash's own
// instant, a flash is late in the file only by what the recorder adds.
class FlashCamera : public PluginComponent
{
public:
    // `stallAfter` into the recording one getFrame blocks for 3 s (never when negative).
    FlashCamera(int width, int height, Clock::time_point epoch, std::chrono::milliseconds stallAfter)
        : m_size(width, height), m_epoch(epoch), m_stallAfter(stallAfter) {}
    void beginUse() override {}
    void endUse() override {}
    bool getFrame(cv::Mat &frame) override;

private:
    static constexpr long kNone = -1000000000; // no frame taken yet
    const cv::Size m_size;
    const Clock::time_point m_epoch;        // when frame 0 is taken
    std::chrono::milliseconds m_stallAfter; // negative: no stall (any more)
    Clock::time_point m_start;              // the first getFrame
    long m_n = kNone;                       // the frame taken last
};

// When each flash shows in the file's picture: the time of every frame that turns white.
std::vector<double> flashTimes(const MediaFile &f);
// When each whole beep starts in the file's sound: the first loud sample after silence.
// A beep cut short (by the file's start, or by sound an overrun lost) is no measure.
std::vector<double> beepOnsets(const MediaFile &f);
// flash - beep, seconds, of every flash with a beep within `window` seconds of it.
std::vector<double> pairOffsets(const std::vector<double> &flashes, const std::vector<double> &beeps,
                                double window);

#endif // LIPSYNC_H
