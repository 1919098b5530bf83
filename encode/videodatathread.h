#ifndef VIDEODATATHREAD_H
#define VIDEODATATHREAD_H

#include <QThread>
#include <atomic>
#include <mutex>
#include <opencv2/core/mat.hpp>

#include "media/threadexit.h"

class FFmpegEncode;

// Hands the newest camera frame to the encoder once per frame period, scaled to the
// recording size. The session thread calls every public operation.
class VideoDataThread : public QThread
{
    Q_OBJECT
public:
    explicit VideoDataThread(QObject *parent = nullptr);
    // Stops and waits for the thread.
    ~VideoDataThread() override;

    void setData(cv::Mat &frame);      // copies the frame into the slot
    void start(FFmpegEncode *encoder); // null: does nothing
    void stop();                       // does not wait
    bool isReady() const { return ready.load(std::memory_order_acquire); }
    void setPause(bool on) { pause.store(on, std::memory_order_relaxed); }

    // Frame period in microseconds for a frame rate: the longest the feeder sleeps.
    static unsigned int frameInterval(unsigned int fps);

protected:
    void run() override;

private:
    void feed();
    bool handOver(int width, int height, int copies);

    std::atomic<bool> ready{false};    // run() has begun and not yet returned
    std::atomic<bool> running{false};  // keep looping
    std::atomic<bool> pause{false};    // hand nothing over
    std::mutex frameMutex;               // guards currentFrame; taken before the encoder's queue lock
    cv::Mat currentFrame;              // newest frame, a private copy
    FFmpegEncode *encoder = nullptr;   // not owned
    ThreadExit exit;                   // joins run() visibly to the sanitizer
};

#endif // VIDEODATATHREAD_H
