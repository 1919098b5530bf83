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

std::string captureStdout(const std::function<void()> &body)
{
    std::fflush(stdout);
    char name[] = "/tmp/kwrec-stdout-XXXXXX";
    const int fd = mkstemp(name);
    if (fd < 0)
        throw std::runtime_error("mkstemp failed");
    const int saved = dup(STDOUT_FILENO);
    dup2(fd, STDOUT_FILENO);
    try {
        body();
    } catch (...) {
        std::fflush(stdout);
        dup2(saved, STDOUT_FILENO);
        close(saved);
        close(fd);
        unlink(name);
        throw;
    }
    std::fflush(stdout);
    dup2(saved, STDOUT_FILENO);
    close(saved);
    close(fd);
    std::ifstream in(name, std::ios::binary);
    std::stringstream text;
    text << in.rdbuf();
    unlink(name);
    return text.str();
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
