#include "mp4boxes.h"

#include <fstream>

std::vector<std::string> topLevelBoxes(const std::string &path)
{
    std::vector<std::string> types;
    std::ifstream in(path, std::ios::binary);
    in.seekg(0, std::ios::end);
    const uint64_t end = in.tellg();
    uint64_t at = 0;
    while (at + 8 <= end) {
        unsigned char h[16];
        in.seekg(at);
        in.read(reinterpret_cast<char *>(h), 8);
        uint64_t size = (uint64_t(h[0]) << 24) | (h[1] << 16) | (h[2] << 8) | h[3];
        types.emplace_back(reinterpret_cast<char *>(h + 4), 4);
        if (size == 1) { // a 64-bit size follows the type
            in.read(reinterpret_cast<char *>(h + 8), 8);
            size = 0;
            for (int i = 8; i < 16; ++i)
                size = (size << 8) | h[i];
        } else if (size == 0) { // to the end of the file
            size = end - at;
        }
        if (size < 8)
            break;
        at += size;
    }
    return types;
}

int indexOf(const std::vector<std::string> &v, const std::string &s)
{
    for (size_t i = 0; i < v.size(); ++i)
        if (v[i] == s)
            return int(i);
    return -1;
}

std::string joined(const std::vector<std::string> &v)
{
    std::string s;
    for (const std::string &t : v)
        s += t + " ";
    return s;
}
