#include "ffmpeglog.h"

#include <algorithm>
#include <cstdarg>
#include <cstring>
#include <mutex>

extern "C" {
#include <libavutil/log.h>
}

namespace {

// Longest line passed on, in bytes; longer ones are cut (FFmpeg's own log does the same).
constexpr int kLineSize = 1024;

// One thread's line in the making: FFmpeg delivers lines in pieces. Plain data, so that
// it is never destroyed while a thread on its way out (the snapshot writer at process
// exit) still logs.
struct PendingLine {
    char text[kLineSize];  // the pieces so far, without a terminating newline
    int length;            // bytes in text
    int level;             // AV_LOG_* of the line's first piece
    int printPrefix;       // av_log_format_line2's state: 1 when the next piece starts a line
};

thread_local PendingLine t_line{{}, 0, AV_LOG_INFO, 1};

// AV_LOG_* levels to Qt's message types: verbose, debug and trace are all Qt's debug.
void emitLine(int level, const char *text)
{
    if (level <= AV_LOG_ERROR)
        qCCritical(lcFfmpeg, "%s", text);
    else if (level <= AV_LOG_WARNING)
        qCWarning(lcFfmpeg, "%s", text);
    else if (level <= AV_LOG_INFO)
        qCInfo(lcFfmpeg, "%s", text);
    else
        qCDebug(lcFfmpeg, "%s", text);
}

// Passes on every whole line in t_line, and the rest too when the buffer is full.
void emitWholeLines()
{
    PendingLine &line = t_line;
    for (;;) {
        char *end = static_cast<char *>(std::memchr(line.text, '\n', line.length));
        if (!end && line.length < kLineSize - 1)
            return;
        const int used = end ? int(end - line.text) + 1 : line.length;
        const int textLength = end ? used - 1 : used;
        line.text[textLength] = '\0';
        if (textLength > 0)
            emitLine(line.level, line.text);
        std::memmove(line.text, line.text + used, size_t(line.length - used));
        line.length -= used;
    }
}

// FFmpeg's log callback: any thread, any time.
void logCallback(void *avcl, int level, const char *fmt, va_list vl)
{
    if (level >= 0)
        level &= 0xff; // drops the colour hint FFmpeg may carry in the upper bits
    if (level > av_log_get_level())
        return;
    PendingLine &line = t_line;
    if (line.length == 0)
        line.level = level;
    char piece[kLineSize] = {0};
    av_log_format_line2(avcl, level, fmt, vl, piece, sizeof piece, &line.printPrefix);
    const int room = kLineSize - 1 - line.length;
    const int n = std::min(int(std::strlen(piece)), room);
    std::memcpy(line.text + line.length, piece, size_t(n));
    line.length += n;
    emitWholeLines();
}

// FFmpeg's level for what the category shows: libx264 picks its own from it.
int levelFor(const QLoggingCategory &category)
{
    if (category.isDebugEnabled())
        return AV_LOG_DEBUG;
    if (category.isInfoEnabled())
        return AV_LOG_INFO;
    if (category.isWarningEnabled())
        return AV_LOG_WARNING;
    if (category.isCriticalEnabled())
        return AV_LOG_ERROR;
    return AV_LOG_QUIET;
}

} // namespace

const QLoggingCategory &lcFfmpeg()
{
    // Never destroyed: FFmpeg may still log from a thread writing at process exit.
    static const QLoggingCategory *const category =
        new QLoggingCategory("kwrecorder.ffmpeg", QtWarningMsg);
    return *category;
}

namespace ffmpeglog {

void route()
{
    static std::once_flag installed;
    std::call_once(installed, [] { av_log_set_callback(logCallback); });
    // Written only on a change: encoder threads read the level while they run.
    const int wanted = levelFor(lcFfmpeg());
    if (av_log_get_level() != wanted)
        av_log_set_level(wanted);
}

} // namespace ffmpeglog
