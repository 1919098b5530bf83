#include "ffmpegapi.h"

#include <chrono>

namespace {

// The file every queued snapshot is written to, by number.
constexpr int kSnapshotNumber = 13;
// Frames the queue holds at most. A host that snaps faster than pictures are encoded
// loses the oldest waiting ones: the newest is what it wants on disk, and memory stays
// bounded whatever the host does.
constexpr int kQueueLimit = 4;
// Longest wait at process exit for queued snapshots to be written, milliseconds.
constexpr int kDrainLimitMs = 10000;

} // namespace

FilterThread::FilterThread() = default;

// Never reached for the instance, which is not destroyed (see instance()).
FilterThread::~FilterThread() = default;

FilterThread *FilterThread::instance()
{
    // Never destroyed, so the thread (which waits for frames forever) never runs on a
    // destroyed object; the queue is written out at exit instead.
    static FilterThread *const _instance = new FilterThread;
    static ExitDrain drainAtExit;
    return _instance;
}

FilterThread::ExitDrain::~ExitDrain()
{
    FilterThread::instance()->drain();
}

void FilterThread::drain()
{
    std::unique_lock<std::mutex> lock(mutex);
    // Bounded: exit never hangs on a writer that is stuck.
    idleCondition.wait_for(lock, std::chrono::milliseconds(kDrainLimitMs),
                           [this] { return imageList.isEmpty() && !bWriting; });
}

void FilterThread::start(cv::Mat img)
{
    // Two first calls at once both reach QThread::start, which starts a thread once.
    if (!bStarted.exchange(true))
        QThread::start(QThread::InheritPriority);
    {
        std::lock_guard<std::mutex> lock(mutex);
        imageList.append(img);
        while (imageList.size() > kQueueLimit) {
            imageList.removeFirst();
            ++droppedFrames;
        }
    }
    waitCondition.notify_one();
}

quint64 FilterThread::dropped()
{
    std::lock_guard<std::mutex> lock(mutex);
    return droppedFrames;
}

// Runs until the process ends: there is no way out, so there is no join either.
void FilterThread::run()
{
    for (;;) {
        cv::Mat frame;
        {
            std::unique_lock<std::mutex> lock(mutex);
            waitCondition.wait(lock, [this] { return !imageList.isEmpty(); });
            frame = imageList.takeFirst();
            bWriting = true;
        }
        saveAsJPEG(frame, kSnapshotNumber);
        frame.release();
        {
            std::lock_guard<std::mutex> lock(mutex);
            bWriting = false;
        }
        idleCondition.notify_all();
    }
}
