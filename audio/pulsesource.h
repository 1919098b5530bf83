#ifndef PULSESOURCE_H
#define PULSESOURCE_H

#include <condition_variable>
#include <mutex>

#include "audio/capturesource.h"

struct pa_threaded_mainloop;
struct pa_context;
struct pa_stream;
struct pa_source_info;

// The camera's microphone through the desktop's sound server (PulseAudio, or PipeWire
// through pipewire-pulse), shared with every other program that records it.
class PulseSource : public CaptureSource
{
public:
    ~PulseSource() override;
    bool open(const QStringList &cardNames, const std::function<bool()> &stopRequested,
              QString *why) override;
    int rate() const override { return m_rate; }
    int channels() const override { return m_channels; }
    bool start() override;
    Read read(std::vector<int16_t> &buffer, long maxFrames, const std::atomic<bool> &run) override;
    void close() override;

private:
    // The sources the server lists, as far as choosing one needs.
    struct Candidate {
        QByteArray name;     // the server's name for it
        QString cardName;    // alsa.card_name
        QString description; // device.description
        bool monitor;        // a sink's monitor: never a microphone
        int rate, channels;
    };
    bool connectContext(const std::function<bool()> &stopRequested, QString *why);
    bool listSources(std::vector<Candidate> &out, QString *why);
    bool connectStream(const Candidate &source, const std::function<bool()> &stopRequested, QString *why);
    // Called on the server's thread: wakes the reader (and the waits of open()).
    void wake();
    static void onSource(pa_context *, const pa_source_info *info, int eol, void *self);

    pa_threaded_mainloop *m_loop = nullptr; // owned; runs the server's thread
    pa_context *m_context = nullptr;        // owned, under the loop's lock
    pa_stream *m_stream = nullptr;          // owned, under the loop's lock
    std::vector<Candidate> *m_listing = nullptr; // filled by onSource while listing
    bool m_listed = false;                  // the listing ended; under the loop's lock
    int m_rate = 0;                         // Hz, the source's own
    int m_channels = 0;                     // the source's own
    double m_settledSince = -1;             // steady s since the latency reads settled; -1: not
    bool m_suspended = false;               // the source was suspended at the last read

    // The server's thread tells the reader that something happened (sound, a state change).
    std::mutex m_wakeMutex;
    std::condition_variable m_woken;
    bool m_wakeUp = false; // set under m_wakeMutex, cleared by the reader
};

#endif // PULSESOURCE_H
