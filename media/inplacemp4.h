#ifndef INPLACEMP4_H
#define INPLACEMP4_H

#include <string>

// The steps of finishMp4InPlace in order. Each leaves a file that plays: up to
// IndexSynced the fragments with the new index after them (unread), from HeaderRewritten
// the standard file.
enum class FinishStep { IndexAppended, IndexSynced, HeaderRewritten, HeaderSynced };

// Turns the fragmented MP4 or MOV the writer leaves at `path` (finished, or cut short by
// a crash) into a standard one with its index at the end, in place: the index built from
// the fragments is appended and synced, then the 8 or 16 bytes after ftyp become the
// header of one mdat that spans the initial index and every fragment, and are synced.
// The file keeps its inode, owner and mode; it needs room for the index only. Any thread;
// takes about as long as reading the fragment headers.
// true when `path` is the standard file. false with *error naming what failed: a file
// that is not such a fragmented MP4 is left byte for byte as it was, and one whose
// finish failed plays as its fragments did. `stopAfter` ends the work after that step,
// as a crash there would (tests).
bool finishMp4InPlace(const std::string &path, std::string *error,
                      FinishStep stopAfter = FinishStep::HeaderSynced);

#endif // INPLACEMP4_H
