// A stand-in for open() in front of libc (linked ahead of it, or LD_PRELOAD) that behaves
// as a hung network mount: an open of the path in HANGOPEN_PATH blocks until a file of that
// name plus ".release" exists, then completes as the real open. Every other open passes
// straight through.
#include <cstdarg>
#include <cstring>
#include <dlfcn.h>
#include <fcntl.h>
#include <string>
#include <sys/stat.h>
#include <unistd.h>

namespace {

// How often a held open looks for its release.
constexpr useconds_t kReleasePollUs = 5000;

void holdIfHung(const char *path)
{
    const char *hung = getenv("HANGOPEN_PATH");
    if (!hung || !path || std::strcmp(path, hung) != 0)
        return;
    const std::string release = std::string(hung) + ".release";
    struct stat st;
    while (stat(release.c_str(), &st) != 0)
        usleep(kReleasePollUs);
}

mode_t modeOf(int flags, va_list args)
{
    return (flags & (O_CREAT | O_TMPFILE)) ? static_cast<mode_t>(va_arg(args, int)) : 0;
}

template <typename Fn>
Fn next(const char *name)
{
    return reinterpret_cast<Fn>(dlsym(RTLD_NEXT, name));
}

} // namespace

extern "C" {

int open(const char *path, int flags, ...)
{
    va_list args;
    va_start(args, flags);
    const mode_t mode = modeOf(flags, args);
    va_end(args);
    holdIfHung(path);
    return next<int (*)(const char *, int, ...)>("open")(path, flags, mode);
}

int openat(int dir, const char *path, int flags, ...)
{
    va_list args;
    va_start(args, flags);
    const mode_t mode = modeOf(flags, args);
    va_end(args);
    holdIfHung(path);
    return next<int (*)(int, const char *, int, ...)>("openat")(dir, path, flags, mode);
}

} // extern "C"
