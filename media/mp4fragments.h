#ifndef MP4FRAGMENTS_H
#define MP4FRAGMENTS_H

#include <cstdint>
#include <string>
#include <vector>

// Reads the fragmented MP4 the writer leaves (ftyp, an index without samples, then
// moof/mdat pairs) and builds the index of a standard MP4 over the same bytes. Plain C++
// without FFmpeg, so that it builds alone for fuzzing. Every size read from the file is
// checked against what holds it before it is used; every loop advances by at least a box
// header or a table entry, so no input makes it loop or read out of bounds.

// Where the bytes come from. Implementations are used by one thread at a time.
class Mp4Source
{
public:
    virtual ~Mp4Source() = default;
    virtual uint64_t size() const = 0;
    // Reads exactly n bytes at offset into buf (offset + n <= size()); false on an error.
    virtual bool read(uint64_t offset, void *buf, size_t n) = 0;
};

// A source over bytes in memory (tests, the fuzzer).
class MemoryMp4Source : public Mp4Source
{
public:
    MemoryMp4Source(const uint8_t *data, size_t size) : m_data(data), m_size(size) {}
    uint64_t size() const override { return m_size; }
    bool read(uint64_t offset, void *buf, size_t n) override;

private:
    const uint8_t *m_data;
    size_t m_size;
};

struct Mp4Sample {
    uint64_t offset = 0;   // in the file, bytes
    uint32_t size = 0;     // bytes
    uint32_t duration = 0; // media time scale
    int32_t ctsOffset = 0; // presentation minus decoding time, media time scale
    bool sync = false;     // a key frame
    uint32_t description = 1; // index into the track's stsd
};

struct Mp4Track {
    uint32_t id = 0;
    uint32_t timescale = 0; // of the track's media (mdhd)
    std::vector<Mp4Sample> samples; // in decoding order
    // Defaults of the track's trex.
    uint32_t defaultDescription = 1, defaultDuration = 0, defaultSize = 0, defaultFlags = 0;
    uint64_t nextDts = 0; // decoding time after the last sample read, media time scale
};

struct FragmentedMp4 {
    uint64_t headerAt = 0;   // where the initial index starts: right after ftyp
    std::string initialMoov; // the initial index, whole box
    uint64_t dataEnd = 0;    // end of what the new mdat covers; the new index goes here
    uint32_t movieTimescale = 0;
    std::vector<Mp4Track> tracks;
    size_t fragments = 0;    // moof boxes read
};

// Reads the layout and every fragment's sample table. false with *error when the bytes
// are not such a file (another MP4, random bytes, sizes that lie). A file cut short by a
// crash is read up to its last whole sample; a trailing moov (a finish that was cut short
// before its last step) is not counted as data.
bool readFragmentedMp4(Mp4Source &source, FragmentedMp4 *out, std::string *error);

// The standard index (a whole moov box) for `file`: the initial index with its sample
// tables filled from the fragments, its durations set, its edit lists ended where the
// media ends and the fragment declarations gone. Sample descriptions and every other box
// are kept byte for byte. false with *error when it cannot be built.
bool buildStandardMoov(const FragmentedMp4 &file, std::string *moov, std::string *error);

// The header of a box of `payload` bytes of `type`: 8 bytes, or 16 (a 64-bit size) when
// the size does not fit 32 bits.
std::string mp4BoxHeader(const char type[4], uint64_t payload);

#endif // MP4FRAGMENTS_H
