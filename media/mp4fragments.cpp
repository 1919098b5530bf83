#include "mp4fragments.h"

#include <algorithm>
#include <cstring>

namespace {

// Largest index and fragment header read into memory, bytes: ours are a few KiB (a
// fragment header is about 16 bytes a sample); anything larger is not our file.
constexpr uint64_t kMaxIndexBytes = 16u << 20;
constexpr uint64_t kMaxFragmentHeaderBytes = 16u << 20;
// Deepest nesting of boxes followed in the index (moov trak mdia minf stbl is 5).
constexpr int kMaxDepth = 8;
// Most tracks and samples taken: ours have two tracks, and about 80 samples a second
// (ten hours are under 3 million).
constexpr size_t kMaxTracks = 64;
constexpr size_t kMaxSamples = size_t(1) << 26;

// tfhd flags
constexpr uint32_t kBaseDataOffset = 0x1, kDescriptionIndex = 0x2, kDefaultDuration = 0x8,
                   kDefaultSize = 0x10, kDefaultFlags = 0x20, kBaseIsMoof = 0x20000;
// trun flags
constexpr uint32_t kDataOffset = 0x1, kFirstSampleFlags = 0x4, kSampleDuration = 0x100,
                   kSampleSize = 0x200, kSampleFlags = 0x400, kSampleCtsOffset = 0x800;
// sample_is_non_sync_sample in a sample's flags
constexpr uint32_t kNonSync = 0x10000;

uint32_t be32(const uint8_t *p)
{
    return uint32_t(p[0]) << 24 | uint32_t(p[1]) << 16 | uint32_t(p[2]) << 8 | p[3];
}

uint64_t be64(const uint8_t *p) { return uint64_t(be32(p)) << 32 | be32(p + 4); }

void put32(std::string &s, uint32_t v)
{
    const char b[4] = {char(v >> 24), char(v >> 16), char(v >> 8), char(v)};
    s.append(b, 4);
}

void put64(std::string &s, uint64_t v)
{
    put32(s, uint32_t(v >> 32));
    put32(s, uint32_t(v));
}

// Bounds-checked reading of a box's payload. Every get fails, and stays failed, once
// the payload is exhausted.
struct Reader {
    const uint8_t *p;
    size_t left;
    bool ok = true;

    bool take(size_t n)
    {
        if (!ok || left < n)
            return ok = false;
        return true;
    }
    uint32_t u32()
    {
        if (!take(4))
            return 0;
        const uint32_t v = be32(p);
        p += 4;
        left -= 4;
        return v;
    }
    uint64_t u64()
    {
        if (!take(8))
            return 0;
        const uint64_t v = be64(p);
        p += 8;
        left -= 8;
        return v;
    }
    void skip(size_t n)
    {
        if (take(n)) {
            p += n;
            left -= n;
        }
    }
};

struct Header {
    char type[5] = {0};
    uint64_t size = 0;  // whole box, header included
    unsigned length = 0; // of the header
};

// Parses a box header from `avail` (>= 8) bytes at `p`, of a box that may extend to
// `room` bytes (size 0). false when the size cannot be a box's.
bool parseHeader(const uint8_t *p, uint64_t avail, uint64_t room, Header *h)
{
    memcpy(h->type, p + 4, 4);
    h->size = be32(p);
    h->length = 8;
    if (h->size == 1) {
        if (avail < 16)
            return false;
        h->size = be64(p + 8);
        h->length = 16;
    } else if (h->size == 0) {
        h->size = room;
    }
    return h->size >= h->length;
}

bool is(const Header &h, const char *type) { return memcmp(h.type, type, 4) == 0; }

std::string printable(const char *type)
{
    std::string s;
    for (int i = 0; i < 4; ++i)
        s += (type[i] >= 0x20 && type[i] < 0x7f) ? type[i] : '?';
    return s;
}

// The index as a tree: the boxes on the way to the sample tables are opened, the rest
// kept as bytes.
struct Box {
    std::string type;
    std::string payload;    // leaves only
    std::vector<Box> kids;  // containers only
    bool container = false;
};

bool isContainer(const std::string &type)
{
    return type == "moov" || type == "trak" || type == "edts" || type == "mdia"
        || type == "minf" || type == "stbl" || type == "mvex";
}

bool parseBoxes(const uint8_t *p, uint64_t n, int depth, std::vector<Box> *out, std::string *error)
{
    if (depth > kMaxDepth) {
        *error = "the index nests boxes too deep";
        return false;
    }
    uint64_t at = 0;
    while (at < n) {
        Header h;
        if (n - at < 8 || !parseHeader(p + at, n - at, n - at, &h) || h.size > n - at) {
            *error = "a box in the index has a size that does not fit";
            return false;
        }
        Box b;
        b.type.assign(h.type, 4);
        const uint8_t *body = p + at + h.length;
        const uint64_t bodySize = h.size - h.length;
        if (isContainer(b.type)) {
            b.container = true;
            if (!parseBoxes(body, bodySize, depth + 1, &b.kids, error))
                return false;
        } else {
            b.payload.assign(reinterpret_cast<const char *>(body), bodySize);
        }
        out->push_back(std::move(b));
        at += h.size;
    }
    return true;
}

void serialize(const Box &b, std::string *out)
{
    std::string body;
    if (b.container) {
        for (const Box &k : b.kids)
            serialize(k, &body);
    } else {
        body = b.payload;
    }
    *out += mp4BoxHeader(b.type.c_str(), body.size());
    *out += body;
}

Box *child(Box &b, const char *type)
{
    for (Box &k : b.kids)
        if (k.type == type)
            return &k;
    return nullptr;
}

const Box *child(const Box &b, const char *type) { return child(const_cast<Box &>(b), type); }

Reader readerOf(const Box &b)
{
    return Reader{reinterpret_cast<const uint8_t *>(b.payload.data()), b.payload.size()};
}

// The time scale of an mvhd or mdhd (both have it after the two times).
bool timescaleOf(const Box &b, uint32_t *timescale)
{
    Reader r = readerOf(b);
    const uint32_t version = r.u32() >> 24;
    r.skip(version == 1 ? 16 : 8);
    *timescale = r.u32();
    return r.ok && *timescale != 0;
}

bool trackIdOf(const Box &tkhd, uint32_t *id)
{
    Reader r = readerOf(tkhd);
    const uint32_t version = r.u32() >> 24;
    r.skip(version == 1 ? 16 : 8);
    *id = r.u32();
    return r.ok;
}

Mp4Track *trackById(FragmentedMp4 *f, uint32_t id)
{
    for (Mp4Track &t : f->tracks)
        if (t.id == id)
            return &t;
    return nullptr;
}

// The tracks, their time scales and fragment defaults, from the initial index.
bool readInitialIndex(FragmentedMp4 *f, std::string *error)
{
    std::vector<Box> top;
    const auto *bytes = reinterpret_cast<const uint8_t *>(f->initialMoov.data());
    if (!parseBoxes(bytes, f->initialMoov.size(), 0, &top, error))
        return false;
    const Box &moov = top.at(0);
    const Box *mvhd = child(moov, "mvhd");
    const Box *mvex = child(moov, "mvex");
    if (!mvex) {
        *error = "not a fragmented MP4: its index declares no fragments";
        return false;
    }
    if (!mvhd || !timescaleOf(*mvhd, &f->movieTimescale)) {
        *error = "the index has no valid movie header";
        return false;
    }
    for (const Box &trak : moov.kids) {
        if (trak.type != "trak")
            continue;
        Mp4Track t;
        const Box *tkhd = child(trak, "tkhd");
        const Box *mdia = child(trak, "mdia");
        const Box *mdhd = mdia ? child(*mdia, "mdhd") : nullptr;
        const Box *minf = mdia ? child(*mdia, "minf") : nullptr;
        if (!tkhd || !trackIdOf(*tkhd, &t.id) || !mdhd || !timescaleOf(*mdhd, &t.timescale)
            || !minf || !child(*minf, "stbl") || !child(*child(*minf, "stbl"), "stsd")) {
            *error = "a track of the index lacks its header, time scale or sample descriptions";
            return false;
        }
        if (f->tracks.size() == kMaxTracks) {
            *error = "the index has more tracks than a recording";
            return false;
        }
        if (trackById(f, t.id)) {
            *error = "two tracks of the index have the same id";
            return false;
        }
        f->tracks.push_back(t);
    }
    for (const Box &trex : mvex->kids) {
        if (trex.type != "trex")
            continue;
        Reader r = readerOf(trex);
        r.skip(4);
        Mp4Track *t = trackById(f, r.u32());
        const uint32_t description = r.u32(), duration = r.u32(), size = r.u32(), flags = r.u32();
        if (!r.ok || !t) {
            *error = "a fragment declaration (trex) is cut short or names no track";
            return false;
        }
        t->defaultDescription = description;
        t->defaultDuration = duration;
        t->defaultSize = size;
        t->defaultFlags = flags;
    }
    return true;
}

// One fragment's media data: where its payload starts, where the box says it ends, and
// where the file ends it (a crash cuts the last one short).
struct MediaData {
    uint64_t begin = 0, declaredEnd = 0, end = 0;
};

// The defaults and position of one traf, from its tfhd.
struct TrackFragment {
    Mp4Track *track = nullptr;
    uint64_t base = 0; // where the data offsets count from
    uint32_t description, duration, size, flags;
};

bool readTfhd(const Box &tfhd, FragmentedMp4 *f, uint64_t implicitBase, TrackFragment *tf,
              std::string *error)
{
    Reader r = readerOf(tfhd);
    const uint32_t flags = r.u32() & 0xffffff;
    tf->track = trackById(f, r.u32());
    if (!r.ok || !tf->track) {
        *error = "a fragment names a track the index does not have";
        return false;
    }
    const Mp4Track &t = *tf->track;
    tf->base = flags & kBaseDataOffset ? r.u64() : implicitBase;
    tf->description = flags & kDescriptionIndex ? r.u32() : t.defaultDescription;
    tf->duration = flags & kDefaultDuration ? r.u32() : t.defaultDuration;
    tf->size = flags & kDefaultSize ? r.u32() : t.defaultSize;
    tf->flags = flags & kDefaultFlags ? r.u32() : t.defaultFlags;
    if (!r.ok) {
        *error = "a track fragment header (tfhd) is cut short";
        return false;
    }
    return true;
}

// The decoding time a traf starts at (tfdt): the samples before it last until then.
bool applyTfdt(const Box &tfdt, Mp4Track *t, std::string *error)
{
    Reader r = readerOf(tfdt);
    const uint32_t version = r.u32() >> 24;
    const uint64_t dts = version == 1 ? r.u64() : r.u32();
    if (!r.ok) {
        *error = "a fragment's decoding time (tfdt) is cut short";
        return false;
    }
    if (dts == t->nextDts)
        return true;
    // The first sample starts the track's media at 0; a later start would need an edit
    // the initial index does not have.
    if (t->samples.empty() || dts < t->nextDts || dts - t->nextDts > UINT32_MAX
        || uint64_t(t->samples.back().duration) + (dts - t->nextDts) > UINT32_MAX) {
        *error = "the fragments of track " + std::to_string(t->id) + " do not follow one another in time";
        return false;
    }
    t->samples.back().duration += uint32_t(dts - t->nextDts);
    t->nextDts = dts;
    return true;
}

// The samples of one trun, appended to its track. *dataPos: where the next sample's data
// is when the run does not say.
bool readTrun(const Box &trun, const TrackFragment &tf, const MediaData &mdat, uint64_t *dataPos,
              std::string *error)
{
    Reader r = readerOf(trun);
    const uint32_t versionFlags = r.u32();
    const uint32_t version = versionFlags >> 24, flags = versionFlags & 0xffffff;
    const uint32_t count = r.u32();
    if (flags & kDataOffset) {
        const int64_t offset = int32_t(r.u32());
        if (offset < 0 && uint64_t(-offset) > tf.base) {
            *error = "a sample run points before the file";
            return false;
        }
        *dataPos = tf.base + offset;
    }
    const uint32_t firstFlags = flags & kFirstSampleFlags ? r.u32() : tf.flags;
    const unsigned entry = 4 * (!!(flags & kSampleDuration) + !!(flags & kSampleSize)
                                + !!(flags & kSampleFlags) + !!(flags & kSampleCtsOffset));
    // The entries must be there; runs of default-sized samples must fit their media data.
    const bool fits = entry ? count <= r.left / entry
                            : tf.size > 0 && uint64_t(count) * tf.size <= mdat.declaredEnd - mdat.begin;
    if (!r.ok || !fits) {
        *error = "a sample run (trun) claims more samples than it holds";
        return false;
    }
    Mp4Track &t = *tf.track;
    if (count > kMaxSamples - t.samples.size()) {
        *error = "track " + std::to_string(t.id) + " has more samples than a recording";
        return false;
    }
    for (uint32_t i = 0; i < count; ++i) {
        Mp4Sample s;
        s.offset = *dataPos;
        s.description = tf.description;
        s.duration = flags & kSampleDuration ? r.u32() : tf.duration;
        s.size = flags & kSampleSize ? r.u32() : tf.size;
        const uint32_t sampleFlags = flags & kSampleFlags ? r.u32() : i == 0 ? firstFlags : tf.flags;
        const uint32_t cts = flags & kSampleCtsOffset ? r.u32() : 0;
        if (version == 0 && cts > INT32_MAX) {
            *error = "a sample's presentation offset is out of range";
            return false;
        }
        s.ctsOffset = int32_t(cts);
        s.sync = !(sampleFlags & kNonSync);
        if (s.offset < mdat.begin || s.offset > mdat.declaredEnd || s.size > mdat.declaredEnd - s.offset) {
            *error = "a sample lies outside its fragment's media data";
            return false;
        }
        *dataPos = s.offset + s.size;
        // Cut short by a crash: neither this sample nor any after it was written whole.
        if (*dataPos > mdat.end)
            break;
        t.nextDts += s.duration;
        t.samples.push_back(s);
    }
    return true;
}

bool readTraf(const Box &traf, const MediaData &mdat, uint64_t moofAt, uint64_t *implicitBase,
              FragmentedMp4 *f, std::string *error)
{
    const Box *tfhd = child(traf, "tfhd");
    if (!tfhd) {
        *error = "a track fragment has no header (tfhd)";
        return false;
    }
    TrackFragment tf;
    if (!readTfhd(*tfhd, f, *implicitBase, &tf, error))
        return false;
    Reader flagsReader = readerOf(*tfhd);
    const uint32_t flags = flagsReader.u32();
    if ((flags & kBaseIsMoof) && !(flags & kBaseDataOffset))
        tf.base = moofAt;
    if (const Box *tfdt = child(traf, "tfdt"))
        if (!applyTfdt(*tfdt, tf.track, error))
            return false;
    uint64_t dataPos = tf.base;
    for (const Box &trun : traf.kids)
        if (trun.type == "trun" && !readTrun(trun, tf, mdat, &dataPos, error))
            return false;
    *implicitBase = dataPos;
    return true;
}

bool readMoof(const std::string &bytes, uint64_t moofAt, const MediaData &mdat, FragmentedMp4 *f,
              std::string *error)
{
    std::vector<Box> top;
    if (!parseBoxes(reinterpret_cast<const uint8_t *>(bytes.data()), bytes.size(), 0, &top, error))
        return false;
    // Opened here only: the index's list of containers leaves moof and traf closed.
    std::vector<Box> kids;
    const Box &moof = top.at(0);
    if (!parseBoxes(reinterpret_cast<const uint8_t *>(moof.payload.data()), moof.payload.size(), 0,
                    &kids, error))
        return false;
    uint64_t implicitBase = moofAt;
    for (const Box &k : kids) {
        if (k.type != "traf")
            continue;
        Box traf;
        traf.container = true;
        if (!parseBoxes(reinterpret_cast<const uint8_t *>(k.payload.data()), k.payload.size(), 0,
                        &traf.kids, error)
            || !readTraf(traf, mdat, moofAt, &implicitBase, f, error))
            return false;
    }
    ++f->fragments;
    return true;
}

bool readBytes(Mp4Source &source, uint64_t at, uint64_t n, std::string *out, std::string *error)
{
    out->resize(n);
    if (!source.read(at, &(*out)[0], n)) {
        *error = "reading " + std::to_string(n) + " bytes at " + std::to_string(at) + " failed";
        return false;
    }
    return true;
}

// The box header at `at`, with its size checked; *cut when the box runs past the end.
bool headerAt(Mp4Source &source, uint64_t at, Header *h, bool *cut, std::string *error)
{
    const uint64_t end = source.size();
    uint8_t raw[16];
    const uint64_t avail = std::min<uint64_t>(16, end - at);
    if (!source.read(at, raw, avail)) {
        *error = "reading the box header at " + std::to_string(at) + " failed";
        return false;
    }
    if (!parseHeader(raw, avail, end - at, h)) {
        *error = "the box at " + std::to_string(at) + " has an impossible size";
        return false;
    }
    *cut = h->size > end - at;
    return true;
}

// Boxes a fragmented file may have between fragments. Anything else is not our writer's:
// refused rather than hidden inside the media box.
bool isSkippable(const Header &h)
{
    return is(h, "free") || is(h, "skip") || is(h, "mfra") || is(h, "sidx") || is(h, "styp")
        || is(h, "prft");
}

// The ftyp and the initial index, which must come first and whole.
bool readHead(Mp4Source &source, FragmentedMp4 *f, uint64_t *next, std::string *error)
{
    Header h;
    bool cut = false;
    if (source.size() < 8 || !headerAt(source, 0, &h, &cut, error) || !is(h, "ftyp") || cut) {
        *error = "not an MP4 file: it does not start with a file type box (ftyp)";
        return false;
    }
    f->headerAt = h.size;
    if (source.size() - f->headerAt < 8 || !headerAt(source, f->headerAt, &h, &cut, error)
        || !is(h, "moov")) {
        *error = "not a fragmented MP4 of ours: its index (moov) does not follow the file type";
        return false;
    }
    if (cut) {
        *error = "the file ends inside its index";
        return false;
    }
    if (h.size > kMaxIndexBytes) {
        *error = "the index is larger than a fragmented recording's";
        return false;
    }
    if (!readBytes(source, f->headerAt, h.size, &f->initialMoov, error) || !readInitialIndex(f, error))
        return false;
    *next = f->headerAt + h.size;
    return true;
}

} // namespace

bool MemoryMp4Source::read(uint64_t offset, void *buf, size_t n)
{
    if (offset > m_size || n > m_size - offset)
        return false;
    memcpy(buf, m_data + offset, n);
    return true;
}

std::string mp4BoxHeader(const char type[4], uint64_t payload)
{
    std::string h;
    if (payload + 8 <= UINT32_MAX) {
        put32(h, uint32_t(payload + 8));
        h.append(type, 4);
    } else {
        put32(h, 1);
        h.append(type, 4);
        put64(h, payload + 16);
    }
    return h;
}

bool readFragmentedMp4(Mp4Source &source, FragmentedMp4 *out, std::string *error)
{
    FragmentedMp4 f;
    uint64_t at = 0;
    if (!readHead(source, &f, &at, error))
        return false;
    const uint64_t end = source.size();
    f.dataEnd = end;
    std::string moof;        // the last fragment header, waiting for its media data
    uint64_t moofAt = 0;
    // Each pass moves past a whole box header at least (sizes are >= 8), or stops.
    while (end - at >= 8) {
        Header h;
        bool cut = false;
        if (!headerAt(source, at, &h, &cut, error))
            return false;
        if (is(h, "moov")) {
            // A finish cut short before its last step: its index is written over.
            if (!cut && at + h.size != end) {
                *error = "the file goes on after a second index";
                return false;
            }
            f.dataEnd = at;
            break;
        }
        if (is(h, "moof")) {
            if (cut)
                break;
            if (h.size > kMaxFragmentHeaderBytes) {
                *error = "a fragment header is larger than any of ours";
                return false;
            }
            if (!readBytes(source, at, h.size, &moof, error))
                return false;
            moofAt = at;
        } else if (is(h, "mdat")) {
            // A size past the end (cut short) may be any 64-bit number.
            const uint64_t declaredEnd = h.size > UINT64_MAX - at ? UINT64_MAX : at + h.size;
            const MediaData data{at + h.length, declaredEnd, std::min(declaredEnd, end)};
            if (!moof.empty() && !readMoof(moof, moofAt, data, &f, error))
                return false;
            moof.clear();
        } else if (!isSkippable(h)) {
            *error = "unexpected box '" + printable(h.type) + "' at " + std::to_string(at)
                + ": not a fragmented MP4 of ours";
            return false;
        }
        if (cut)
            break;
        at += h.size;
    }
    *out = std::move(f);
    return true;
}

namespace {

// The standard sample tables of one track.
struct Tables {
    std::vector<Box> boxes;   // stts ctts stss stsc stsz stco/co64, those that apply
    uint64_t mediaDuration = 0;   // media time scale
    int64_t presentationEnd = 0;  // end of the last sample shown, media time scale
};

Box leaf(const char *type, std::string payload)
{
    Box b;
    b.type = type;
    b.payload = std::move(payload);
    return b;
}

// Runs of equal values as (count, value) pairs.
template <typename Value, typename Get>
std::vector<std::pair<uint32_t, Value>> runs(const std::vector<Mp4Sample> &samples, Get get)
{
    std::vector<std::pair<uint32_t, Value>> out;
    for (const Mp4Sample &s : samples) {
        if (!out.empty() && out.back().second == get(s))
            ++out.back().first;
        else
            out.push_back({1, get(s)});
    }
    return out;
}

Box timeToSample(const std::vector<Mp4Sample> &samples)
{
    const auto r = runs<uint32_t>(samples, [](const Mp4Sample &s) { return s.duration; });
    std::string p;
    put32(p, 0);
    put32(p, uint32_t(r.size()));
    for (const auto &[count, delta] : r) {
        put32(p, count);
        put32(p, delta);
    }
    return leaf("stts", p);
}

Box compositionOffsets(const std::vector<Mp4Sample> &samples)
{
    const auto r = runs<int32_t>(samples, [](const Mp4Sample &s) { return s.ctsOffset; });
    const bool negative = std::any_of(samples.begin(), samples.end(),
                                      [](const Mp4Sample &s) { return s.ctsOffset < 0; });
    std::string p;
    put32(p, negative ? 1u << 24 : 0);
    put32(p, uint32_t(r.size()));
    for (const auto &[count, offset] : r) {
        put32(p, count);
        put32(p, uint32_t(offset));
    }
    return leaf("ctts", p);
}

Box syncSamples(const std::vector<Mp4Sample> &samples)
{
    std::string entries;
    uint32_t n = 0;
    for (size_t i = 0; i < samples.size(); ++i)
        if (samples[i].sync) {
            put32(entries, uint32_t(i + 1));
            ++n;
        }
    std::string p;
    put32(p, 0);
    put32(p, n);
    return leaf("stss", p + entries);
}

Box sampleSizes(const std::vector<Mp4Sample> &samples)
{
    const bool same = !samples.empty() && std::all_of(samples.begin(), samples.end(),
        [&](const Mp4Sample &s) { return s.size == samples[0].size; });
    std::string p;
    put32(p, 0);
    put32(p, same ? samples[0].size : 0);
    put32(p, uint32_t(samples.size()));
    if (!same)
        for (const Mp4Sample &s : samples)
            put32(p, s.size);
    return leaf("stsz", p);
}

// A chunk is a run of samples stored back to back with one description: a fragment's
// run of samples, usually.
void chunks(const std::vector<Mp4Sample> &samples, Box *stsc, Box *offsets)
{
    std::vector<uint64_t> starts;
    std::vector<std::pair<uint32_t, uint32_t>> perChunk; // samples, description
    for (size_t i = 0; i < samples.size(); ++i) {
        const Mp4Sample &s = samples[i];
        if (i > 0 && samples[i - 1].offset + samples[i - 1].size == s.offset
            && samples[i - 1].description == s.description) {
            ++perChunk.back().first;
            continue;
        }
        starts.push_back(s.offset);
        perChunk.push_back({1, s.description});
    }
    std::string entries;
    uint32_t n = 0;
    for (size_t c = 0; c < perChunk.size(); ++c) {
        if (c > 0 && perChunk[c] == perChunk[c - 1])
            continue;
        put32(entries, uint32_t(c + 1));
        put32(entries, perChunk[c].first);
        put32(entries, perChunk[c].second);
        ++n;
    }
    std::string p;
    put32(p, 0);
    put32(p, n);
    *stsc = leaf("stsc", p + entries);
    const bool wide = !starts.empty() && *std::max_element(starts.begin(), starts.end()) > UINT32_MAX;
    p.clear();
    put32(p, 0);
    put32(p, uint32_t(starts.size()));
    for (uint64_t at : starts)
        wide ? put64(p, at) : put32(p, uint32_t(at));
    *offsets = leaf(wide ? "co64" : "stco", p);
}

bool buildTables(const Mp4Track &t, Tables *out, std::string *error)
{
    const auto &samples = t.samples;
    if (samples.size() > UINT32_MAX / 4) {
        *error = "track " + std::to_string(t.id) + " has more samples than an index holds";
        return false;
    }
    int64_t dts = 0;
    for (const Mp4Sample &s : samples) {
        out->presentationEnd = std::max(out->presentationEnd, dts + s.ctsOffset + int64_t(s.duration));
        dts += s.duration;
    }
    out->mediaDuration = uint64_t(dts);
    out->boxes.push_back(timeToSample(samples));
    if (std::any_of(samples.begin(), samples.end(), [](const Mp4Sample &s) { return s.ctsOffset != 0; }))
        out->boxes.push_back(compositionOffsets(samples));
    if (!std::all_of(samples.begin(), samples.end(), [](const Mp4Sample &s) { return s.sync; }))
        out->boxes.push_back(syncSamples(samples));
    Box stsc, offsets;
    chunks(samples, &stsc, &offsets);
    out->boxes.push_back(stsc);
    out->boxes.push_back(sampleSizes(samples));
    out->boxes.push_back(offsets);
    return true;
}

// `value` (in units of `from`) in units of `to`, rounded up.
uint64_t rescaleUp(uint64_t value, uint32_t from, uint32_t to)
{
    const unsigned __int128 scaled = (static_cast<unsigned __int128>(value) * to + from - 1) / from;
    return scaled > UINT64_MAX ? UINT64_MAX : uint64_t(scaled);
}

// Sets the duration of an mvhd, tkhd or mdhd, whose version 0 has 32-bit times and
// duration with `middle` bytes between them; a duration past 32 bits makes it version 1.
bool setDuration(Box *b, size_t middle, uint64_t duration)
{
    std::string &p = b->payload;
    const bool wide = !p.empty() && p[0] == 1;
    const size_t at = 4 + (wide ? 16 : 8) + middle;
    if (p.size() < at + (wide ? 8 : 4))
        return false;
    std::string d;
    if (wide) {
        put64(d, duration);
        p.replace(at, 8, d);
    } else if (duration <= UINT32_MAX) {
        put32(d, uint32_t(duration));
        p.replace(at, 4, d);
    } else {
        const auto *u = reinterpret_cast<const uint8_t *>(p.data());
        std::string v(1, char(1));
        v.append(p, 1, 3);
        put64(v, be32(u + 4));
        put64(v, be32(u + 8));
        v.append(p, 12, middle);
        put64(v, duration);
        v.append(p, at + 4, std::string::npos);
        p = v;
    }
    return true;
}

// Ends an edit list's open last edit (duration 0: "to the end", as a fragmented file
// must leave it) where the media ends; its sum, movie time scale, is the track's
// duration. The priming the edits skip stays as it was.
bool endEdits(Box *elst, int64_t presentationEnd, uint32_t mediaScale, uint32_t movieScale,
              uint64_t *total, std::string *error)
{
    Reader r = readerOf(*elst);
    const uint32_t versionFlags = r.u32();
    const bool wide = versionFlags >> 24 == 1;
    const uint32_t count = r.u32();
    struct Edit {
        uint64_t duration;
        int64_t mediaTime;
        uint32_t rate;
    };
    std::vector<Edit> edits;
    if (!r.ok || count > r.left / (wide ? 20 : 12)) {
        *error = "an edit list is cut short";
        return false;
    }
    for (uint32_t i = 0; i < count; ++i) {
        Edit e;
        e.duration = wide ? r.u64() : r.u32();
        e.mediaTime = wide ? int64_t(r.u64()) : int32_t(r.u32());
        e.rate = r.u32();
        edits.push_back(e);
    }
    *total = 0;
    bool needWide = wide;
    for (size_t i = 0; i < edits.size(); ++i) {
        Edit &e = edits[i];
        if (i + 1 == edits.size() && e.duration == 0 && e.mediaTime >= 0 && presentationEnd > e.mediaTime)
            e.duration = rescaleUp(uint64_t(presentationEnd - e.mediaTime), mediaScale, movieScale);
        *total += e.duration;
        needWide = needWide || e.duration > UINT32_MAX || e.mediaTime > INT32_MAX;
    }
    std::string p;
    put32(p, (needWide ? 1u << 24 : 0) | (versionFlags & 0xffffff));
    put32(p, count);
    for (const Edit &e : edits) {
        needWide ? put64(p, e.duration) : put32(p, uint32_t(e.duration));
        needWide ? put64(p, uint64_t(e.mediaTime)) : put32(p, uint32_t(e.mediaTime));
        put32(p, e.rate);
    }
    elst->payload = p;
    return true;
}

bool isSampleTable(const std::string &type)
{
    static const char *const kReplaced[] = {"stts", "ctts", "stss", "stsc", "stsz", "stz2", "stco",
                                            "co64", "sdtp", "sbgp", "subs", "saiz", "saio", "cslg"};
    return std::any_of(std::begin(kReplaced), std::end(kReplaced),
                       [&](const char *r) { return type == r; });
}

// Fills one trak; *duration: its duration in the movie time scale.
bool finishTrak(Box *trak, const Mp4Track &t, uint32_t movieScale, uint64_t *duration,
                std::string *error)
{
    Tables tables;
    if (!buildTables(t, &tables, error))
        return false;
    Box *mdia = child(*trak, "mdia");
    Box *minf = mdia ? child(*mdia, "minf") : nullptr;
    Box *stbl = minf ? child(*minf, "stbl") : nullptr;
    if (!stbl || !child(*stbl, "stsd") || !child(*mdia, "mdhd") || !child(*trak, "tkhd")) {
        *error = "a track of the index lacks its headers or sample descriptions";
        return false;
    }
    std::vector<Box> kept;
    for (Box &k : stbl->kids)
        if (!isSampleTable(k.type))
            kept.push_back(std::move(k));
    stbl->kids.clear();
    // The descriptions first, the tables in their usual order, then whatever else was there.
    auto stsd = std::find_if(kept.begin(), kept.end(), [](const Box &b) { return b.type == "stsd"; });
    stbl->kids.push_back(std::move(*stsd));
    kept.erase(stsd);
    for (Box &b : tables.boxes)
        stbl->kids.push_back(std::move(b));
    for (Box &b : kept)
        stbl->kids.push_back(std::move(b));

    *duration = rescaleUp(tables.mediaDuration, t.timescale, movieScale);
    Box *edts = child(*trak, "edts");
    Box *elst = edts ? child(*edts, "elst") : nullptr;
    if (elst && !endEdits(elst, tables.presentationEnd, t.timescale, movieScale, duration, error))
        return false;
    if (!setDuration(child(*mdia, "mdhd"), 4, tables.mediaDuration)
        || !setDuration(child(*trak, "tkhd"), 8, *duration)) {
        *error = "a track or media header is cut short";
        return false;
    }
    return true;
}

} // namespace

bool buildStandardMoov(const FragmentedMp4 &file, std::string *moov, std::string *error)
{
    std::vector<Box> top;
    const auto *bytes = reinterpret_cast<const uint8_t *>(file.initialMoov.data());
    if (!parseBoxes(bytes, file.initialMoov.size(), 0, &top, error))
        return false;
    if (top.size() != 1 || top[0].type != "moov") {
        *error = "the initial index is not one moov box";
        return false;
    }
    Box &index = top[0];
    uint64_t longest = 0;
    std::vector<Box> kids;
    for (Box &k : index.kids) {
        if (k.type == "mvex")
            continue; // no fragments follow any more
        if (k.type == "trak") {
            uint32_t id = 0;
            const Box *tkhd = child(k, "tkhd");
            const Mp4Track *t = nullptr;
            for (const Mp4Track &c : file.tracks)
                if (tkhd && trackIdOf(*tkhd, &id) && c.id == id)
                    t = &c;
            // readFragmentedMp4 found every trak whole; a caller's own `file` may not match.
            if (!t) {
                *error = "a track of the index is not among those read";
                return false;
            }
            // As a standard muxer leaves it: a track without samples is not declared.
            if (t->samples.empty())
                continue;
            uint64_t duration = 0;
            if (!finishTrak(&k, *t, file.movieTimescale, &duration, error))
                return false;
            longest = std::max(longest, duration);
        }
        kids.push_back(std::move(k));
    }
    index.kids = std::move(kids);
    Box *mvhd = child(index, "mvhd");
    if (!mvhd || !setDuration(mvhd, 4, longest)) {
        *error = "the movie header is cut short";
        return false;
    }
    moov->clear();
    serialize(index, moov);
    return true;
}
