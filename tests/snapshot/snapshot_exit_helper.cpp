// Queues a snapshot and returns from main at once: the process must end with status 0,
// with the snapshot written, no crash, hang or sanitizer report.
#include <opencv2/core.hpp>

#include "media/ffmpegapi.h"

int main()
{
    cv::Mat img(120, 160, CV_8UC3, cv::Scalar(0, 128, 255));
    FilterThread::instance()->start(img);
    return 0;
}
