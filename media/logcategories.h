#ifndef LOGCATEGORIES_H
#define LOGCATEGORIES_H

#include <QLoggingCategory>

// The library's own messages, one category per part, all levels but debug shown by
// default; a host filters them with Qt's rules (QT_LOGGING_RULES="kwrecorder.media=false").
// Lines whose words and stream are fixed for hosts that read them stay where they are.
// FFmpeg's own log has its category beside its router (ffmpeglog.h).
// Any thread; each category lives until the process ends (threads still log at exit).
const QLoggingCategory &lcMedia();  // "kwrecorder.media": the writers, files, conversion
const QLoggingCategory &lcEncode(); // "kwrecorder.encode": the encoder and its queues
const QLoggingCategory &lcPlugin(); // "kwrecorder.plugin": the recorder and its sessions
const QLoggingCategory &lcAudio();  // "kwrecorder.audio": the microphone's capture

#endif // LOGCATEGORIES_H
