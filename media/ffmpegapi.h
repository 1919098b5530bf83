#ifndef FFMPEGAPI_H
#define FFMPEGAPI_H

// Everything the library exports to a host that links it: the media writer with its
// watermark, the JPEG snapshot writers and the snapshot thread.
#include "ffmpegwriter.h"
#include "jpegsnapshot.h"
#include "snapshotthread.h"
#include "watermark.h"

#endif // FFMPEGAPI_H
