#ifndef TESTUTIL_H
#define TESTUTIL_H

#include <QString>
#include <chrono>
#include <functional>
#include <string>
#include <vector>

namespace testutil {

// Polls `condition` every `period` until it holds or `timeout` passes; returns its last value.
bool pollUntil(const std::function<bool()> &condition,
               std::chrono::milliseconds timeout,
               std::chrono::milliseconds period = std::chrono::milliseconds(2));

// A fresh directory under the system temp dir, removed with everything in it on destruction.
class TempDir
{
public:
    TempDir();
    ~TempDir();
    TempDir(const TempDir &) = delete;
    TempDir &operator=(const TempDir &) = delete;
    const std::string &path() const { return m_path; }
    std::string file(const std::string &name) const { return m_path + "/" + name; }

private:
    std::string m_path;
};

// The whole content of a file ("" when it cannot be read), and a file made to hold `bytes`.
std::string readFileBytes(const std::string &path);
void writeFileBytes(const std::string &path, const std::string &bytes);

// Runs `body` with standard output captured at the descriptor level (printf, puts,
// std::cout and child writes alike) and returns what it printed.
std::string captureStdout(const std::function<void()> &body);
// The same for standard error (fprintf(stderr), FFmpeg's own log).
std::string captureStderr(const std::function<void()> &body);

// Number of threads of this process, from /proc/self/status.
int threadCount();
// Resident set size of this process in KiB, from /proc/self/status.
long residentKiB();
// Resident size of what is in use: free heap pages go back to the system first, so that
// the allocator's cache does not pass for growth.
long residentInUseKiB();
// CPU time of every thread of this process so far, seconds.
double processCpuSeconds();

// A small disk of its own mounted at a fresh directory (root only): a tmpfs of `mib` MiB
// that fills, or, `freezable`, an ext4 image on a loop device whose writes block while
// frozen (fsfreeze): a stalled disk as the kernel makes one. Unfrozen and unmounted at the
// end, whatever failed.
class ScratchDisk
{
public:
    ScratchDisk(const std::string &where, int mib, bool freezable = false);
    ~ScratchDisk();
    ScratchDisk(const ScratchDisk &) = delete;
    ScratchDisk &operator=(const ScratchDisk &) = delete;
    bool mounted() const { return m_mounted; }
    const std::string &path() const { return m_dir; }
    bool freeze(bool on); // true when fsfreeze did it
    // Names in the disk's top directory, lost+found aside.
    std::vector<std::string> names() const;

private:
    std::string m_dir;
    std::string m_image; // the ext4 image, empty for a tmpfs
    bool m_mounted = false;
    bool m_frozen = false;
};

} // namespace testutil

#endif // TESTUTIL_H
