#include "videodatathread.h"

#include <QDebug>
#include <algorithm>
#include <opencv2/imgproc.hpp>

#include "ffmpegencode.h"
#include "frameschedule.h"

namespace {

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

void VideoDataThread::setData(cv::Mat &frame)
{
    const auto given = std::chrono::steady_clock::now();
    // Copied outside the lock, so that the feeder never waits for it.
    cv::Mat fresh;
    frame.copyTo(fresh);
    {
        std::lock_guard<std::mutex> lock(frameMutex);
        std::swap(slot.previous, slot.current);
        std::swap(slot.current.frame, fresh);
        slot.current.serial = ++frameSerial;
        slot.current.given = given;
    }
    // The slot's frame before last is let go here, outside the lock (freed unless queued).
}

void VideoDataThread::start(FFmpegEncode *encoder)
{
    if (!encoder)
        return;
    this->encoder = encoder;
    {
        std::lock_guard<std::mutex> lock(controlMutex);
        running.store(true);
    }
    exit.reset();
    QThread::start(QThread::InheritPriority);
}

void VideoDataThread::stop()
{
    {
        std::lock_guard<std::mutex> lock(controlMutex);
        if (running.load())
            stopAt = std::chrono::steady_clock::now();
        running.store(false);
    }
    controlCondition.notify_all();
}

void VideoDataThread::setPause(bool on)
{
    if (pause.load() == on)
        return;
    {
        std::lock_guard<std::mutex> lock(controlMutex);
        pause.store(on);
    }
    controlCondition.notify_all();
}

bool VideoDataThread::waitForReady(std::chrono::milliseconds timeout)
{
    std::unique_lock<std::mutex> lock(controlMutex);
    return controlCondition.wait_for(lock, timeout, [&] { return isReady() || !running; })
        && isReady();
}

void VideoDataThread::run()
{
    {
        std::lock_guard<std::mutex> lock(controlMutex);
        ready.store(true, std::memory_order_release);
    }
    controlCondition.notify_all();
    // Nothing may leave a worker thread (cv::resize and allocations throw): the encoder
    // ends the recording with the reason.
    try {
        feed();
    } catch (const std::exception &e) {
        encoder->fail(QStringLiteral("an internal error: %1").arg(QString::fromUtf8(e.what())));
    } catch (...) {
        encoder->fail(QStringLiteral("an internal error"));
    }
    ready.store(false, std::memory_order_release);
    exit.markReturned();
}

// The picture at the target size: the frame itself, or its scaled copy, made once per
// camera frame (a new buffer each time: the queue may still share the last one).
cv::Mat VideoDataThread::atTargetSize(const GivenFrame &g, int width, int height)
{
    if (g.frame.rows == height && g.frame.cols == width)
        return g.frame;
    if (scaledFrame.empty() || scaledSerial != g.serial) {
        cv::Mat scaled(height, width, g.frame.type());
        cv::resize(g.frame, scaled, cv::Size(width, height), 0, 0, cv::INTER_NEAREST);
        scaledFrame = scaled;
        scaledSerial = g.serial;
    }
    return scaledFrame;
}

// Hands over the frames the schedule's last take() made due, at the target size; false
// when the slot was empty. Each frame gets the picture the camera gave nearest its due
// time: a late pass must not show a picture long before it existed.
bool VideoDataThread::handOver(int width, int height, const FrameSchedule &schedule)
{
    GivenFrame current, previous;
    {
        std::lock_guard<std::mutex> lock(frameMutex);
        current = slot.current;
        previous = slot.previous;
    }
    // An empty slot has nothing to scale: the pass hands nothing over.
    if (current.frame.empty())
        return false;
    const int copies = schedule.takenCount();
    const int64_t pts = schedule.takenPts();
    // A picture stands for the frames due from half a period before it came: nearer to
    // them than the one before it. Frames [0, beforePrevious) are too early for the
    // previous picture, frames [beforePrevious, beforeCurrent) for the current one.
    const auto halfPeriod = std::chrono::nanoseconds(500000000LL / schedule.fps());
    const int beforeCurrent = std::min(schedule.takenDueBefore(current.given - halfPeriod), copies);
    const int beforePrevious = previous.frame.empty()
        ? beforeCurrent
        : std::min(schedule.takenDueBefore(previous.given - halfPeriod), beforeCurrent);
    int handed = 0;
    const auto hand = [&](const cv::Mat &picture, int upTo) {
        if (upTo > handed) {
            encoder->addVideoShared(picture, upTo - handed, pts + handed);
            lastHanded = picture;
            handed = upTo;
        }
    };
    // Before any picture came (the recording's first frames) the first one stands in.
    if (!lastHanded.empty())
        hand(lastHanded, beforePrevious);
    if (!previous.frame.empty())
        hand(atTargetSize(previous, width, height), beforeCurrent);
    hand(atTargetSize(current, width, height), copies);
    return true;
}

void VideoDataThread::feed()
{
    // Frames are due on a steady-clock schedule, not after sleeps that add up: the
    // picture keeps pace with the sound, whose samples arrive at the card's own rate.
    FrameSchedule schedule(encoder->fps());
    const int width = static_cast<int>(encoder->width());
    const int height = static_cast<int>(encoder->height());
    // A size the encoder cannot have would make every scaling fail: feed nothing.
    const bool sizeOk = width > 0 && height > 0;
    bool inRun = false; // a run of passes is under way (not paused)
    long handed = 0;    // frames handed over
    FrameSchedule::Clock::time_point firstRunStart = encoder->timelineOrigin();
    std::unique_lock<std::mutex> lock(controlMutex);
    // Starts a run of passes at `now` (the first at the recording's origin, where the
    // sound is placed too).
    const auto beginRun = [&](FrameSchedule::Clock::time_point now) {
        const bool useOrigin = firstRunStart.time_since_epoch().count() != 0 && firstRunStart <= now;
        schedule.restart(useOrigin ? firstRunStart : now);
        firstRunStart = {};
        inRun = true;
    };
    while (running.load()) {
        if (pause.load() || !sizeOk) {
            // Paused time is neither recorded nor made up: resuming starts a new run.
            inRun = false;
            controlCondition.wait(lock, [&] { return !running.load() || (!pause.load() && sizeOk); });
            continue;
        }
        lock.unlock();
        const auto now = FrameSchedule::Clock::now();
        if (!inRun)
            beginRun(now);
        const int due = schedule.take(now);
        if (due > 0 && handOver(width, height, schedule))
            handed += due;
        const auto wake = std::max(schedule.nextDue(),
                                   FrameSchedule::Clock::now() + kMinRestBetweenPasses);
        lock.lock();
        controlCondition.wait_until(lock, wake, [&] { return !running.load() || pause.load(); });
    }
    const auto stoppedAt = stopAt;
    lock.unlock();
    // The picture runs up to the stop, as the sound does, however late this thread got
    // to see it (or to run at all): what was due by then is handed over.
    if (sizeOk && !pause.load() && stoppedAt.time_since_epoch().count() != 0) {
        if (!inRun)
            beginRun(stoppedAt);
        const int due = schedule.take(stoppedAt);
        if (due > 0 && handOver(width, height, schedule))
            handed += due;
    }
    scaledFrame.release();
    lastHanded.release();
    qDebug().noquote() << QStringLiteral("video feeder: %1 frames handed over; %2 frames made up "
                                         "after stalls, %3 not made up")
                              .arg(handed)
                              .arg(schedule.madeUp())
                              .arg(schedule.notMadeUp());
}
