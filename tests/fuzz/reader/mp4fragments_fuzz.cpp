// Any bytes through the fragment reader and the index builder: no crash, no read out of
// bounds (AddressSanitizer), no undefined arithmetic, no endless loop (libFuzzer's
// timeout), and what is accepted indexes only bytes inside the media it will cover.
#include <cstdlib>

#include "media/mp4fragments.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    MemoryMp4Source source(data, size);
    FragmentedMp4 file;
    std::string error, moov;
    if (!readFragmentedMp4(source, &file, &error))
        return 0;
    if (file.dataEnd > size || file.headerAt + file.initialMoov.size() > file.dataEnd)
        abort();
    for (const Mp4Track &t : file.tracks)
        for (const Mp4Sample &s : t.samples)
            if (s.offset < file.headerAt + file.initialMoov.size() || s.offset + s.size > file.dataEnd)
                abort();
    buildStandardMoov(file, &moov, &error);
    return 0;
}
