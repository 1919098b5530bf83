// Plays into a sound server's sink on the steady clock that every process of the machine
// shares: beeps heard from EPOCH_NS on, BEEP_MS every PERIOD_MS, or with BEEP_MS 0 a steady
// tone. usage: beepplayer SINK EPOCH_NS PERIOD_MS BEEP_MS FREQUENCY_HZ SECONDS
#include <pulse/error.h>
#include <pulse/simple.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <deque>
#include <vector>

namespace {

constexpr unsigned kRate = 48000;
constexpr unsigned kChunkFrames = kRate / 100; // written at a time, between latency looks
constexpr unsigned kQueuedUs = 20000;          // kept queued in the server: a steady latency
constexpr double kAmplitude = 12000;
// Latency readings whose median dates the stream (a second of chunks): one reading wanders
// by the server's graph cycle and more on a loaded machine, the stream's frames do not.
constexpr size_t kAnchorReadings = 100;

double steadyNow()
{
    return std::chrono::duration<double>(std::chrono::steady_clock::now().time_since_epoch()).count();
}

} // namespace

int main(int argc, char **argv)
{
    if (argc != 7) {
        fprintf(stderr, "usage: beepplayer SINK EPOCH_NS PERIOD_MS BEEP_MS FREQUENCY_HZ SECONDS\n");
        return 2;
    }
    const double epoch = std::atof(argv[2]) / 1e9, period = std::atof(argv[3]) / 1000,
                 length = std::atof(argv[4]) / 1000, frequency = std::atof(argv[5]);
    const double until = steadyNow() + std::atof(argv[6]);
    const pa_sample_spec format{PA_SAMPLE_S16LE, kRate, 1};
    pa_buffer_attr attr{uint32_t(-1), uint32_t(pa_usec_to_bytes(kQueuedUs, &format)), uint32_t(-1), uint32_t(-1),
                        uint32_t(-1)};
    int err = 0;
    pa_simple *s = pa_simple_new(nullptr, "beepplayer", PA_STREAM_PLAYBACK, argv[1], "beeps", &format, nullptr, &attr, &err);
    if (!s) {
        fprintf(stderr, "beepplayer: cannot play into %s: %s\n", argv[1], pa_strerror(err));
        return 1;
    }
    std::vector<short> chunk(kChunkFrames);
    std::deque<double> anchors; // steady times the stream's frame 0 is heard at, as read
    long long written = 0;      // frames
    while (!err && steadyNow() < until) {
        // The next frame written is heard once what is queued has played: frame 0 was
        // heard that long before, by every reading; their median stands.
        const pa_usec_t latency = pa_simple_get_latency(s, &err);
        anchors.push_back(steadyNow() + double(latency) / 1e6 - double(written) / kRate);
        if (anchors.size() > kAnchorReadings)
            anchors.pop_front();
        std::vector<double> sorted(anchors.begin(), anchors.end());
        std::nth_element(sorted.begin(), sorted.begin() + sorted.size() / 2, sorted.end());
        const double heardAt = sorted[sorted.size() / 2] + double(written) / kRate;
        for (unsigned i = 0; i < kChunkFrames; ++i) {
            const double t = heardAt + double(i) / kRate, into = std::fmod(t - epoch, period);
            const bool on = length <= 0 || (t >= epoch && into < length);
            chunk[i] = on ? short(std::lround(kAmplitude * std::sin(2 * M_PI * frequency * into))) : 0;
        }
        if (!err)
            pa_simple_write(s, chunk.data(), chunk.size() * sizeof(short), &err);
        written += kChunkFrames;
    }
    if (err)
        fprintf(stderr, "beepplayer: %s\n", pa_strerror(err));
    pa_simple_free(s);
    return err ? 1 : 0;
}
