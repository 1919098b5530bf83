#ifndef LOADEDRECORDER_H
#define LOADEDRECORDER_H

#include <QObject>
#include <QPluginLoader>
#include <QPointer>
#include <QString>
#include <QThread>
#include <chrono>

#include "plugin/ffmpegplugin.h"
#include "plugin/recordingstatus.h"

// The built plugin as a host holds it: loaded by path with QPluginLoader, cast to the
// recording interface. On destruction it stops any recording, waits for the session
// thread and deletes the instance, so every test starts from a fresh recorder. The
// plugin has one instance: every LoadedRecorder alive at once holds the same one.
class LoadedRecorder
{
public:
    explicit LoadedRecorder(const QString &pluginPath);
    ~LoadedRecorder();
    LoadedRecorder(const LoadedRecorder &) = delete;
    LoadedRecorder &operator=(const LoadedRecorder &) = delete;

    bool loaded() const { return m_recorder != nullptr; }
    QString error() const { return m_error; }
    FFMPEGPlugin *operator->() const { return m_recorder; }
    QThread *thread() const { return qobject_cast<QThread *>(m_instance); }
    // The status through the optional interface, as a host reaches it; a default status
    // (state Idle) when the instance does not have it.
    RecordingStatus status() const
    {
        const auto *s = qobject_cast<FFMPEGPluginStatus *>(m_instance.data());
        return s ? s->recordingStatus() : RecordingStatus{};
    }

    // stopRecord, then polls until isRecording() is false and the session thread has
    // returned; false when that took longer than `timeout`.
    bool stopAndWait(std::chrono::milliseconds timeout = std::chrono::seconds(30));
    // Polls until the session thread has returned.
    bool waitSessionEnd(std::chrono::milliseconds timeout = std::chrono::seconds(30));

private:
    QPluginLoader m_loader;
    QPointer<QObject> m_instance; // the plugin's one instance; null once someone deleted it
    FFMPEGPlugin *m_recorder = nullptr;
    QString m_error;
};

#endif // LOADEDRECORDER_H
