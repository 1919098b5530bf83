#include "testutil.h"

#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <fcntl.h>
#include <fstream>
#include <iterator>
#include <memory>
#include <malloc.h>
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
    std::unique_ptr<FILE, int (*)(FILE *)> file(std::tmpfile(), &std::fclose);
    if (!file)
        throw std::runtime_error("tmpfile failed");
    const int saved = dup(fd);
    dup2(fileno(file.get()), fd);
    struct Restore { // also when body throws
        FILE *stream;
        int fd, saved;
        ~Restore()
        {
            std::fflush(stream);
            dup2(saved, fd);
            close(saved);
        }
    } restore{stream, fd, saved};
    body();
    std::fflush(stream);
    std::string text(size_t(lseek(fd, 0, SEEK_CUR)), '\0');
    if (pread(fd, text.data(), text.size(), 0) != ssize_t(text.size()))
        throw std::runtime_error("reading the captured output failed");
    return text;
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

std::string readFileBytes(const std::string &path)
{
    std::ifstream in(path, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

void writeFileBytes(const std::string &path, const std::string &bytes)
{
    std::ofstream(path, std::ios::binary) << bytes;
}

} // namespace testutil

double testutil::processCpuSeconds()
{
    timespec t{};
    clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &t);
    return double(t.tv_sec) + t.tv_nsec / 1e9;
}

namespace testutil {

namespace {
bool shell(const std::string &command)
{
    return std::system((command + " >/dev/null 2>&1").c_str()) == 0;
}
} // namespace

ScratchDisk::ScratchDisk(const std::string &where, int mib, bool freezable) : m_dir(where)
{
    std::filesystem::create_directories(m_dir);
    if (geteuid() != 0)
        return;
    const std::string size = std::to_string(mib);
    if (!freezable) {
        m_mounted = shell("mount -t tmpfs -o size=" + size + "m tmpfs " + m_dir);
        return;
    }
    // tmpfs cannot be frozen: ext4 can.
    m_image = m_dir + ".img";
    m_mounted = shell("truncate -s " + size + "M " + m_image) && shell("mkfs.ext4 -q " + m_image)
        && shell("mount -o loop " + m_image + " " + m_dir);
}

ScratchDisk::~ScratchDisk()
{
    freeze(false);
    if (m_mounted && !shell("umount " + m_dir))
        std::fprintf(stderr, "ScratchDisk: could not unmount %s\n", m_dir.c_str());
    if (!m_image.empty())
        std::filesystem::remove(m_image);
}

bool ScratchDisk::freeze(bool on)
{
    if (!m_mounted || m_image.empty() || on == m_frozen)
        return on == m_frozen;
    if (!shell(std::string("fsfreeze ") + (on ? "-f " : "-u ") + m_dir))
        return false;
    m_frozen = on;
    return true;
}

std::vector<std::string> ScratchDisk::names() const
{
    std::vector<std::string> out;
    for (const auto &entry : std::filesystem::directory_iterator(m_dir))
        if (entry.path().filename() != "lost+found")
            out.push_back(entry.path().filename().string());
    return out;
}

} // namespace testutil
