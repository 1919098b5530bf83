#ifndef FFMPEGLOG_H
#define FFMPEGLOG_H

#include <QLoggingCategory>

// The category FFmpeg's and its encoders' log goes to: "kwrecorder.ffmpeg", warnings and
// errors by default. A host shows more with Qt's rules, e.g.
// QT_LOGGING_RULES="kwrecorder.ffmpeg.info=true" (or "kwrecorder.ffmpeg=true" for all).
// Any thread; the category lives until the process ends.
const QLoggingCategory &lcFfmpeg();

namespace ffmpeglog {

// Any thread. Sends FFmpeg's log through Qt's logging under lcFfmpeg() (installed once per
// process) and sets FFmpeg's log level to what the category has enabled now. Called where
// the library starts using FFmpeg, and again before each encoder opens: libx264 takes its
// own level from FFmpeg's when it opens.
void route();

} // namespace ffmpeglog

#endif // FFMPEGLOG_H
