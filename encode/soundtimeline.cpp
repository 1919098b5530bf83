#include "soundtimeline.h"

#include <algorithm>
#include <cmath>

#include "media/audioblock.h"

void SoundTimeline::setOrigin(double steadySeconds)
{
    m_origin = steadySeconds;
    m_hasOrigin = true;
}

SoundTimeline::Placement SoundTimeline::place(const AudioBlock &block, int64_t samplesOut)
{
    Placement p;
    if (!m_anchored) {
        // The first block starts where its capture time falls on the picture's timeline.
        m_anchored = true;
        m_anchorTime = m_hasOrigin && m_correcting ? m_origin : block.captureTime;
        m_anchorOut = samplesOut;
        const int64_t at = std::llround((block.captureTime - m_anchorTime) * m_rate);
        p.leadSilence = std::max<int64_t>(at, 0);
        p.skip = std::max<int64_t>(-at, 0);
        m_lastCapture = block.captureTime;
        return p;
    }
    if (!block.continues) {
        // After a pause the picture goes on from where it was too: a new anchor.
        m_anchorTime = block.captureTime;
        m_anchorOut = samplesOut;
    }
    if (!m_correcting)
        return p;
    const double error = double(samplesOut - m_anchorOut) / m_rate
        - (block.captureTime - m_anchorTime);
    const double c = m_controller.update(error, block.rateRatio,
                                         block.captureTime - m_lastCapture);
    m_lastCapture = block.captureTime;
    p.compensation = m_controller.compensationSamples(c, block.frames);
    return p;
}
