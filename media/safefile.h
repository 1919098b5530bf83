#ifndef SAFEFILE_H
#define SAFEFILE_H

#include <chrono>
#include <functional>
#include <string>

struct AVIOContext;

// Files the library writes, opened so that nothing another user planted at their names
// (a link, a FIFO, a device) is written through, and so that opening never blocks the
// caller for longer than a bound.
namespace safefile {

// Longest wait for an output file to open (a hung network mount blocks open() itself).
constexpr std::chrono::milliseconds kOpenTimeout{5000};
// How often a waiting open looks at the stop request.
constexpr std::chrono::milliseconds kOpenPoll{20};
// Opens given up on but still blocked in the kernel, at most: each holds a thread. Beyond
// this an output is refused at once (the mount that hangs would only take more).
constexpr int kMaxPendingOpens = 4;
// Modes before the process's umask: what the user keeps, and what only we may read.
constexpr unsigned kFileMode = 0644;
constexpr unsigned kTempMode = 0600;

// Any thread. The protocol a name would reach in FFmpeg ("http", "pipe", ...), or empty
// for a plain file path; colons that do not follow a known protocol name are ordinary.
std::string protocolOf(const std::string &path);

// Any thread. Creates or truncates `path` for writing, never following a link at the name
// (O_NOFOLLOW), never waiting for a FIFO's reader and refusing a FIFO or socket. Gives up after
// `timeout`, or as soon as `stopRequested` answers true; an open given up on that completes
// later closes its descriptor without having changed the file (it is truncated only once
// the descriptor is taken). The descriptor, or -1 with *error saying why.
int createOutput(const std::string &path, const std::function<bool()> &stopRequested,
                 std::chrono::milliseconds timeout, std::string *error);
// Any thread. Opens of createOutput that have not returned from the kernel yet, given up
// on or still waited for.
int pendingOpens();

// Any thread. Creates a fresh file named `prefix` followed by six random characters,
// exclusively (a planted name is never reused) and with mode kTempMode. The descriptor
// and *path, or -1 with *error.
int createTemp(const std::string &prefix, std::string *path, std::string *error);

// Any thread. kFileMode with the process's umask applied, for a file about to be renamed
// into place.
unsigned publicMode();

// Any thread. A seekable write context over `fd`, which it owns from then on (closed by
// closeIo, also when this fails). Null when it cannot be made.
AVIOContext *openIo(int fd);
// Flushes and frees the context and closes its descriptor; null-safe. 0, or the first
// error of the writes, the flush or the close (a full disk can show only here).
int closeIo(AVIOContext **pb);
// The descriptor of a context made by openIo.
int fdOf(AVIOContext *pb);

} // namespace safefile

#endif // SAFEFILE_H
