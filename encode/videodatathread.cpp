#include "videodatathread.h"

#include <QDebug>
#include <algorithm>
#include <stdexcept>

#include "ffmpegencode.h"
#include "frameschedule.h"
#include "media/logcategories.h"

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

bool VideoDataThread::likelyTaken(std::chrono::steady_clock::time_point given)
{
    const auto interval = given - lastGiven;
    lastGiven = given;
    const int64_t dueNs = nextDueNs.load(std::memory_order_relaxed);
    if (dueNs == 0 || interval <= interval.zero())
        return true;
    // The pass takes the newest frame: this one, unless the next comes first, about one
    // interval on. A wrong guess costs a copy or a conversion, never a picture.
    return given + interval >= std::chrono::steady_clock::time_point(std::chrono::nanoseconds(dueNs));
}

void VideoDataThread::setData(cv::Mat &frame)
{
    const auto given = std::chrono::steady_clock::now();
    // Outside the lock, so that the feeder never waits for it. The picture likely encoded
    // is converted straight from the host's buffer; one passed over costs a copy.
    GivenFrame fresh;
    const bool taken = likelyTaken(given);
    if (taken && encoder && encoder->width() > 0 && encoder->height() > 0)
        fresh.picture.converted = givenConverter.convert(frame, static_cast<int>(encoder->width()),
                                                         static_cast<int>(encoder->height()));
    if (!fresh.picture.converted) {
        std::swap(fresh.picture.frame, spareCopy);
        frame.copyTo(fresh.picture.frame); // reuses the spare's buffer when the size fits
    }
    {
        std::lock_guard<std::mutex> lock(frameMutex);
        std::swap(slot.previous, slot.current);
        std::swap(slot.current, fresh);
        slot.current.serial = ++frameSerial;
        slot.current.given = given;
        // A copy the feeder's pass does not hold is nobody's but this thread's: kept for reuse.
        if (!fresh.picture.frame.empty()
            && (slot.feederHoldsFrom == 0 || fresh.serial < slot.feederHoldsFrom))
            std::swap(spareCopy, fresh.picture.frame);
    }
    // Anything else of the slot's frame before last is let go here, outside the lock.
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
    // Nothing may leave a worker thread (OpenCV and allocations throw): the encoder
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

// The picture converted for the encoder: as setData made it, or made here once per camera
// frame from a copy. One that cannot be converted ends the recording with the reason.
EncoderPicture VideoDataThread::atTargetSize(const GivenFrame &g, int width, int height)
{
    if (g.picture.converted)
        return g.picture.converted;
    if (!scaledPicture || scaledSerial != g.serial) {
        scaledPicture = feederConverter.convert(g.picture.frame, width, height);
        if (!scaledPicture)
            throw std::runtime_error("a camera picture could not be converted for the encoder");
        scaledSerial = g.serial;
    }
    return scaledPicture;
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
        slot.feederHoldsFrom = previous.serial ? previous.serial : current.serial;
    }
    // The copies are let go before setData may reuse their buffers, however the pass ends.
    struct Release {
        VideoDataThread &self;
        GivenFrame &current, &previous;
        ~Release()
        {
            current = GivenFrame();
            previous = GivenFrame();
            std::lock_guard<std::mutex> lock(self.frameMutex);
            self.slot.feederHoldsFrom = 0;
        }
    } release{*this, current, previous};
    // An empty slot has nothing to scale: the pass hands nothing over.
    if (current.picture.empty())
        return false;
    const int copies = schedule.takenCount();
    const int64_t pts = schedule.takenPts();
    // A picture stands for the frames due from half a period before it came: nearer to
    // them than the one before it. Frames [0, beforePrevious) are too early for the
    // previous picture, frames [beforePrevious, beforeCurrent) for the current one.
    const auto halfPeriod = std::chrono::nanoseconds(500000000LL / schedule.fps());
    const int beforeCurrent = std::min(schedule.takenDueBefore(current.given - halfPeriod), copies);
    const int beforePrevious = previous.picture.empty()
        ? beforeCurrent
        : std::min(schedule.takenDueBefore(previous.given - halfPeriod), beforeCurrent);
    int handed = 0;
    const auto handUpTo = [&](const EncoderPicture &picture, int upTo) {
        if (upTo > handed) {
            encoder->addVideoConverted(picture, upTo - handed, pts + handed);
            lastHanded = picture;
            handed = upTo;
        }
    };
    // Before any picture came (the recording's first frames) the first one stands in.
    if (lastHanded)
        handUpTo(lastHanded, beforePrevious);
    if (!previous.picture.empty())
        handUpTo(atTargetSize(previous, width, height), beforeCurrent);
    handUpTo(atTargetSize(current, width, height), copies);
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
        nextDueNs.store(std::chrono::duration_cast<std::chrono::nanoseconds>(
                            schedule.nextDue().time_since_epoch()).count(),
                        std::memory_order_relaxed);
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
    scaledPicture.reset();
    lastHanded.reset();
    nextDueNs.store(0, std::memory_order_relaxed);
    qCInfo(lcEncode).noquote() << QStringLiteral("video feeder: %1 frames handed over; %2 frames made up "
                                                 "after stalls, %3 not made up")
                              .arg(handed)
                              .arg(schedule.madeUp())
                              .arg(schedule.notMadeUp());
}
