#ifndef AUDIOBLOCK_H
#define AUDIOBLOCK_H

#include <cstdint>
#include <vector>

// One block of captured sound as the capture hands it on: interleaved signed 16-bit PCM
// with what a consumer needs to place it on the recording's timeline.
struct AudioBlock {
    std::vector<int16_t> samples; // frames x channels, interleaved
    int frames = 0;               // per channel
    int channels = 0;
    int rate = 0;                 // Hz, the rate the card was opened at
    double captureTime = 0;       // steady clock, seconds: when the first frame was captured
    double rateRatio = 1.0;       // the card's measured rate over `rate`
    // Follows the previous block without a gap. False for the first block of a run: the
    // start, a resume after a pause.
    bool continues = true;
};

#endif // AUDIOBLOCK_H
