#ifndef CAPTURESOURCE_H
#define CAPTURESOURCE_H

#include <QStringList>
#include <atomic>
#include <cstdint>
#include <functional>
#include <vector>

// One way of reaching the camera's microphone: through the sound server, or the raw
// device. The capture thread cuts what a source delivers into blocks and keeps it on the
// steady clock (BlockCutter); a source only finds, opens and reads. Every operation is
// called by one thread at a time: open() by the session thread or, re-opening, the
// capture thread; the others by the capture thread.
class CaptureSource
{
public:
    // What read() found.
    enum class Status {
        Data,    // frames delivered
        Stopped, // the stop request came first
        Gap,     // sound was lost (an overrun); the stream runs again
        Gone,    // the microphone or the server went: it is looked for again
    };
    struct Read {
        Status status = Status::Stopped;
        long frames = 0;      // delivered into the buffer (Data)
        double endTime = 0;   // steady seconds at which the last frame was captured (Data)
    };

    virtual ~CaptureSource() = default;
    // Finds the microphone of the first of `cardNames` (in order) found and opens it, giving up once
    // `stopRequested` answers true. False with a one-line reason in `why`.
    virtual bool open(const QStringList &cardNames, const std::function<bool()> &stopRequested,
                      QString *why) = 0;
    // S16 frames per second and channels, as granted; valid after a successful open().
    virtual int rate() const = 0;
    virtual int channels() const = 0;
    // Starts the stream of an open source; false after a message.
    virtual bool start() = 0;
    // Waits for sound and replaces `buffer` with what came (interleaved S16), at most a
    // short wait at a time so that `run` going false is seen promptly.
    virtual Read read(std::vector<int16_t> &buffer, long maxFrames, const std::atomic<bool> &run) = 0;
    // Closes what open() opened; harmless when nothing is open.
    virtual void close() = 0;
};

#endif // CAPTURESOURCE_H
