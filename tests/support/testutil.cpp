#include "testutil.h"

#include <cstdio>
#include <cstdlib>
#include <fcntl.h>
#include <fstream>
#include <malloc.h>
#include <sstream>
#include <stdexcept>
#include <thread>
#include <unistd.h>
#include <filesystem>

namespace testutil {

bool pollUntil(const std::function<bool()> &condition, std::chrono::milliseconds timeout,
               std::chrono::milliseconds period)
{
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    for (;;) {
        if (condition())
            return true;
        if (std::chrono::steady_clock::now() >= deadline)
            return condition();
        std::this_thread::sleep_for(period);
    }
}

TempDir::TempDir()
{
    std::string templ = (std::filesystem::temp_directory_path() / "kwrec-XXXXXX").string();
    if (!mkdtemp(templ.data()))
        throw std::runtime_error("mkdtemp failed");
    m_path = templ;
}

TempDir::~TempDir()
{
    std::error_code ec;
    std::filesystem::permissions(m_path, std::filesystem::perms::owner_all,
                                 std::filesystem::perm_options::add, ec);
    std::filesystem::remove_all(m_path, ec);
}

// Runs `body` with descriptor `fd` (whose stdio stream is `stream`) sent to a temporary
// file; returns what was written.
static std::string captureDescriptor(FILE *stream, int fd, const std::function<void()> &body)
{
    std::fflush(stream);
    char name[] = "/tmp/kwrec-capture-XXXXXX";
    const int file = mkstemp(name);
    if (file < 0)
        throw std::runtime_error("mkstemp failed");
    const int saved = dup(fd);
    dup2(file, fd);
    const auto restore = [&] {
        std::fflush(stream);
        dup2(saved, fd);
        close(saved);
        close(file);
    };
    try {
        body();
    } catch (...) {
        restore();
        unlink(name);
        throw;
    }
    restore();
    std::ifstream in(name, std::ios::binary);
    std::stringstream text;
    text << in.rdbuf();
    unlink(name);
    return text.str();
}

std::string captureStdout(const std::function<void()> &body)
{
    return captureDescriptor(stdout, STDOUT_FILENO, body);
}

std::string captureStderr(const std::function<void()> &body)
{
    return captureDescriptor(stderr, STDERR_FILENO, body);
}

static long statusField(const char *key)
{
    std::ifstream in("/proc/self/status");
    std::string line;
    const std::string prefix = std::string(key) + ":";
    while (std::getline(in, line)) {
        if (line.rfind(prefix, 0) == 0)
            return std::strtol(line.c_str() + prefix.size(), nullptr, 10);
    }
    return -1;
}

int threadCount() { return static_cast<int>(statusField("Threads")); }
long residentKiB() { return statusField("VmRSS"); }

long residentInUseKiB()
{
    malloc_trim(0);
    return residentKiB();
}

} // namespace testutil
