// Plays into a sound server's sink, timed on the steady clock that every process of the
// machine shares: beeps that start at epoch + k x period, or a steady tone.
// usage: beepplayer SINK EPOCH_NS PERIOD_MS BEEP_MS FREQUENCY_HZ SECONDS
//   BEEP_MS 0: a steady tone for SECONDS.
#include <pulse/error.h>
#include <pulse/simple.h>

#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <vector>

namespace {

using Clock = std::chrono::steady_clock;

constexpr unsigned kRate = 48000;
// Written per chunk: the player looks at the stream's latency this often.
constexpr unsigned kChunkFrames = kRate / 100;
// Kept queued in the server, microseconds: small, so that the latency is steady.
constexpr unsigned kQueuedUs = 20000;
constexpr double kAmplitude = 12000;

struct Plan {
    const char *sink;
    double epoch;     // steady seconds of the first beep
    double period;    // seconds between beeps
    double length;    // seconds of each beep; 0: a steady tone
    double frequency; // Hz
    double seconds;   // playing time
};

double steadyNow() { return std::chrono::duration<double>(Clock::now().time_since_epoch()).count(); }

// The sample to be heard at steady time `t`.
short sampleAt(const Plan &plan, double t)
{
    if (plan.length <= 0)
        return short(std::lround(kAmplitude * std::sin(2 * M_PI * plan.frequency * t)));
    const double into = std::fmod(t - plan.epoch, plan.period);
    if (t < plan.epoch || into >= plan.length)
        return 0;
    return short(std::lround(kAmplitude * std::sin(2 * M_PI * plan.frequency * into)));
}

pa_simple *connect(const Plan &plan)
{
    const pa_sample_spec spec{PA_SAMPLE_S16LE, kRate, 1};
    pa_buffer_attr attr;
    attr.maxlength = attr.prebuf = attr.minreq = attr.fragsize = uint32_t(-1);
    attr.tlength = uint32_t(pa_usec_to_bytes(kQueuedUs, &spec));
    int err = 0;
    pa_simple *s = pa_simple_new(nullptr, "beepplayer", PA_STREAM_PLAYBACK, plan.sink, "beeps", &spec,
                                 nullptr, &attr, &err);
    if (!s)
        fprintf(stderr, "beepplayer: cannot play into %s: %s\n", plan.sink, pa_strerror(err));
    return s;
}

} // namespace

int main(int argc, char **argv)
{
    if (argc != 7) {
        fprintf(stderr, "usage: beepplayer SINK EPOCH_NS PERIOD_MS BEEP_MS FREQUENCY_HZ SECONDS\n");
        return 2;
    }
    const Plan plan{argv[1], std::atof(argv[2]) / 1e9, std::atof(argv[3]) / 1000, std::atof(argv[4]) / 1000,
                    std::atof(argv[5]), std::atof(argv[6])};
    pa_simple *s = connect(plan);
    if (!s)
        return 1;
    std::vector<short> chunk(kChunkFrames);
    const double until = steadyNow() + plan.seconds;
    int err = 0;
    while (steadyNow() < until) {
        // The next frame written is heard once what is queued has played.
        const pa_usec_t latency = pa_simple_get_latency(s, &err);
        if (latency == pa_usec_t(-1)) {
            fprintf(stderr, "beepplayer: no latency: %s\n", pa_strerror(err));
            break;
        }
        const double heardAt = steadyNow() + latency / 1e6;
        for (unsigned i = 0; i < kChunkFrames; ++i)
            chunk[i] = sampleAt(plan, heardAt + double(i) / kRate);
        if (pa_simple_write(s, chunk.data(), chunk.size() * sizeof(short), &err) < 0) {
            fprintf(stderr, "beepplayer: write failed: %s\n", pa_strerror(err));
            break;
        }
    }
    pa_simple_free(s);
    return err ? 1 : 0;
}
