#pragma once

#include <string>

// The types of the top-level boxes of an MP4/MOV file in file order, separated by spaces
// ("ftyp moov mdat"; fragmented: "ftyp moov moof mdat moof mdat ..."), read from the box
// headers (size + four-character type).
std::string topLevelBoxes(const std::string &path);
// Whether such a list is a standard MP4's: one index (moov), before or after the media
// (mdat), and no fragments (moof).
bool isStandardLayout(const std::string &boxes);
