#ifndef VIDEODATATHREAD_H
#define VIDEODATATHREAD_H

#include <QThread>
#include <atomic>
#include <condition_variable>
#include <mutex>
#include <opencv2/core/mat.hpp>

#include "media/threadexit.h"

class FFmpegEncode;

// Hands the newest camera frame to the encoder once per frame period, scaled to the
// recording size, each with its place on the timeline. The session thread calls every
// public operation.
class VideoDataThread : public QThread
{
    Q_OBJECT
public:
    explicit VideoDataThread(QObject *parent = nullptr);
    // Stops and waits for the thread.
    ~VideoDataThread() override;

    // Copies the frame into a fresh buffer in the slot: the host may reuse its own, and
    // the encoder's queue may still share the slot's last one.
    void setData(cv::Mat &frame);
    void start(FFmpegEncode *encoder); // null: does nothing
    // Wakes the thread, which hands over what is due up to now and ends; does not wait.
    void stop();
    bool isReady() const { return ready.load(std::memory_order_acquire); }
    // Blocks until the thread runs (true) or `timeout` passed.
    bool waitForReady(std::chrono::milliseconds timeout);
    void setPause(bool on);

protected:
    void run() override;

private:
    void feed();
    bool handOver(int width, int height, int copies, int64_t pts);

    std::atomic<bool> ready{false};    // run() has begun and not yet returned
    std::mutex controlMutex;           // guards the writes of running and pause, for the waits
    std::condition_variable controlCondition; // signalled by start, stop, setPause and ready
    std::atomic<bool> running{false};  // keep looping
    std::atomic<bool> pause{false};    // hand nothing over
    std::chrono::steady_clock::time_point stopAt; // when stop() was called; guarded by controlMutex
    std::mutex frameMutex;             // guards currentFrame and frameSerial
    cv::Mat currentFrame;              // newest frame, a private copy nobody writes again
    uint64_t frameSerial = 0;          // setData calls so far: which frame the slot holds
    // The feeder's own: the slot's frame at the recording size, and the serial it is of.
    cv::Mat scaledFrame;
    uint64_t scaledSerial = 0;
    FFmpegEncode *encoder = nullptr;   // not owned
    ThreadExit exit;                   // joins run() visibly to the sanitizer
};

#endif // VIDEODATATHREAD_H
