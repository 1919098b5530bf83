#ifndef SOUNDTIMELINE_H
#define SOUNDTIMELINE_H

#include <cstdint>

#include "clocksync.h"

struct AudioBlock;

// Keeps the sound where the picture is: the picture's frame k is due at origin + k / fps
// on the steady clock, and the sound's sample n should have been captured at
// origin + n / rate. The first block is placed against the origin (silence before it, or
// its start cut), and from then on the drift between the card's clock and the steady
// clock is resampled away. The sound's timestamps stay its sample count.
// Pure: used by the encoder thread only.
class SoundTimeline
{
public:
    // rate: samples per second of the output. Without an origin (a recording without
    // picture) the first block is its own origin and nothing is corrected.
    explicit SoundTimeline(int rate) : m_rate(rate) {}
    // Steady clock, seconds: when the picture's frame 0 was due.
    void setOrigin(double steadySeconds);
    void setCorrecting(bool on) { m_correcting = on; }

    struct Placement {
        int64_t leadSilence = 0; // samples of silence to write before the block
        int64_t skip = 0;        // samples to cut from the block's start
        int compensation = 0;    // samples to add (negative: remove) while resampling it
    };
    // Where the next block goes, the output's sample count being `samplesOut`.
    Placement place(const AudioBlock &block, int64_t samplesOut);

private:
    const int m_rate;             // Hz
    bool m_correcting = false;    // follow the steady clock
    bool m_hasOrigin = false;     // m_origin is set
    double m_origin = 0;          // steady seconds of the picture's frame 0
    bool m_anchored = false;      // a block has set the anchor
    double m_anchorTime = 0;      // steady seconds that...
    int64_t m_anchorOut = 0;      // ...output sample m_anchorOut stands for
    double m_lastCapture = 0;     // capture time of the last block placed
    DriftController m_controller;
};

#endif // SOUNDTIMELINE_H
