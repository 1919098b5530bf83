#ifndef BLOCKCUTTER_H
#define BLOCKCUTTER_H

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <vector>

#include "encode/clocksync.h"
#include "media/audioblock.h"

// Cuts what a source delivers into the encoder's blocks and dates every block on the
// steady clock through the card's measured clock. Frames lost to an overrun or while the
// device was re-opened come back as silence of their length, so the sound keeps its
// place on the timeline. Used by the capture thread only.
class BlockCutter
{
public:
    BlockCutter(int frames, int channels, int rate)
        : m_frames(frames), m_channels(channels), m_rate(rate), m_clock(rate) {}

    // `got` frames read; the read completed at steady time `t` (seconds).
    void addRead(const int16_t *data, long got, double t)
    {
        if (m_gapFrom >= 0) {
            // The first frame after the gap was captured `got` frames before now.
            const double firstAt = t - double(got) / m_rate;
            const long lost = std::max(0L, std::lround((firstAt - m_gapFrom) * m_rate
                                                        * m_clock.rateRatio()));
            m_pending.insert(m_pending.end(), size_t(lost) * m_channels, 0);
            m_total += lost;
            m_lostFrames += lost;
            m_gapFrom = -1;
        }
        m_pending.insert(m_pending.end(), data, data + got * m_channels);
        m_total += got;
        m_clock.add(t, m_total);
    }
    // The device stopped delivering (an overrun, or it is re-opened): sound resumes later.
    void beginGap(bool newDevice)
    {
        // Before any sound the timeline has no place yet: the first block will set it.
        m_gapFrom = m_total > 0 ? m_clock.timeOfFrame(m_total) : -1;
        if (newDevice)
            m_clock.reset(); // another device, another crystal
    }
    // The device is gone: silence up to steady time `t`, on the timeline, so that the
    // sound goes on meanwhile (and never holds the picture back).
    void fillGap(double t)
    {
        if (m_gapFrom < 0)
            return;
        const long lost = std::lround((t - m_gapFrom) * m_rate); // no card: the nominal rate
        if (lost <= 0)
            return;
        m_pending.insert(m_pending.end(), size_t(lost) * m_channels, 0);
        m_total += lost;
        m_lostFrames += lost;
        m_gapFrom += double(lost) / m_rate;
        m_clock.add(m_gapFrom, m_total);
    }
    bool hasBlock() const { return m_pending.size() >= size_t(m_frames) * m_channels; }
    // The oldest whole block; hasBlock() must hold.
    AudioBlock takeBlock()
    {
        AudioBlock block;
        const size_t n = size_t(m_frames) * m_channels;
        block.samples.assign(m_pending.begin(), m_pending.begin() + n);
        m_pending.erase(m_pending.begin(), m_pending.begin() + n);
        block.frames = m_frames;
        block.channels = m_channels;
        block.rate = m_rate;
        const int64_t first = m_total - int64_t(m_pending.size() / m_channels) - m_frames;
        block.captureTime = m_clock.timeOfFrame(first);
        block.rateRatio = m_clock.rateRatio();
        return block;
    }
    long lostFrames() const { return m_lostFrames; }

private:
    const int m_frames;             // per block
    const int m_channels;
    const int m_rate;               // Hz, nominal
    CardClockEstimator m_clock;     // the card's frames against the steady clock
    std::vector<int16_t> m_pending; // frames not yet in a block, interleaved
    int64_t m_total = 0;            // frames of this capture, silence included
    double m_gapFrom = -1;          // steady time the frame after a gap was due; -1: no gap
    long m_lostFrames = 0;          // frames filled with silence
};


#endif // BLOCKCUTTER_H
