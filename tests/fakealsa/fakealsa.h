#ifndef FAKEALSA_H
#define FAKEALSA_H

// Simulated sound hardware: the libasound functions the capture code calls, defined
// over an in-memory model that a test scripts. Link it in place of libasound, or put
// it in front of it (LD_PRELOAD, or linked into a program that then loads the plugin).
// Thread-safe: the capture thread reads while the test scripts.

#include <chrono>
#include <string>
#include <vector>

namespace fakealsa {

// A mixer control element.
struct Element {
    unsigned int numid = 0;
    std::string name;
    int type = 2;                // SND_CTL_ELEM_TYPE_BOOLEAN (1), _INTEGER (2), or other
    unsigned int count = 1;      // values
    long min = 0, max = 100;     // integer range
    std::vector<long> values;    // count values (missing ones read as 0)
};

// The card's capture device. Its sample clock runs from the first start of a stream on
// the card: card frame n is captured at epoch + n / (rate x (1 + ppm / 1e6)).
struct Capture {
    std::vector<unsigned int> rates{48000};     // granted: the nearest of these (one at least)
    std::vector<unsigned int> channels{1, 2};   // accepted channel counts
    double frequency = 1000.0;   // channel c carries a sine of frequency x (c + 1) Hz
    double ppm = 0;              // the card's clock runs this much fast (+) or slow (-)
    long heldMs = 0;             // another program holds the device this long after the
                                 // card is added (-1: until release()): a blocking open
                                 // waits for it, a non-blocking one gets -EBUSY
    int openError = 0;           // every open fails with this (negative errno) if set
    long unplugAfterMs = -1;     // the card is unplugged this long after the epoch
    long replugAfterMs = -1;     // ...and back this long after it went (-1: never)
    bool replugElsewhere = false; // ...at the next free index, as when another device
                                  // took its old one meanwhile
    long stallAfterMs = -1;      // from this long after the epoch on, no frame comes (the
                                 // device stays open and reports no error)
    long overrunEveryMs = -1;    // an overrun (-EPIPE) every this long of a stream's capture...
    long overrunLossMs = 200;    // ...after which nothing is delivered for this long
    bool overrunMidRead = false; // the planned overrun strikes inside a read: the read
                                 // returns the frames before it, the next call -EPIPE
    long suspendAfterMs = -1;    // the machine suspends this long after the epoch (a
                                 // running stream reports -ESTRPIPE)...
    long suspendForMs = 0;       // ...and wakes this long after: the driver cannot resume
                                 // the stream in place (-ENOSYS), it is prepared again
};

// Beeps instead of a steady tone on every card: the signal is silent except for
// `lengthMs` from every `periodMs` after `epoch` (steady clock), at `frequency` Hz.
struct Beeps {
    std::chrono::steady_clock::time_point epoch;
    long periodMs = 2000;
    long lengthMs = 50;
    double frequency = 1000.0;
};
void setBeeps(const Beeps &beeps);

// Forgets the cards and the counters below (not the open handles).
void reset();
// Adds a card at the next free index; returns its handle for the calls below (its index
// until it is replugged elsewhere).
int addCard(const std::string &name, const std::vector<Element> &elements = {}, const Capture &capture = {});
// The other program lets go of the card's device now.
void release(int card);
// The control device of this card fails to open.
void setControlOpenFails(int card);

// Current values of an element.
std::vector<long> elementValues(int card, unsigned int numid);
// Every snd_pcm_open call: the device name asked for.
std::vector<std::string> pcmOpenAttempts();
// Opens that had to wait for the device to be let go.
int blockedOpens();
// Successful opens.
int pcmOpens();
// Currently open capture handles (leak check).
int pcmOpenHandles();
// Frames delivered by reads, all cards.
long framesDelivered();
// Overruns reported, all cards.
int overruns();
// Frames a restarted stream skipped (lost to overruns or a suspend), all cards.
long framesLost();
// Suspends reported (-ESTRPIPE), all cards.
int suspends();
// The ALSA index the card has now (another after a replug elsewhere).
int cardIndex(int card);
// Period and buffer (frames) of the last stream whose parameters were applied; 0: the
// device's own, not set.
long lastPeriodFrames();
long lastBufferFrames();

// Sample of the steady tone at card frame `frame` of channel `channel`.
short sampleAt(long frame, int channel, unsigned int rate, double frequency);

} // namespace fakealsa

#endif // FAKEALSA_H
