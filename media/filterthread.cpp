#include "snapshotthread.h"

#include <QList>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <mutex>

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

struct FilterThread::Queue {
    std::atomic<bool> bStarted{false};  // the thread has been started
    std::mutex mutex;                   // guards imageList, bWriting and droppedFrames
    std::condition_variable waitCondition; // one wake per queued frame
    std::condition_variable idleCondition; // woken when a frame has been written
    QList<cv::Mat> imageList;           // frames waiting to be written, oldest first
    bool bWriting = false;              // a frame taken from imageList is being written
    quint64 droppedFrames = 0;          // frames removed unwritten to keep the bound

    // Blocks until the queue is written out, or kDrainLimitMs passed.
    void drain();
};

namespace {

// Waits for the queue at process exit, while everything the writer uses still exists.
struct ExitDrain {
    FilterThread::Queue *queue;
    ~ExitDrain() { queue->drain(); }
};

} // namespace

FilterThread::FilterThread()
    : d(std::make_unique<Queue>())
{
}

// Never reached for the instance, which is not destroyed (see instance()).
FilterThread::~FilterThread() = default;

FilterThread *FilterThread::instance()
{
    // Never destroyed, so the thread (which waits for frames forever) never runs on a
    // destroyed object; the queue is written out at exit instead.
    static FilterThread *const _instance = new FilterThread;
    static ExitDrain drainAtExit{_instance->d.get()};
    return _instance;
}

void FilterThread::Queue::drain()
{
    std::unique_lock<std::mutex> lock(mutex);
    // Bounded: exit never hangs on a writer that is stuck.
    idleCondition.wait_for(lock, std::chrono::milliseconds(kDrainLimitMs),
                           [this] { return imageList.isEmpty() && !bWriting; });
}

void FilterThread::start(cv::Mat img)
{
    // Two first calls at once both reach QThread::start, which starts a thread once.
    if (!d->bStarted.exchange(true))
        QThread::start(QThread::InheritPriority);
    {
        std::lock_guard<std::mutex> lock(d->mutex);
        d->imageList.append(img);
        while (d->imageList.size() > kQueueLimit) {
            d->imageList.removeFirst();
            ++d->droppedFrames;
        }
    }
    d->waitCondition.notify_one();
}

quint64 FilterThread::dropped()
{
    std::lock_guard<std::mutex> lock(d->mutex);
    return d->droppedFrames;
}

// Runs until the process ends: there is no way out, so there is no join either.
void FilterThread::run()
{
    for (;;) {
        cv::Mat frame;
        {
            std::unique_lock<std::mutex> lock(d->mutex);
            d->waitCondition.wait(lock, [this] { return !d->imageList.isEmpty(); });
            frame = d->imageList.takeFirst();
            d->bWriting = true;
        }
        saveAsJPEG(frame, kSnapshotNumber);
        frame.release();
        {
            std::lock_guard<std::mutex> lock(d->mutex);
            d->bWriting = false;
        }
        d->idleCondition.notify_all();
    }
}
