#ifndef RECORDTHREAD_P_H
#define RECORDTHREAD_P_H

#include <QString>
#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <mutex>
#include <thread>
#include <utility>

#include "media/threadexit.h"
#include "recordingstatus.h"

class PluginComponent;

// What one recording is made with: the host's settings as they stood when it asked for
// the recording, so that a stop, a new file name and a start at once record the new file.
struct RecordingSettings {
    bool video = true;
    bool audio = true;
    long width = 1024;           // pixels, even
    long height = 768;           // pixels, even
    int fps = 10;                // frames per second
    unsigned int bitrate = 500000; // bits per second
    QString filename;
};

// State shared between the host's threads and the session thread. `mutex` guards the
// host-side transitions and the fields marked so, and is never held while another lock
// is taken. Every startRecord that is taken opens a new generation: one session, one
// answer to waitForRecordStart.
class RecordThreadPrivate
{
public:
    std::atomic<bool> recording{false};     // a session is recording; written by the session
    std::atomic<bool> paused{false};        // pause requested
    // What the current (or last) recording has; the setters write it too, so that a host
    // reads back what it set until a recording says otherwise.
    std::atomic<bool> hasVideo{true};
    std::atomic<bool> hasAudio{true};
    std::atomic<long> recWidth{1024};       // pixels, even
    std::atomic<long> recHeight{768};       // pixels, even
    std::atomic<int> fps{10};               // frames per second
    std::atomic<unsigned int> videoBitrate{500000}; // bits per second
    std::atomic<PluginComponent *> component{nullptr}; // the host's frame source, not owned
    // The generation that should be recording now; 0 when none is requested. Written under
    // mutex; the session compares it with its own generation on every pass.
    std::atomic<uint64_t> wanted{0};

    mutable std::mutex mutex;
    std::condition_variable startCondition;   // a generation was answered
    std::condition_variable controlCondition; // stop, start, resume or a new component

    // Guarded by mutex.
    QString filename = QStringLiteral("out.mp4"); // output path
    bool wantVideo = true;       // the host's wish for the next recording, never an outcome
    bool wantAudio = true;
    RecordingStatus status;      // of the current or last recording; written by the session
    uint64_t requested = 0;      // the newest generation (0: none yet)
    RecordingSettings pending;   // the settings `requested` was asked with
    uint64_t answered = 0;       // the newest generation that has its answer
    // (generation, whether it recorded) of the last few answers, oldest first.
    std::deque<std::pair<uint64_t, bool>> answers;
    bool threadActive = false;   // the session thread runs or is about to run a session
    std::thread::id worker;      // the thread the sessions (and the frame source) run on
    bool workerDone = false;     // this run's worker has left its loop
    bool ownerGone = false;      // the instance was deleted from the worker: it ends alone
    // Woken when the worker leaves its loop or the owner is gone.
    std::condition_variable endCondition;

    ThreadExit exit;             // joins the session thread visibly to the sanitizer
};

#endif // RECORDTHREAD_P_H
