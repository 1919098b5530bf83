#ifndef RECORDTHREAD_P_H
#define RECORDTHREAD_P_H

#include <QString>
#include <atomic>
#include <condition_variable>
#include <mutex>

#include "media/threadexit.h"

class PluginComponent;

// State shared between the host's threads and the session thread. The flags the
// session polls are atomic; `mutex` guards the host-side transitions and the fields
// marked so. The mutex is never held while another lock is taken.
class RecordThreadPrivate
{
public:
    std::atomic<bool> recording{false};     // a session is recording; written by the session
    std::atomic<bool> paused{false};        // pause requested
    std::atomic<bool> runRequested{false};  // a recording is requested; the session loops while set
    std::atomic<bool> hasVideo{true};       // record video
    std::atomic<bool> hasAudio{true};       // record audio; cleared when the microphone fails
    std::atomic<long> recWidth{1024};       // pixels, even
    std::atomic<long> recHeight{768};       // pixels, even
    std::atomic<int> fps{10};               // frames per second
    std::atomic<unsigned int> videoBitrate{500000}; // bits per second
    QString filename = QStringLiteral("out.mp4");   // output path; guarded by mutex
    mutable std::mutex mutex;
    std::condition_variable startCondition;        // woken when a session starts recording or gives up
    std::atomic<PluginComponent *> component{nullptr}; // the host's frame source, not owned

    // Guarded by mutex.
    bool startPending = false;   // a session was launched and has not yet said whether it records
    bool threadActive = false;   // the session thread is running or about to run a session
    bool restartPending = false; // startRecord came while the last session was stopping

    ThreadExit exit;             // joins the session thread visibly to the sanitizer
};

#endif // RECORDTHREAD_P_H
