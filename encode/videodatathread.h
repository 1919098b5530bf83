#ifndef VIDEODATATHREAD_H
#define VIDEODATATHREAD_H

#include <QThread>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <mutex>
#include <opencv2/core/mat.hpp>

#include "media/frameconverter.h"
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

    // Takes the frame into the slot before returning (the host may write its buffer again):
    // converted for the encoder into a pooled buffer when the feeder's next pass will
    // likely take it, else copied into a reused buffer, converted only if a pass takes it.
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
    // A picture the host gave: converted for the encoder, or else a private copy of the
    // host's frame that only the session thread writes again, once nobody else holds it.
    struct Picture {
        cv::Mat frame;
        EncoderPicture converted;
        bool empty() const { return !converted && frame.empty(); }
    };
    // The session thread's guess whether the feeder's next pass takes a frame given now.
    bool likelyTaken(std::chrono::steady_clock::time_point given);
    // A picture the host gave, and when.
    struct GivenFrame {
        Picture picture;
        uint64_t serial = 0; // setData calls up to this one
        std::chrono::steady_clock::time_point given;
    };
    bool handOver(int width, int height, const FrameSchedule &schedule);
    EncoderPicture atTargetSize(const GivenFrame &g, int width, int height);

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
        uint64_t feederHoldsFrom = 0;  // the oldest serial a feeder's pass holds copies of; 0: none
    } slot;
    uint64_t frameSerial = 0;          // setData calls so far
    // Steady clock, ns since its epoch: when the feeder's next pass is due; 0 before its first.
    std::atomic<int64_t> nextDueNs{0};
    // The session thread's own: its converter, when the last frame came, and a copy buffer
    // to reuse.
    FrameConverter givenConverter;
    std::chrono::steady_clock::time_point lastGiven;
    cv::Mat spareCopy;
    // The feeder's own: the converter of copies, its last picture and the serial it is of,
    // and the picture it handed over last.
    FrameConverter feederConverter;
    EncoderPicture scaledPicture;
    uint64_t scaledSerial = 0;
    EncoderPicture lastHanded;
    FFmpegEncode *encoder = nullptr;   // not owned
    ThreadExit exit;                   // joins run() visibly to the sanitizer
};

#endif // VIDEODATATHREAD_H
