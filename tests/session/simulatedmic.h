#ifndef SIMULATEDMIC_H
#define SIMULATEDMIC_H

#include "fakealsa.h"

// The camera's microphone on the simulated sound hardware, as the end-to-end tests and
// benchmarks need it. A program that links the simulatedmic target has the simulated
// functions ahead of libasound for the plugin it loads.
namespace simulatedmic {

// A "KW-08P USBCamera" card whose capture device gives `channels` channels at `rate`,
// channel c carrying a sine of frequency x (c + 1).
inline void addCameraMicrophone(unsigned int rate, int channels, double frequency)
{
    fakealsa::Capture c;
    c.rates = {rate};
    c.channels = {static_cast<unsigned int>(channels)};
    c.frequency = frequency;
    fakealsa::addCard("KW-08P USBCamera", {}, c);
}

} // namespace simulatedmic

#endif // SIMULATEDMIC_H
