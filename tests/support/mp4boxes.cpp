#include "mp4boxes.h"

#include <cstdint>
#include <fstream>

std::string topLevelBoxes(const std::string &path)
{
    std::string types;
    std::ifstream in(path, std::ios::binary);
    in.seekg(0, std::ios::end);
    const uint64_t end = in.tellg();
    for (uint64_t at = 0, size = 0; at + 8 <= end; at += size) {
        unsigned char h[16];
        in.seekg(at);
        in.read(reinterpret_cast<char *>(h), 8);
        size = (uint64_t(h[0]) << 24) | (h[1] << 16) | (h[2] << 8) | h[3];
        types += (types.empty() ? "" : " ") + std::string(reinterpret_cast<char *>(h + 4), 4);
        if (size == 1) { // a 64-bit size follows the type
            in.read(reinterpret_cast<char *>(h + 8), 8);
            size = 0;
            for (int i = 8; i < 16; ++i)
                size = (size << 8) | h[i];
        }
        if (size < 8) // 0: to the end of the file; less: not a box
            break;
    }
    return types;
}

bool isStandardLayout(const std::string &boxes)
{
    const size_t moov = boxes.find("moov");
    return boxes.find("moof") == std::string::npos && moov != std::string::npos
        && boxes.find("moov", moov + 4) == std::string::npos;
}
