// Queues two snapshots, a blue and a red one, and returns from main at once: the process
// must end with status 0, both written in order, with no crash, hang or sanitizer report.
#include "media/ffmpegapi.h"

int main()
{
    FilterThread::instance()->start(cv::Mat(120, 160, CV_8UC3, cv::Scalar(255, 0, 0)));
    FilterThread::instance()->start(cv::Mat(120, 160, CV_8UC3, cv::Scalar(0, 0, 255)));
    return 0;
}
