#include "inplacemp4.h"

#include <cerrno>
#include <iterator>
#include <cstring>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "mp4fragments.h"

namespace {

// Reads of the file by its descriptor.
class FileSource : public Mp4Source
{
public:
    FileSource(int fd, uint64_t size) : m_fd(fd), m_size(size) {}
    uint64_t size() const override { return m_size; }
    bool read(uint64_t offset, void *buf, size_t n) override
    {
        auto *to = static_cast<char *>(buf);
        while (n > 0) {
            const ssize_t got = pread(m_fd, to, n, off_t(offset));
            if (got < 0 && errno == EINTR)
                continue;
            if (got <= 0)
                return false;
            to += got;
            n -= size_t(got);
            offset += uint64_t(got);
        }
        return true;
    }

private:
    int m_fd;
    uint64_t m_size;
};

// One finish. Each step returns false after setting `error`.
struct Finish {
    std::string path;
    int fd = -1;
    uint64_t originalSize = 0; // bytes
    FragmentedMp4 file;
    std::string moov;          // the new index
    std::string error;

    ~Finish()
    {
        if (fd >= 0)
            close(fd);
    }

    bool fail(const std::string &step, int err)
    {
        error = step + ": " + strerror(err);
        return false;
    }
};

bool openFile(Finish &f)
{
    // Never through a link planted at the name, never blocking on a FIFO.
    f.fd = open(f.path.c_str(), O_RDWR | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK);
    if (f.fd < 0)
        return f.fail("opening " + f.path, errno);
    struct stat st;
    if (fstat(f.fd, &st) != 0)
        return f.fail("stat of " + f.path, errno);
    if (!S_ISREG(st.st_mode)) {
        f.error = f.path + " is not a regular file";
        return false;
    }
    f.originalSize = uint64_t(st.st_size);
    return true;
}

bool readAndBuild(Finish &f)
{
    FileSource source(f.fd, f.originalSize);
    std::string why;
    if (!readFragmentedMp4(source, &f.file, &why) || !buildStandardMoov(f.file, &f.moov, &why)) {
        f.error = f.path + ": " + why;
        return false;
    }
    return true;
}

bool writeAll(int fd, const std::string &bytes, uint64_t at)
{
    size_t done = 0;
    while (done < bytes.size()) {
        const ssize_t n = pwrite(fd, bytes.data() + done, bytes.size() - done, off_t(at + done));
        if (n < 0 && errno == EINTR)
            continue;
        if (n < 0)
            return false;
        done += size_t(n);
    }
    return true;
}

// After the fragments: players still read the initial index, which comes first.
bool appendIndex(Finish &f)
{
    const uint64_t at = f.file.dataEnd;
    if (!writeAll(f.fd, f.moov, at)) {
        const int err = errno;
        // What a full disk let through is taken back: the file is as it was.
        if (at == f.originalSize && ftruncate(f.fd, off_t(f.originalSize)) != 0)
            return f.fail("writing the index of " + f.path + " (" + strerror(err)
                              + "), then cutting it off again", errno);
        return f.fail("writing the index of " + f.path, err);
    }
    // An earlier finish cut short may have left a longer index.
    const uint64_t end = at + f.moov.size();
    if (f.originalSize > end && ftruncate(f.fd, off_t(end)) != 0)
        return f.fail("cutting " + f.path + " after its index", errno);
    return true;
}

bool syncFile(Finish &f)
{
    if (fsync(f.fd) != 0)
        return f.fail("syncing " + f.path, errno);
    return true;
}

// One write of at most 16 bytes inside the first sector: the initial index's header
// becomes that of the mdat reaching to the new index.
bool rewriteHeader(Finish &f)
{
    const uint64_t size = f.file.dataEnd - f.file.headerAt;
    std::string header;
    if (size <= UINT32_MAX) {
        header = mp4BoxHeader("mdat", size - 8);
    } else {
        const char large[16] = {0, 0, 0, 1, 'm', 'd', 'a', 't', char(size >> 56), char(size >> 48),
                                char(size >> 40), char(size >> 32), char(size >> 24),
                                char(size >> 16), char(size >> 8), char(size)};
        header.assign(large, sizeof large);
    }
    if (header.size() > f.file.initialMoov.size()) {
        f.error = f.path + ": no room for the media header";
        return false;
    }
    const ssize_t n = pwrite(f.fd, header.data(), header.size(), off_t(f.file.headerAt));
    if (n != ssize_t(header.size()))
        return f.fail("rewriting the header of " + f.path, n < 0 ? errno : EIO);
    return true;
}

} // namespace

bool finishMp4InPlace(const std::string &path, std::string *error, FinishStep stopAfter)
{
    Finish f;
    f.path = path;
    // In FinishStep's order.
    bool (*const steps[])(Finish &) = {appendIndex, syncFile, rewriteHeader, syncFile};
    bool ok = openFile(f) && readAndBuild(f);
    for (size_t i = 0; ok && i < std::size(steps); ++i) {
        ok = steps[i](f);
        if (i == size_t(stopAfter))
            break;
    }
    if (!ok && error)
        *error = f.error;
    return ok;
}
