#ifndef SNAPSHOTTHREAD_H
#define SNAPSHOTTHREAD_H

#include <QThread>
#include <memory>
#include <opencv2/core/mat.hpp>

#include "jpegsnapshot.h"
#include "kwrecorderexport.h"

// The process-wide snapshot thread: frames queued from any thread are written to
// /tmp/IMG_13.jpg in the background, in order, the newest few kept when they come faster
// than they are written.
class KWRECORDER_EXPORT FilterThread : public QThread
{
public:
    // Any thread. The instance lives until the process ends.
    static FilterThread *instance();
    // Any thread. Queues one frame (its pixels are shared, not copied); starts the
    // thread on first use. The queue keeps the newest few: older waiting frames make room.
    void start(cv::Mat img);
    // Any thread. Frames dropped from the queue so far to make room for newer ones.
    quint64 dropped();
    // Any thread. Writes /tmp/IMG_<n>.jpg with cur_use_logo.png laid over it.
    int saveAsJPEG(cv::Mat img, int n) { return jpegsnapshot::withLogo(img, n); }
    ~FilterThread() override;

    struct Queue; // the library's own

protected:
    void run() override;

private:
    FilterThread();
    std::unique_ptr<Queue> d; // the frames waiting, behind their lock
};

#endif // SNAPSHOTTHREAD_H
