// Turns fragmented MP4/MOV files, as a crash or a power cut leaves them, into standard
// ones with their index at the front, by the same stream copy the writer makes after a
// clean stop. Each file is replaced only once its standard copy is complete.
//
// usage: finish_recording FILE...
#include <cstdio>
#include <string>

#include "media/standardmp4.h"

int main(int argc, char **argv)
{
    if (argc < 2 || std::string(argv[1]) == "--help") {
        std::fprintf(stderr, "usage: %s FILE...\n"
                             "Rewrites each fragmented MP4/MOV file as a standard one in place.\n",
                     argv[0]);
        return argc < 2 ? 2 : 0;
    }
    int failures = 0;
    for (int i = 1; i < argc; ++i) {
        std::string error;
        if (rewriteAsStandardMp4(argv[i], &error)) {
            std::printf("%s: rewritten as a standard file\n", argv[i]);
        } else {
            std::fprintf(stderr, "%s: left as it was: %s\n", argv[i], error.c_str());
            ++failures;
        }
    }
    return failures ? 1 : 0;
}
