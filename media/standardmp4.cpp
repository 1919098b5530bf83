#include "standardmp4.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>
#include <vector>

#include "periodicsync.h"
#include "safefile.h"
#include "logcategories.h"

extern "C" {
#include <libavformat/avformat.h>
#include <libavutil/error.h>
#include <libavutil/mem.h>
}

namespace {

// Both files of one rewrite. Each step returns false after setting `error`.
struct Rewrite {
    std::string path;                 // the fragmented file, replaced at the end
    std::string temp;                 // the standard file while it is written
    AVFormatContext *in = nullptr;    // owned
    AVFormatContext *out = nullptr;   // owned; its pb is open while tempOpen
    bool tempOpen = false;            // the temporary file exists and is ours to remove
    std::string error;

    ~Rewrite()
    {
        avformat_close_input(&in);
        if (out) {
            safefile::closeIo(&out->pb);
            avformat_free_context(out);
        }
    }

    bool fail(const std::string &step, int avError)
    {
        char text[AV_ERROR_MAX_STRING_SIZE] = {0};
        av_strerror(avError, text, sizeof text);
        error = step + ": " + text;
        return false;
    }
};

std::string directoryOf(const std::string &path)
{
    const size_t slash = path.rfind('/');
    if (slash == std::string::npos)
        return ".";
    return slash == 0 ? "/" : path.substr(0, slash);
}

bool openInput(Rewrite &r)
{
    // Through the file protocol only, so a colon in the name is an ordinary character.
    AVDictionary *options = nullptr;
    av_dict_set(&options, "protocol_whitelist", "file", 0);
    int ret = avformat_open_input(&r.in, ("file:" + r.path).c_str(), nullptr, &options);
    av_dict_free(&options);
    if (ret < 0)
        return r.fail("opening " + r.path, ret);
    ret = avformat_find_stream_info(r.in, nullptr);
    if (ret < 0)
        return r.fail("reading the streams of " + r.path, ret);
    return true;
}

// The muxer the name asks for: MOV for ".mov", MP4 for everything else.
const AVOutputFormat *muxerFor(const std::string &path)
{
    const AVOutputFormat *guessed = av_guess_format(nullptr, path.c_str(), nullptr);
    if (guessed && strcmp(guessed->name, "mov") == 0)
        return guessed;
    return av_guess_format("mp4", nullptr, nullptr);
}

bool createOutput(Rewrite &r)
{
    int ret = avformat_alloc_output_context2(&r.out, muxerFor(r.path), nullptr, r.path.c_str());
    if (ret < 0)
        return r.fail("setting up the copy of " + r.path, ret);
    for (unsigned i = 0; i < r.in->nb_streams; ++i) {
        const AVStream *from = r.in->streams[i];
        AVStream *to = avformat_new_stream(r.out, nullptr);
        if (!to)
            return r.fail("adding stream " + std::to_string(i), AVERROR(ENOMEM));
        ret = avcodec_parameters_copy(to->codecpar, from->codecpar);
        if (ret < 0)
            return r.fail("copying the parameters of stream " + std::to_string(i), ret);
        // The tag is the input's choice; the muxer picks its own for the codec.
        to->codecpar->codec_tag = 0;
        to->time_base = from->time_base;
    }
    // A fresh name, created exclusively: whatever is planted at a predictable one is
    // neither written through nor in the way.
    std::string error;
    const int fd = safefile::createTemp(standardTempPath(r.path) + ".", &r.temp, &error);
    if (fd < 0) {
        r.error = "creating a file beside " + r.path + ": " + error;
        return false;
    }
    r.tempOpen = true;
    if (fchmod(fd, safefile::publicMode()) != 0) {
        close(fd);
        return r.fail("setting the mode of " + r.temp, AVERROR(errno));
    }
    r.out->pb = safefile::openIo(fd);
    if (!r.out->pb)
        return r.fail("creating " + r.temp, AVERROR(ENOMEM));
    r.out->flags |= AVFMT_FLAG_CUSTOM_IO;
    // faststart reads the file back by its name: through the file protocol only.
    av_freep(&r.out->url);
    r.out->url = av_strdup(("file:" + r.temp).c_str());
    r.out->protocol_whitelist = av_strdup("file");
    if (!r.out->url || !r.out->protocol_whitelist)
        return r.fail("creating " + r.temp, AVERROR(ENOMEM));
    AVDictionary *options = nullptr;
    // faststart: the index moves ahead of the media data once it is written.
    av_dict_set(&options, "movflags", "+faststart", 0);
    ret = avformat_write_header(r.out, &options);
    av_dict_free(&options);
    if (ret < 0)
        return r.fail("writing the header of " + r.temp, ret);
    return true;
}

// Timestamps are copied as they are: the sound's first packet keeps its negative time
// (the encoder's priming), so the new index skips it exactly as the writer's did.
bool copyPackets(Rewrite &r)
{
    AVPacket *pkt = av_packet_alloc();
    if (!pkt)
        return r.fail("copying the packets", AVERROR(ENOMEM));
    // Per stream, the dts of the previous packet (input time base).
    std::vector<int64_t> lastDts(r.in->nb_streams, AV_NOPTS_VALUE);
    int ret;
    while ((ret = av_read_frame(r.in, pkt)) >= 0) {
        // A file cut short by a crash can end inside a packet: that part is left out.
        if (pkt->flags & AV_PKT_FLAG_CORRUPT) {
            av_packet_unref(pkt);
            continue;
        }
        const AVStream *from = r.in->streams[pkt->stream_index];
        const AVStream *to = r.out->streams[pkt->stream_index];
        // Fragments do not always tell a sample's duration. The muxer takes it from the
        // next packet's time, except for the last, which without one would end where it
        // starts and players drop it: the interval before it is the best guess.
        int64_t &last = lastDts[pkt->stream_index];
        if (pkt->duration == 0 && last != AV_NOPTS_VALUE && pkt->dts != AV_NOPTS_VALUE)
            pkt->duration = pkt->dts - last;
        last = pkt->dts;
        av_packet_rescale_ts(pkt, from->time_base, to->time_base);
        pkt->pos = -1;
        ret = av_interleaved_write_frame(r.out, pkt);
        if (ret < 0) {
            av_packet_free(&pkt);
            return r.fail("writing the packets to " + r.temp, ret);
        }
    }
    av_packet_free(&pkt);
    if (ret != AVERROR_EOF)
        return r.fail("reading the packets of " + r.path, ret);
    return true;
}

bool writeTrailer(Rewrite &r)
{
    int ret = av_write_trailer(r.out);
    if (ret < 0)
        return r.fail("writing the index of " + r.temp, ret);
    // Closing flushes what is still buffered: a full disk can show only here.
    ret = safefile::closeIo(&r.out->pb);
    if (ret < 0)
        return r.fail("closing " + r.temp, ret);
    return true;
}

bool syncTemp(Rewrite &r)
{
    const int err = syncPath(r.temp);
    if (err != 0)
        return r.fail("syncing " + r.temp, AVERROR(err));
    return true;
}

bool replaceOriginal(Rewrite &r)
{
    if (rename(r.temp.c_str(), r.path.c_str()) != 0)
        return r.fail("renaming " + r.temp + " to " + r.path, AVERROR(errno));
    r.tempOpen = false;
    // The new name reaches the disk with its directory. Should that fail, a power cut may
    // bring back the fragmented file, which plays too: the rewrite stands, with a warning.
    const int err = syncPath(directoryOf(r.path));
    if (err != 0)
        qCWarning(lcMedia, "Syncing the directory of %s failed: %s", r.path.c_str(), strerror(err));
    return true;
}

} // namespace

std::string standardTempPath(const std::string &path)
{
    const size_t slash = path.rfind('/');
    const std::string dir = slash == std::string::npos ? "" : path.substr(0, slash + 1);
    const std::string name = slash == std::string::npos ? path : path.substr(slash + 1);
    return dir + "." + name + ".finishing";
}

namespace {

// Room beyond the original's size that the copy may need for its index, bytes.
constexpr unsigned long long kCopyMargin = 1ULL << 20;

// The copy is about as large as the original: on a disk without room for it, it is not
// begun, so that a full disk never costs the playable original its last free blocks.
bool hasRoomForCopy(Rewrite &r)
{
    struct stat st;
    if (stat(r.path.c_str(), &st) != 0) {
        r.error = std::string("stat: ") + strerror(errno);
        return false;
    }
    struct statvfs fs;
    if (statvfs(directoryOf(r.path).c_str(), &fs) != 0) {
        r.error = std::string("statvfs: ") + strerror(errno);
        return false;
    }
    const unsigned long long room = static_cast<unsigned long long>(fs.f_bavail) * fs.f_frsize;
    const unsigned long long needed = static_cast<unsigned long long>(st.st_size) + kCopyMargin;
    if (room < needed) {
        r.error = "not enough free space for the copy (" + std::to_string(room) + " bytes free, "
            + std::to_string(needed) + " needed)";
        return false;
    }
    return true;
}

} // namespace

bool rewriteAsStandardMp4(const std::string &path, std::string *error)
{
    Rewrite r;
    r.path = path;
    const bool ok = hasRoomForCopy(r) && openInput(r) && createOutput(r) && copyPackets(r)
        && writeTrailer(r) && syncTemp(r) && replaceOriginal(r);
    if (!ok && r.tempOpen) {
        if (r.out)
            safefile::closeIo(&r.out->pb);
        unlink(r.temp.c_str());
    }
    if (!ok && error)
        *error = r.error;
    return ok;
}
