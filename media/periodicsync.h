#ifndef PERIODICSYNC_H
#define PERIODICSYNC_H

#include <chrono>
#include <condition_variable>
#include <mutex>
#include <string>
#include <thread>

// Pushes a file being written to the disk at a fixed period from a thread of its own, so
// that a power cut loses at most that period of what already reached the kernel, and the
// writing thread never waits for the disk. fdatasync works through any descriptor of the
// file: this one opens the path itself.
// One owner thread calls start and stop (and destroys it); the sync thread is private.
class PeriodicSync
{
public:
    // Period between two syncs.
    static constexpr std::chrono::milliseconds kPeriod{1000};

    PeriodicSync() = default;
    // Stops the thread.
    ~PeriodicSync();
    PeriodicSync(const PeriodicSync &) = delete;
    PeriodicSync &operator=(const PeriodicSync &) = delete;

    // Owner thread. Starts syncing the regular file at `path`; false (and nothing started)
    // when it is not one or cannot be opened: devices and pipes have nothing to sync.
    bool start(const std::string &path);
    // Owner thread. Ends the thread after at most one sync in progress; a no-op when not
    // started. The file is not synced once more: the caller decides about the last sync.
    void stop();

private:
    void run();

    int m_fd = -1;                  // read-only descriptor of the file; owned by the owner
    std::string m_path;             // for the message when a sync fails
    std::thread m_thread;

    std::mutex m_mutex;             // guards m_stop; never held while syncing
    std::condition_variable m_wake; // woken by stop
    bool m_stop = false;            // the thread is to return
};

// Any thread. fsync of the file or directory at `path`; 0, or the errno of what failed.
int syncPath(const std::string &path);

#endif // PERIODICSYNC_H
