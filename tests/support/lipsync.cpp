#include "lipsync.h"

#include <cmath>
#include <cstdlib>
#include <thread>

#include "mediareader.h"

namespace {

// A frame brighter than this is a flash (black frames decode near 16, white near 235).
constexpr double kFlashBrightness = 128;
// A sample louder than this starts a beep (beeps are 12000 loud); one must follow this
// much silence.
constexpr int kBeepLevel = 3000;
constexpr double kSilenceBeforeBeep = 0.2; // seconds

} // namespace

FlashCamera::FlashCamera(int width, int height, int fps, Clock::time_point epoch,
                         std::chrono::milliseconds period)
    : m_black(height, width, CV_8UC3, cv::Scalar(0, 0, 0))
    , m_white(height, width, CV_8UC3, cv::Scalar(255, 255, 255))
    , m_framePeriod(std::chrono::nanoseconds(1000000000LL / fps))
    , m_epoch(epoch)
    , m_flashPeriod(period)
{
}

void FlashCamera::stallOnce(std::chrono::milliseconds after, std::chrono::milliseconds length)
{
    m_stallAfter = after;
    m_stallLength = length;
}

bool FlashCamera::getFrame(cv::Mat &frame)
{
    if (m_next == 0)
        m_start = Clock::now();
    std::this_thread::sleep_until(m_start + m_framePeriod * m_next);
    if (m_stallAfter.count() >= 0 && Clock::now() - m_start >= m_stallAfter) {
        std::this_thread::sleep_for(m_stallLength);
        m_stallAfter = std::chrono::milliseconds(-1);
        m_start = Clock::now() - m_framePeriod * m_next; // the camera goes on at its rate
    }
    ++m_next;
    const Clock::time_point now = Clock::now();
    const long flash = now >= m_epoch ? long((now - m_epoch) / m_flashPeriod) : -1;
    if (flash > m_lastFlash) {
        m_lastFlash = flash;
        m_whiteLeft = 2; // two frames: the feeder takes one of them whatever its phase
    }
    frame = m_whiteLeft-- > 0 ? m_white : m_black;
    return true;
}

std::vector<double> flashTimes(const MediaFile &f)
{
    std::vector<double> times;
    const MediaStream *v = f.video();
    if (!v)
        return times;
    for (size_t i = 0; i < f.frameBrightness.size(); ++i) {
        const bool lit = f.frameBrightness[i] > kFlashBrightness;
        const bool wasLit = i > 0 && f.frameBrightness[i - 1] > kFlashBrightness;
        if (lit && !wasLit)
            times.push_back(f.framePts[i] * av_q2d(v->timeBase));
    }
    return times;
}

std::vector<double> beepOnsets(const MediaFile &f)
{
    std::vector<double> onsets;
    if (!f.audioChannels || !f.audioSampleRate)
        return onsets;
    const size_t frames = f.samples.size() / f.audioChannels;
    const size_t quiet = size_t(kSilenceBeforeBeep * f.audioSampleRate);
    size_t lastLoud = 0;
    bool seenLoud = false;
    for (size_t i = 0; i < frames; ++i) {
        if (std::abs(f.samples[i * f.audioChannels]) < kBeepLevel)
            continue;
        if (!seenLoud ? i >= quiet : i - lastLoud >= quiet)
            onsets.push_back(f.audioStartSeconds + double(i) / f.audioSampleRate);
        seenLoud = true;
        lastLoud = i;
    }
    return onsets;
}

std::vector<double> pairOffsets(const std::vector<double> &flashes,
                                const std::vector<double> &beeps, double maxApart)
{
    std::vector<double> offsets;
    size_t b = 0;
    for (double flash : flashes) {
        while (b < beeps.size() && beeps[b] < flash - maxApart)
            ++b;
        if (b < beeps.size() && std::fabs(flash - beeps[b]) <= maxApart)
            offsets.push_back(flash - beeps[b]);
    }
    return offsets;
}
