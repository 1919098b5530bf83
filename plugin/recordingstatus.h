#ifndef RECORDINGSTATUS_H
#define RECORDINGSTATUS_H

#include <QString>
#include <QtPlugin>

// 1.1 added waitForRecordEnd after recordingStatus; the plugin still answers a host built
// for 1.0, whose one slot comes first in the same place.
#define FFMPEGPluginStatus_iid "com.kw.ffmpegplugin.status/1.1"

// What the current recording (or the last one, once it has ended) has done so far.
struct RecordingStatus {
    enum class State {
        Idle,       // no recording has been asked for yet
        Starting,   // asked for; the output is being opened
        Recording,
        Paused,
        Finishing,  // stopped; the file is being finished
        Finished,   // ended and its file is complete
        Failed,     // ended by itself (see endReason), or never started
    };
    State state = State::Idle;
    QString file;               // the output path as the host gave it
    bool video = false;         // the file has a picture stream
    bool audio = false;         // the file has a sound stream
    double seconds = 0;         // of media written so far
    qint64 bytes = 0;           // size of the file on the disk
    long framesWritten = 0;     // video frames encoded into the file
    long framesDropped = 0;     // frames dropped because the writer fell behind
    long framesRefused = 0;     // camera frames of a pixel type the recorder cannot take
    long soundLostMs = 0;       // sound that never reached the file (cut, or its microphone lost)
    long soundFilledMs = 0;     // silence written where the microphone gave nothing
    int micLosses = 0;          // times the microphone went (it is looked for until the stop)
    double micLostAt = -1;      // seconds into the recording it last went; -1: never
    double micBackAt = -1;      // seconds into the recording it came back; -1: not since
    // Why the recording ended, as a short sentence ("stopped by the host", "the disk is
    // full", ...); empty while it runs.
    QString endReason;

    static const char *stateName(State s)
    {
        switch (s) {
        case State::Idle: return "idle";
        case State::Starting: return "starting";
        case State::Recording: return "recording";
        case State::Paused: return "paused";
        case State::Finishing: return "finishing";
        case State::Finished: return "finished";
        case State::Failed: return "failed";
        }
        return "unknown";
    }

    // One line for a log or a terminal.
    QString summary() const
    {
        QString line = QStringLiteral("%1: %2, %3%4%5, %6 s, %7 bytes, frames %8 written / %9 dropped / %10 refused, "
                                      "sound %11 ms lost / %12 ms filled")
                           .arg(file, QLatin1String(stateName(state)),
                                QLatin1String(video ? "video" : ""),
                                QLatin1String(video && audio ? "+" : ""),
                                QLatin1String(audio ? "audio" : (video ? "" : "no streams")))
                           .arg(seconds, 0, 'f', 2)
                           .arg(bytes)
                           .arg(framesWritten)
                           .arg(framesDropped)
                           .arg(framesRefused)
                           .arg(soundLostMs)
                           .arg(soundFilledMs);
        if (micLosses > 0)
            line += micBackAt < 0 ? QStringLiteral("; microphone lost at %1 s").arg(micLostAt, 0, 'f', 1)
                                  : QStringLiteral("; microphone lost at %1 s, back at %2 s")
                                        .arg(micLostAt, 0, 'f', 1)
                                        .arg(micBackAt, 0, 'f', 1);
        if (!endReason.isEmpty())
            line += QStringLiteral("; ended: ") + endReason;
        return line;
    }
};

// The optional status interface of the recording plugin, reached from the same instance
// with qobject_cast<FFMPEGPluginStatus *>. A host that does not know it keeps working
// through FFMPEGPlugin alone.
class FFMPEGPluginStatus
{
public:
    // Any thread, at any time; a copy taken at once, never waiting for the recording.
    virtual RecordingStatus recordingStatus() const = 0;
    // Any host thread but the frame source's calls. Waits until no recording is requested
    // and the last one has ended (its file finished, endUse called); msecs < 0 waits
    // without a limit. True when it has ended, false when msecs passed first. A recording
    // still wanted ends only by a stopRecord from another thread or by itself.
    virtual bool waitForRecordEnd(int msecs) = 0;

protected:
    ~FFMPEGPluginStatus() = default;
};

Q_DECLARE_INTERFACE(FFMPEGPluginStatus, FFMPEGPluginStatus_iid)

#endif // RECORDINGSTATUS_H
