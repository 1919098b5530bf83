#ifndef STANDARDMP4_H
#define STANDARDMP4_H

#include <string>

// Rewrites the fragmented MP4 or MOV file at `path` (one the writer left, finished or cut
// short by a crash) as a standard one with its index ahead of the media data, which every
// player and editor opens and a browser can stream. The streams are copied without
// re-encoding into a fresh temporary file beside the original (standardTempPath), which is
// synced and renamed over it, so that `path` holds either the old file or the whole new
// one. Any thread; takes about as long as reading and writing the file twice.
// true when `path` is the standard file. false with *error naming the step that failed
// and why; then `path` is untouched and the temporary file removed.
bool rewriteAsStandardMp4(const std::string &path, std::string *error);

// How the temporary files of rewriteAsStandardMp4 are named before their random end:
// hidden, in the same directory, so that the rename is atomic.
std::string standardTempPath(const std::string &path);

#endif // STANDARDMP4_H
