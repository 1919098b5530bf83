#ifndef VIDEODATATHREAD_H
#define VIDEODATATHREAD_H

#include <QThread>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <mutex>
#include <opencv2/core/mat.hpp>

#include "media/threadexit.h"

class FrameSchedule;

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
    // A picture the host gave, and when.
    struct GivenFrame {
        cv::Mat frame;      // a private copy nobody writes again
        uint64_t serial = 0; // setData calls up to this one
        std::chrono::steady_clock::time_point given;
    };
    bool handOver(int width, int height, const FrameSchedule &schedule);
    cv::Mat atTargetSize(const GivenFrame &g, int width, int height);

    std::atomic<bool> ready{false};    // run() has begun and not yet returned
    std::mutex controlMutex;           // guards the writes of running and pause, for the waits
    std::condition_variable controlCondition; // signalled by start, stop, setPause and ready
    std::atomic<bool> running{false};  // keep looping
    std::atomic<bool> pause{false};    // hand nothing over
    std::chrono::steady_clock::time_point stopAt; // when stop() was called; guarded by controlMutex
    std::mutex frameMutex;             // guards slot and frameSerial
    struct {
        GivenFrame current;            // the newest picture
        GivenFrame previous;           // the one before: a late pass may need it
    } slot;
    uint64_t frameSerial = 0;          // setData calls so far
    // The feeder's own: a slot picture at the recording size, and the serial it is of.
    cv::Mat scaledFrame;
    uint64_t scaledSerial = 0;
    cv::Mat lastHanded;                // the feeder's: the picture it handed over last
    FFmpegEncode *encoder = nullptr;   // not owned
    ThreadExit exit;                   // joins run() visibly to the sanitizer
};

#endif // VIDEODATATHREAD_H
