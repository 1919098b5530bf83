#ifndef JPEGSNAPSHOT_H
#define JPEGSNAPSHOT_H

#include <opencv2/core/mat.hpp>

#include "kwrecorderexport.h"

// The JPEG snapshot writers: one 8-bit BGR picture to /tmp under a fixed name, with a
// drawing laid over it. The picture is written to a fresh file and renamed over the name,
// so a reader never sees half a picture, and nothing is published when a step failed.
namespace jpegsnapshot {

// Any thread. Writes /tmp/aaIMG_<n>.jpg with a text drawn on it (FFmpegApi::SaveAsJPEG).
// 0, or negative after a message.
KWRECORDER_EXPORT int withText(cv::Mat img, int n);
// Any thread. Writes /tmp/IMG_<n>.jpg with cur_use_logo.png of the working directory laid
// over it (FilterThread::saveAsJPEG). 0, or negative after a message.
KWRECORDER_EXPORT int withLogo(cv::Mat img, int n);

} // namespace jpegsnapshot

#endif // JPEGSNAPSHOT_H
