#ifndef TESTUTIL_H
#define TESTUTIL_H

#include <QString>
#include <chrono>
#include <functional>
#include <string>

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

} // namespace testutil

#endif // TESTUTIL_H
