#include "lipsync.h"

#include <algorithm>
#include <cmath>
#include <thread>

using namespace std::chrono_literals;

namespace {

// A frame brighter than this is a flash (black frames decode near 16, white near 235).
constexpr double kFlashBrightness = 128;
// A sample louder than this starts a beep (beeps are 12000 loud) after this much silence.
constexpr int kBeepLevel = 3000;
constexpr double kSilenceBeforeBeep = 0.2; // seconds
constexpr double kWholeBeep = 0.04; // seconds loud: less is a beep cut short

} // namespace

bool FlashCamera::getFrame(cv::Mat &frame)
{
    if (m_n == kNone)
        m_start = Clock::now();
    if (m_stallAfter >= 0ms && Clock::now() - m_start >= m_stallAfter) {
        std::this_thread::sleep_for(3s);
        m_stallAfter = -1ms;
    }
    // The next frame, or the latest one taken when the caller is more than a period late.
    const double sinceEpoch = std::chrono::duration<double>(Clock::now() - m_epoch).count();
    m_n = std::max(m_n + 1, long(std::floor(sinceEpoch * kFps)));
    std::this_thread::sleep_until(m_epoch + std::chrono::nanoseconds(m_n * 1000000000LL / kFps));
    const bool lit = m_n >= 0 && m_n % kFlashEveryFrames < 2;
    frame = cv::Mat(m_size, CV_8UC3, cv::Scalar::all(lit ? 255 : 0));
    return true;
}

std::vector<double> flashTimes(const MediaFile &f)
{
    std::vector<double> times;
    const auto lit = [&](size_t i) { return f.frameBrightness[i] > kFlashBrightness; };
    for (size_t i = 0; i < f.frameBrightness.size(); ++i)
        if (lit(i) && (i == 0 || !lit(i - 1)))
            times.push_back(f.framePts[i] * av_q2d(f.video()->timeBase));
    return times;
}

std::vector<double> beepOnsets(const MediaFile &f)
{
    std::vector<double> onsets;
    const size_t quiet = size_t(kSilenceBeforeBeep * f.audioSampleRate);
    const size_t whole = size_t(kWholeBeep * f.audioSampleRate);
    bool counted = true; // the file's start counts as sound
    for (size_t i = 0, start = 0, lastLoud = 0; i < f.samples.size() / f.audioChannels; ++i) {
        if (std::abs(f.samples[i * f.audioChannels]) < kBeepLevel)
            continue;
        if (i - lastLoud >= quiet) {
            start = i;
            counted = false;
        }
        lastLoud = i;
        if (!counted && i - start >= whole) {
            onsets.push_back(f.audioStartSeconds + double(start) / f.audioSampleRate);
            counted = true;
        }
    }
    return onsets;
}

std::vector<double> pairOffsets(const std::vector<double> &flashes, const std::vector<double> &beeps,
                                double window)
{
    std::vector<double> offsets;
    for (double flash : flashes) {
        const auto beep = std::lower_bound(beeps.begin(), beeps.end(), flash - window);
        if (beep != beeps.end() && *beep <= flash + window)
            offsets.push_back(flash - *beep);
    }
    return offsets;
}
