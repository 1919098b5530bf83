#include "loadedrecorder.h"

#include "testutil.h"

LoadedRecorder::LoadedRecorder(const QString &pluginPath)
    : m_loader(pluginPath)
{
    m_instance = m_loader.instance();
    if (!m_instance) {
        m_error = m_loader.errorString();
        return;
    }
    m_recorder = qobject_cast<FFMPEGPlugin *>(m_instance);
    if (!m_recorder)
        m_error = QStringLiteral("the instance is not an FFMPEGPlugin");
}

LoadedRecorder::~LoadedRecorder()
{
    if (!m_instance)
        return; // never loaded, or deleted by its other holder
    stopAndWait();
    delete m_instance.data();
}

bool LoadedRecorder::waitSessionEnd(std::chrono::milliseconds timeout)
{
    QThread *t = thread();
    const bool ended =
        testutil::pollUntil([&] { return !t || t->isFinished() || !t->isRunning(); }, timeout);
    // The session's last act is under the recorder's lock; taking it here lets the thread
    // sanitizer see the session's end, which it cannot see through Qt's own thread state.
    if (ended && t && m_recorder)
        (void)m_recorder->filename();
    return ended;
}

bool LoadedRecorder::stopAndWait(std::chrono::milliseconds timeout)
{
    if (!m_recorder || !m_instance)
        return false;
    m_recorder->stopRecord();
    const bool stopped = testutil::pollUntil([&] { return !m_recorder->isRecording(); }, timeout);
    return waitSessionEnd(timeout) && stopped;
}
