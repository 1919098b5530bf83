#include "safefile.h"

#include <cerrno>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <memory>
#include <mutex>
#include <sys/stat.h>
#include <system_error>
#include <thread>
#include <unistd.h>

extern "C" {
#include <libavformat/avio.h>
#include <libavutil/error.h>
#include <libavutil/mem.h>
}

namespace safefile {

namespace {

// Bytes a write context buffers before it calls write().
constexpr int kIoBufferSize = 64 * 1024;
// Characters a URL scheme may hold, as FFmpeg reads one.
constexpr const char *kSchemeChars =
    "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789+-.";
// The umask when the kernel does not tell it.
constexpr unsigned kDefaultUmask = 022;

// One open() that may outlive its waiter: whoever comes last closes what it opened.
struct PendingOpen {
    std::mutex mutex;              // guards the fields below
    std::condition_variable done;  // woken when open() returned
    bool finished = false;         // open() returned
    bool abandoned = false;        // the waiter gave up: the opener closes the descriptor
    int fd = -1;                   // open()'s result
    int error = 0;                 // errno of a failed open()
};

// Opener threads that have not finished, bounded by kMaxPendingOpens.
std::mutex g_openersMutex;
int g_openers = 0; // guarded by g_openersMutex

// Counts one opener in; false when kMaxPendingOpens are still out.
bool admitOpener()
{
    std::lock_guard<std::mutex> lock(g_openersMutex);
    if (g_openers >= kMaxPendingOpens)
        return false;
    ++g_openers;
    return true;
}

void releaseOpener()
{
    std::lock_guard<std::mutex> lock(g_openersMutex);
    --g_openers;
}

bool isProtocol(const std::string &name)
{
    for (int output = 0; output <= 1; ++output) {
        void *it = nullptr;
        while (const char *p = avio_enum_protocols(&it, output))
            if (name == p)
                return true;
    }
    return false;
}

void runOpen(const std::shared_ptr<PendingOpen> &pending, const std::string &path)
{
    // O_NONBLOCK: a FIFO without a reader fails at once (ENXIO) instead of waiting for one.
    // No O_TRUNC: an open that completes after its waiter gave up must leave the file as
    // it is by then.
    const int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC,
                        kFileMode);
    const int error = errno;
    {
        std::lock_guard<std::mutex> lock(pending->mutex);
        pending->finished = true;
        pending->fd = fd;
        pending->error = error;
        if (pending->abandoned && fd >= 0)
            close(fd);
        pending->done.notify_all();
    }
    releaseOpener();
}

// Waits for the opener; -1 with *error when stopped or out of time (the opener then
// closes whatever it gets by itself).
int waitForOpen(const std::shared_ptr<PendingOpen> &pending,
                const std::function<bool()> &stopRequested, std::chrono::milliseconds timeout,
                std::string *error)
{
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    std::unique_lock<std::mutex> lock(pending->mutex);
    while (!pending->finished) {
        if (stopRequested && stopRequested()) {
            *error = "stopped while opening";
            pending->abandoned = true;
            return -1;
        }
        if (std::chrono::steady_clock::now() >= deadline) {
            *error = "no answer within " + std::to_string(timeout.count()) + " ms";
            pending->abandoned = true;
            return -1;
        }
        pending->done.wait_for(lock, kOpenPoll);
    }
    if (pending->fd < 0)
        *error = strerror(pending->error);
    return pending->fd;
}

// A descriptor opened without blocking, made blocking once it is known to be a file or a
// device, or -1.
int keepRegularFile(int fd, std::string *error)
{
    struct stat st;
    if (fstat(fd, &st) != 0) {
        *error = strerror(errno);
        close(fd);
        return -1;
    }
    // A FIFO (even with a reader) or a socket would take a recording nowhere it can be
    // played from; devices stay allowed (/dev/null, /dev/full), as the user names them.
    if (S_ISFIFO(st.st_mode) || S_ISSOCK(st.st_mode)) {
        *error = "a FIFO or socket, not a file";
        close(fd);
        return -1;
    }
    const int flags = fcntl(fd, F_GETFL);
    if (flags < 0 || fcntl(fd, F_SETFL, flags & ~O_NONBLOCK) != 0) {
        *error = strerror(errno);
        close(fd);
        return -1;
    }
    // The truncation the open left out, now that the descriptor is ours.
    if (S_ISREG(st.st_mode) && ftruncate(fd, 0) != 0) {
        *error = strerror(errno);
        close(fd);
        return -1;
    }
    return fd;
}

struct FileIo {
    int fd = -1;
};

#if LIBAVFORMAT_VERSION_MAJOR >= 61
int writePacket(void *opaque, const uint8_t *buf, int size)
#else
int writePacket(void *opaque, uint8_t *buf, int size)
#endif
{
    const int fd = static_cast<FileIo *>(opaque)->fd;
    int written = 0;
    while (written < size) {
        const ssize_t n = write(fd, buf + written, static_cast<size_t>(size - written));
        if (n < 0 && errno == EINTR)
            continue;
        if (n < 0)
            return AVERROR(errno);
        written += static_cast<int>(n);
    }
    return written;
}

int64_t seekFile(void *opaque, int64_t offset, int whence)
{
    const int fd = static_cast<FileIo *>(opaque)->fd;
    if (whence & AVSEEK_SIZE) {
        struct stat st;
        return fstat(fd, &st) == 0 ? st.st_size : AVERROR(errno);
    }
    const off_t at = lseek(fd, offset, whence & ~AVSEEK_FORCE);
    return at < 0 ? AVERROR(errno) : at;
}

} // namespace

std::string protocolOf(const std::string &path)
{
    const size_t colon = path.find(':');
    if (colon == std::string::npos || colon == 0)
        return std::string();
    const std::string scheme = path.substr(0, colon);
    if (scheme.find_first_not_of(kSchemeChars) != std::string::npos)
        return std::string();
    // "file:" names a local file: the one protocol a recording may use.
    if (scheme == "file" || !isProtocol(scheme))
        return std::string();
    return scheme;
}

int createOutput(const std::string &path, const std::function<bool()> &stopRequested,
                 std::chrono::milliseconds timeout, std::string *error)
{
    auto pending = std::make_shared<PendingOpen>();
    if (!admitOpener()) {
        *error = std::to_string(kMaxPendingOpens) + " earlier opens still have no answer";
        return -1;
    }
    // open() on a hung mount cannot be interrupted: it runs apart, and a waiter that gives
    // up leaves it to close its descriptor whenever the kernel answers.
    try {
        std::thread(runOpen, pending, path).detach();
    } catch (const std::system_error &e) {
        releaseOpener();
        *error = e.what();
        return -1;
    }
    const int fd = waitForOpen(pending, stopRequested, timeout, error);
    return fd < 0 ? -1 : keepRegularFile(fd, error);
}

int pendingOpens()
{
    std::lock_guard<std::mutex> lock(g_openersMutex);
    return g_openers;
}

int createTemp(const std::string &prefix, std::string *path, std::string *error)
{
    std::string name = prefix + "XXXXXX";
    // mkostemp opens with O_CREAT|O_EXCL and mode 0600, retrying names that are taken.
    const int fd = mkostemp(&name[0], O_CLOEXEC);
    if (fd < 0) {
        *error = strerror(errno);
        return -1;
    }
    *path = name;
    return fd;
}

unsigned publicMode()
{
    // Read, not set and restored: umask() would change it for every thread meanwhile.
    unsigned mask = kDefaultUmask;
    if (FILE *status = fopen("/proc/self/status", "re")) {
        char line[256];
        while (fgets(line, sizeof line, status))
            if (strncmp(line, "Umask:", 6) == 0) {
                mask = static_cast<unsigned>(strtoul(line + 6, nullptr, 8));
                break;
            }
        fclose(status);
    }
    return kFileMode & ~mask;
}

AVIOContext *openIo(int fd)
{
    auto *io = new FileIo{fd};
    auto *buffer = static_cast<unsigned char *>(av_malloc(kIoBufferSize));
    AVIOContext *pb = buffer ? avio_alloc_context(buffer, kIoBufferSize, 1, io, nullptr,
                                                  writePacket, seekFile)
                             : nullptr;
    if (!pb) {
        av_free(buffer);
        close(fd);
        delete io;
        return nullptr;
    }
    return pb;
}

int closeIo(AVIOContext **pb)
{
    if (!pb || !*pb)
        return 0;
    AVIOContext *ctx = *pb;
    avio_flush(ctx);
    int ret = ctx->error;
    auto *io = static_cast<FileIo *>(ctx->opaque);
    av_freep(&ctx->buffer);
    avio_context_free(pb);
    if (close(io->fd) != 0 && ret >= 0)
        ret = AVERROR(errno);
    delete io;
    return ret < 0 ? ret : 0;
}

int fdOf(AVIOContext *pb)
{
    return static_cast<FileIo *>(pb->opaque)->fd;
}

} // namespace safefile
