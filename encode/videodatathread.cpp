#include "videodatathread.h"

#include <QDebug>
#include <algorithm>
#include <opencv2/imgproc.hpp>
#include <thread>

#include "ffmpegencode.h"
#include "frameschedule.h"

namespace {

// The period for fps 0, and the margin taken off every period, in microseconds.
constexpr unsigned int kZeroFpsIntervalUs = 99990;
constexpr unsigned int kIntervalMarginUs = 10;
// Shortest period: frame rates beyond camera rates must not turn the feeder into a spin.
constexpr unsigned int kMinIntervalUs = 1000;
// A feeder behind its schedule still rests this long between passes: the session thread
// waiting to put the next frame in the slot gets the lock instead of starving.
constexpr std::chrono::milliseconds kMinRestBetweenPasses{1};

} // namespace

VideoDataThread::VideoDataThread(QObject *parent)
    : QThread(parent)
{
}

VideoDataThread::~VideoDataThread()
{
    stop();
    exit.join(this);
}

unsigned int VideoDataThread::frameInterval(unsigned int fps)
{
    if (fps == 0)
        return kZeroFpsIntervalUs;
    const unsigned int perFrame = 1000000u / fps;
    // Above 100000 fps (or a negative rate seen as unsigned) the formula has no positive
    // value: hold the period at a floor instead.
    if (perFrame <= kIntervalMarginUs + kMinIntervalUs)
        return kMinIntervalUs;
    return perFrame - kIntervalMarginUs;
}

void VideoDataThread::setData(cv::Mat &frame)
{
    std::lock_guard<std::mutex> lock(frameMutex);
    frame.copyTo(currentFrame);
}

void VideoDataThread::start(FFmpegEncode *encoder)
{
    if (!encoder)
        return;
    this->encoder = encoder;
    running.store(true);
    exit.reset();
    QThread::start(QThread::InheritPriority);
}

void VideoDataThread::stop()
{
    running.store(false);
}

void VideoDataThread::run()
{
    ready.store(true, std::memory_order_release);
    feed();
    ready.store(false, std::memory_order_release);
    exit.markReturned();
}

// Hands the slot's frame to the encoder `copies` times at the target size (scaled once);
// false when the slot was empty.
bool VideoDataThread::handOver(int width, int height, int copies)
{
    std::lock_guard<std::mutex> lock(frameMutex);
    // An empty slot has nothing to scale: the pass hands nothing over.
    if (currentFrame.empty())
        return false;
    if (currentFrame.rows == height && currentFrame.cols == width) {
        encoder->addVideo(currentFrame, copies);
        return true;
    }
    cv::Mat scaled(height, width, currentFrame.type());
    cv::resize(currentFrame, scaled, cv::Size(width, height), 0, 0, cv::INTER_NEAREST);
    encoder->addVideo(scaled, copies);
    return true;
}

void VideoDataThread::feed()
{
    // Frames are due on a steady-clock schedule, not after sleeps that add up: the
    // picture keeps pace with the sound, whose samples arrive at the card's own rate.
    FrameSchedule schedule(encoder->fps());
    const auto period = std::chrono::microseconds(frameInterval(encoder->fps()));
    const int width = static_cast<int>(encoder->width());
    const int height = static_cast<int>(encoder->height());
    // A size the encoder cannot have would make every scaling fail: feed nothing.
    const bool sizeOk = width > 0 && height > 0;
    bool inRun = false; // a run of passes is under way (not paused)
    long handed = 0;    // frames handed over
    while (running.load()) {
        if (pause.load() || !sizeOk) {
            // Paused time is neither recorded nor made up: resuming starts a new run.
            inRun = false;
            std::this_thread::sleep_for(period);
            continue;
        }
        const auto now = FrameSchedule::Clock::now();
        if (!inRun) {
            schedule.restart(now);
            inRun = true;
        }
        const int due = schedule.take(now);
        if (due > 0 && handOver(width, height, due))
            handed += due;
        const auto wake = std::min(schedule.nextDue(), now + period);
        std::this_thread::sleep_until(
            std::max(wake, FrameSchedule::Clock::now() + kMinRestBetweenPasses));
    }
    qDebug().noquote() << QStringLiteral("video feeder: %1 frames handed over; %2 frames made up "
                                         "after stalls, %3 not made up")
                              .arg(handed)
                              .arg(schedule.madeUp())
                              .arg(schedule.notMadeUp());
}
