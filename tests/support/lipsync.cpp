#include "lipsync.h"

#include <algorithm>
#include <cstdlib>
#include <thread>

#include "mediareader.h"

// A frame brighter than this is a flash (black frames decode near 16, white near 235).
constexpr double kFlashBrightness = 128;
// A sample louder than this starts a beep (beeps are 12000 loud); one must follow this
// much silence.
constexpr int kBeepLevel = 3000;
constexpr double kSilenceBeforeBeep = 0.2; // seconds

FlashCamera::FlashCamera(int width, int height, int fps, Clock::time_point epoch,
                         std::chrono::milliseconds period)
    : m_size(width, height)
    , m_framePeriod(std::chrono::nanoseconds(1000000000LL / fps))
    , m_flashPeriod(period)
    , m_epoch(epoch)
{
}

bool FlashCamera::getFrame(cv::Mat &frame)
{
    if (m_next == 0)
        m_start = Clock::now();
    std::this_thread::sleep_until(m_start + m_framePeriod * m_next);
    if (m_stallAfter.count() >= 0 && Clock::now() - m_start >= m_stallAfter) {
        std::this_thread::sleep_for(m_stallLength);
        m_stallAfter = Clock::duration(-1);
        m_start = Clock::now() - m_framePeriod * m_next; // the camera goes on at its rate
    }
    ++m_next;
    const Clock::time_point now = Clock::now();
    const long flash = now >= m_epoch ? long((now - m_epoch) / m_flashPeriod) : -1;
    if (flash > m_lastFlash) {
        m_lastFlash = flash;
        m_whiteLeft = 2; // two frames: the feeder takes one of them whatever its phase
    }
    frame = cv::Mat(m_size, CV_8UC3, cv::Scalar::all(m_whiteLeft-- > 0 ? 255 : 0));
    return true;
}

std::vector<double> flashTimes(const MediaFile &f)
{
    std::vector<double> times;
    const auto lit = [&](size_t i) { return f.frameBrightness[i] > kFlashBrightness; };
    for (size_t i = 0; f.video() && i < f.frameBrightness.size(); ++i)
        if (lit(i) && (i == 0 || !lit(i - 1)))
            times.push_back(f.framePts[i] * av_q2d(f.video()->timeBase));
    return times;
}

std::vector<double> beepOnsets(const MediaFile &f)
{
    std::vector<double> onsets;
    const size_t frames = f.audioChannels ? f.samples.size() / f.audioChannels : 0;
    const size_t quiet = size_t(kSilenceBeforeBeep * f.audioSampleRate);
    // The file's start counts as sound: a beep cut off by it is no onset.
    for (size_t i = 0, lastLoud = 0; i < frames; ++i) {
        if (std::abs(f.samples[i * f.audioChannels]) < kBeepLevel)
            continue;
        if (i - lastLoud >= quiet)
            onsets.push_back(f.audioStartSeconds + double(i) / f.audioSampleRate);
        lastLoud = i;
    }
    return onsets;
}

std::vector<double> pairOffsets(const std::vector<double> &flashes,
                                const std::vector<double> &beeps, double maxApart)
{
    std::vector<double> offsets;
    for (double flash : flashes) {
        // The first beep not too early: it pairs when it is not too late either.
        const auto beep = std::lower_bound(beeps.begin(), beeps.end(), flash - maxApart);
        if (beep != beeps.end() && *beep <= flash + maxApart)
            offsets.push_back(flash - *beep);
    }
    return offsets;
}
