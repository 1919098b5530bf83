#ifndef THREADEXIT_H
#define THREADEXIT_H

#include <QThread>
#include <atomic>

// QThread::wait() synchronises through Qt's own locks, which the thread sanitizer
// cannot see (Qt is not instrumented), so it would report the owner's teardown as
// racing with the worker's last writes. A worker calls markReturned() as the last
// statement of run(); its owner joins with join(), which adds the visible edge.
// (For the same reason shared state in this project sits behind std::mutex and
// std::condition_variable rather than QMutex and QWaitCondition.)
class ThreadExit
{
public:
    // Worker thread, last statement of run().
    void markReturned() { m_returned.store(true, std::memory_order_release); }
    // Owner thread: blocks until the thread has returned (at once if never started).
    void join(QThread *thread)
    {
        thread->wait();
        (void)m_returned.load(std::memory_order_acquire);
    }
    // Owner thread, before starting the thread again.
    void reset() { m_returned.store(false, std::memory_order_relaxed); }

private:
    std::atomic<bool> m_returned{false}; // run() has returned
};

#endif // THREADEXIT_H
