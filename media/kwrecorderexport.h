#ifndef KWRECORDEREXPORT_H
#define KWRECORDEREXPORT_H

// What a host may link against is marked with this; everything else in the library is hidden.
#ifndef KWRECORDER_EXPORT
#define KWRECORDER_EXPORT __attribute__((visibility("default")))
#endif

#endif // KWRECORDEREXPORT_H
