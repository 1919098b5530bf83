#include "periodicsync.h"
#include "logcategories.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

PeriodicSync::~PeriodicSync()
{
    stop();
}

bool PeriodicSync::start(const std::string &path)
{
    stop();
    const int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0)
        return false;
    struct stat st;
    if (fstat(fd, &st) != 0 || !S_ISREG(st.st_mode)) {
        close(fd);
        return false;
    }
    m_fd = fd;
    m_path = path;
    m_stop = false;
    m_thread = std::thread(&PeriodicSync::run, this);
    return true;
}

void PeriodicSync::stop()
{
    if (!m_thread.joinable())
        return;
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_stop = true;
    }
    m_wake.notify_one();
    m_thread.join();
    close(m_fd);
    m_fd = -1;
}

void PeriodicSync::run()
{
    bool reported = false;
    std::unique_lock<std::mutex> lock(m_mutex);
    for (;;) {
        if (m_wake.wait_for(lock, kPeriod, [this] { return m_stop; }))
            return;
        lock.unlock();
        // A failing disk fails every sync: told once, and the recording goes on.
        if (fdatasync(m_fd) != 0 && !reported) {
            reported = true;
            qCWarning(lcMedia, "Syncing %s to the disk failed: %s", m_path.c_str(), strerror(errno));
        }
        lock.lock();
    }
}

int syncPath(const std::string &path)
{
    const int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0)
        return errno;
    const int result = fsync(fd) == 0 ? 0 : errno;
    close(fd);
    return result;
}
