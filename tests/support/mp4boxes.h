#ifndef MP4BOXES_H
#define MP4BOXES_H

#include <string>
#include <vector>

// The types of the top-level boxes of an MP4/MOV file ("ftyp", "moov", "mdat", "moof"...),
// in file order, read from the box headers (size + four-character type).
std::vector<std::string> topLevelBoxes(const std::string &path);
// The position of `s` in `v`, or -1.
int indexOf(const std::vector<std::string> &v, const std::string &s);
// The types separated by spaces, for messages.
std::string joined(const std::vector<std::string> &v);

#endif // MP4BOXES_H
