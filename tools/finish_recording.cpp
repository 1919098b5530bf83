// Finishes fragmented MP4/MOV files, as a crash or a power cut leaves them, as standard
// ones in place, the way the writer does after a clean stop: the index is appended and
// the fragments become one media box, in the same file. With --faststart each file is
// instead copied into a standard one with its index at the front (which web players
// stream without seeking), replacing the original once the copy is complete.
//
// usage: finish_recording [--faststart] FILE...
#include <cstdio>
#include <string>

#include "media/inplacemp4.h"
#include "media/standardmp4.h"

int main(int argc, char **argv)
{
    const bool help = argc >= 2 && std::string(argv[1]) == "--help";
    const bool faststart = argc >= 2 && std::string(argv[1]) == "--faststart";
    const int first = faststart ? 2 : 1;
    if (help || argc <= first) {
        std::fprintf(stderr,
                     "usage: %s [--faststart] FILE...\n"
                     "Finishes each fragmented MP4/MOV file as a standard one in place.\n"
                     "--faststart: rewrites each as a copy with its index at the front instead.\n",
                     argv[0]);
        return help ? 0 : 2;
    }
    int failures = 0;
    for (int i = first; i < argc; ++i) {
        std::string error;
        const bool ok = faststart ? rewriteAsStandardMp4(argv[i], &error)
                                  : finishMp4InPlace(argv[i], &error);
        if (ok) {
            std::printf("%s: %s\n", argv[i],
                        faststart ? "rewritten with its index at the front" : "finished in place");
        } else {
            std::fprintf(stderr, "%s: not finished: %s\n", argv[i], error.c_str());
            ++failures;
        }
    }
    return failures ? 1 : 0;
}
