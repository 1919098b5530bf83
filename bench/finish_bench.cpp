// What finishing a fragmented recording costs against its length: in place (the index
// appended, the header rewritten) and by the copy with its index at the front
// (finish_recording --faststart, formerly the stop's path). The recordings are made fast:
// one group of pictures is encoded and repeated, each picture padded with filler to the
// bit rate asked for (key frames three times the others), the sound is AAC-sized blocks
// of random bytes, all through the writer's own fragmenting options. Each figure is the median over the repeats with the range beside it.
//
// usage: bench_finish [--lengths S,S,...] [--bitrate N] [--repeats N] [--dir D]
#include <QCoreApplication>
#include <QCommandLineParser>
#include <QStringList>
#include <algorithm>
#include <chrono>
#include <cstring>
#include <cstdio>
#include <filesystem>
#include <random>
#include <string>
#include <unistd.h>
#include <vector>

#include "commandline.h"
#include "media/inplacemp4.h"
#include "media/periodicsync.h"
#include "media/standardmp4.h"

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavformat/avformat.h>
#include <libavutil/channel_layout.h>
#include <libavutil/error.h>
#include <libavutil/log.h>
#include <libavutil/mem.h>
#include <libavutil/opt.h>
}

namespace {

using Clock = std::chrono::steady_clock;
constexpr int kFps = 30;
constexpr int kWidth = 320, kHeight = 180; // of the encoded pictures
constexpr int kGop = 12;          // pictures per key frame, as the writer's encoder
constexpr int kRate = 48000;
constexpr int kAudioBlock = 1024; // samples per sound packet
constexpr int kAudioBytes = 170;  // per sound packet: 64 kbit/s
constexpr int64_t kFragmentUs = 1000000;
// Bounds of the options.
constexpr double kMaxSeconds = 7200;
constexpr int kMaxRepeats = 100;
constexpr long long kMaxBitrate = 200000000; // bit/s

struct Settings {
    std::vector<double> lengths{10, 60, 600}; // seconds
    long long bitrate = 20000000;             // bit/s of the picture
    int repeats = 3;
    std::string dir = "/tmp";
};

bool failed(const char *what, int err)
{
    char text[AV_ERROR_MAX_STRING_SIZE] = {0};
    av_strerror(err, text, sizeof text);
    std::fprintf(stderr, "%s: %s\n", what, text);
    return false;
}

AVStream *addStream(AVFormatContext *oc, AVMediaType type)
{
    AVStream *st = avformat_new_stream(oc, nullptr);
    if (!st)
        return nullptr;
    AVCodecParameters *par = st->codecpar;
    par->codec_type = type;
    if (type == AVMEDIA_TYPE_VIDEO) {
        st->time_base = {1, kFps};
        return st;
    }
    par->codec_id = AV_CODEC_ID_AAC;
    par->sample_rate = kRate;
    par->frame_size = kAudioBlock;
    av_channel_layout_default(&par->ch_layout, 2);
    // AAC LC, 48 kHz, stereo
    par->extradata = static_cast<uint8_t *>(av_mallocz(2 + AV_INPUT_BUFFER_PADDING_SIZE));
    if (!par->extradata)
        return nullptr;
    par->extradata[0] = 0x11;
    par->extradata[1] = 0x90;
    par->extradata_size = 2;
    st->time_base = {1, kRate};
    return st;
}

// One group of pictures of noise, H.264 with its parameter sets apart (as MP4 keeps them).
struct Gop {
    AVCodecParameters *par = nullptr;
    std::vector<std::vector<uint8_t>> pictures; // packets, length-prefixed NAL units

    ~Gop() { avcodec_parameters_free(&par); }
};

bool encodeGop(Gop &gop)
{
    const AVCodec *codec = avcodec_find_encoder(AV_CODEC_ID_H264);
    AVCodecContext *c = codec ? avcodec_alloc_context3(codec) : nullptr;
    AVFrame *frame = av_frame_alloc();
    AVPacket *pkt = av_packet_alloc();
    bool ok = c && frame && pkt;
    if (ok) {
        c->width = kWidth;
        c->height = kHeight;
        c->pix_fmt = AV_PIX_FMT_YUV420P;
        c->time_base = {1, kFps};
        c->gop_size = kGop;
        c->max_b_frames = 0;
        c->flags |= AV_CODEC_FLAG_GLOBAL_HEADER;
        av_opt_set(c->priv_data, "preset", "ultrafast", 0);
        frame->format = c->pix_fmt;
        frame->width = kWidth;
        frame->height = kHeight;
    }
    int ret = 0;
    ok = ok && ((ret = avcodec_open2(c, codec, nullptr)) >= 0 || failed("opening the H.264 encoder", ret));
    ok = ok && ((ret = av_frame_get_buffer(frame, 0)) >= 0 || failed("allocating a picture", ret));
    std::mt19937 random(2);
    for (int f = 0; ok && f <= kGop; ++f) {
        ok = (ret = av_frame_make_writable(frame)) >= 0 || failed("writing a picture", ret);
        // A moving gradient with a little noise: small packets, which the filler pads.
        for (int plane = 0; ok && plane < 3; ++plane)
            for (int y = 0; y < (plane ? kHeight / 2 : kHeight); ++y)
                for (int x = 0; x < (plane ? kWidth / 2 : kWidth); ++x)
                    frame->data[plane][y * frame->linesize[plane] + x] =
                        plane ? 128 : uint8_t(x + y + 4 * f + (random() & 3));
        frame->pts = f;
        ok = ok && ((ret = avcodec_send_frame(c, f < kGop ? frame : nullptr)) >= 0 || failed("encoding", ret));
        while (ok && (ret = avcodec_receive_packet(c, pkt)) >= 0) {
            gop.pictures.emplace_back(pkt->data, pkt->data + pkt->size);
            av_packet_unref(pkt);
        }
    }
    ok = ok && int(gop.pictures.size()) == kGop;
    ok = ok && (gop.par = avcodec_parameters_alloc()) && avcodec_parameters_from_context(gop.par, c) >= 0;
    av_packet_free(&pkt);
    av_frame_free(&frame);
    avcodec_free_context(&c);
    return ok;
}

// `picture` followed by a filler NAL unit that brings it to `size` bytes.
void padded(const std::vector<uint8_t> &picture, int size, uint8_t *out)
{
    std::copy(picture.begin(), picture.end(), out);
    const int fill = size - int(picture.size()) - 4;
    if (fill < 2)
        return;
    out += picture.size();
    for (int i = 0; i < 4; ++i)
        *out++ = uint8_t(fill >> (24 - 8 * i));
    *out++ = 12; // filler data
    std::fill_n(out, fill - 2, 0xff);
    out[fill - 2] = 0x80; // its end
}

// A packet of `picture`, padded, or of noise from `at` when there is none.
bool writePacket(AVFormatContext *oc, AVPacket *pkt, int stream, int64_t pts, int64_t duration,
                 int size, bool key, const std::vector<uint8_t> *picture,
                 const std::vector<uint8_t> &noise, size_t at)
{
    int ret = av_new_packet(pkt, size);
    if (ret < 0)
        return failed("allocating a packet", ret);
    if (picture)
        padded(*picture, size, pkt->data);
    else
        std::copy_n(noise.begin() + long(at % (noise.size() - size_t(size))), size, pkt->data);
    pkt->stream_index = stream;
    pkt->pts = pkt->dts = pts;
    pkt->duration = duration;
    pkt->flags = key ? AV_PKT_FLAG_KEY : 0;
    ret = av_interleaved_write_frame(oc, pkt);
    if (ret < 0)
        return failed("writing a packet", ret);
    return true;
}

// A fragmented MP4 of `seconds` as the writer lays it out.
bool makeRecording(const std::string &path, double seconds, long long bitrate, const Gop &gop,
                   const std::vector<uint8_t> &noise)
{
    AVFormatContext *oc = nullptr;
    int ret = avformat_alloc_output_context2(&oc, nullptr, "mp4", path.c_str());
    if (ret < 0)
        return failed("setting up the recording", ret);
    AVStream *video = addStream(oc, AVMEDIA_TYPE_VIDEO);
    bool ok = video && avcodec_parameters_copy(video->codecpar, gop.par) >= 0
        && addStream(oc, AVMEDIA_TYPE_AUDIO);
    AVDictionary *options = nullptr;
    av_dict_set(&options, "movflags", "frag_keyframe+empty_moov+default_base_moof+delay_moov", 0);
    av_dict_set_int(&options, "frag_duration", kFragmentUs, 0);
    ok = ok && ((ret = avio_open(&oc->pb, path.c_str(), AVIO_FLAG_WRITE)) >= 0 || failed("opening", ret));
    ok = ok && ((ret = avformat_write_header(oc, &options)) >= 0 || failed("writing the header", ret));
    av_dict_free(&options);
    AVPacket *pkt = av_packet_alloc();
    const int frames = int(seconds * kFps);
    // A key frame three times the size of the others, the whole at the bit rate.
    const int other = int(bitrate / 8 * kGop / kFps / (kGop + 2));
    int64_t audioPts = 0;
    size_t at = 0;
    for (int f = 0; ok && pkt && f < frames; ++f) {
        const bool key = f % kGop == 0;
        const std::vector<uint8_t> &picture = gop.pictures[size_t(f % kGop)];
        const int size = std::max(int(picture.size()), key ? 3 * other : other);
        ok = writePacket(oc, pkt, 0, f, 1, size, key, &picture, noise, 0);
        for (; ok && audioPts * kFps < int64_t(f + 1) * kRate; audioPts += kAudioBlock)
            ok = writePacket(oc, pkt, 1, audioPts, kAudioBlock, kAudioBytes, true, nullptr, noise, at += 331);
    }
    ok = ok && pkt && ((ret = av_write_trailer(oc)) >= 0 || failed("writing the trailer", ret));
    av_packet_free(&pkt);
    avio_closep(&oc->pb);
    avformat_free_context(oc);
    return ok;
}

double median(std::vector<double> v)
{
    std::sort(v.begin(), v.end());
    const size_t n = v.size();
    return n % 2 ? v[n / 2] : (v[n / 2 - 1] + v[n / 2]) / 2;
}

// "median (min-max)" in milliseconds.
std::string spread(const std::vector<double> &seconds)
{
    char text[96];
    std::snprintf(text, sizeof text, "%9.1f (%.1f-%.1f)", median(seconds) * 1e3,
                  *std::min_element(seconds.begin(), seconds.end()) * 1e3,
                  *std::max_element(seconds.begin(), seconds.end()) * 1e3);
    return text;
}

// Seconds `finish` takes on a fresh copy of `recording`; negative when it failed.
template <typename Finish>
double timeFinish(const std::string &recording, const std::string &work, Finish finish)
{
    std::filesystem::copy_file(recording, work, std::filesystem::copy_options::overwrite_existing);
    // On the disk first, as the writer's periodic sync leaves a recording.
    if (const int err = syncPath(work))
        std::fprintf(stderr, "syncing %s: %s\n", work.c_str(), strerror(err));
    std::string error;
    const auto t0 = Clock::now();
    const bool ok = finish(work, &error);
    const double seconds = std::chrono::duration<double>(Clock::now() - t0).count();
    std::filesystem::remove(work);
    if (!ok)
        std::fprintf(stderr, "finishing %s failed: %s\n", work.c_str(), error.c_str());
    return ok ? seconds : -1;
}

void readLengths(const QCommandLineParser &p, std::vector<double> &lengths)
{
    if (!p.isSet(QStringLiteral("lengths")))
        return;
    lengths.clear();
    for (const QString &item : p.value(QStringLiteral("lengths")).split(',')) {
        bool ok = false;
        const double s = item.toDouble(&ok);
        if (!ok || s <= 0 || s > kMaxSeconds)
            commandline::usageError(QStringLiteral("--lengths: not a length in seconds: ") + item);
        lengths.push_back(s);
    }
}

} // namespace

int main(int argc, char **argv)
{
    QCoreApplication app(argc, argv);
    QCommandLineParser p;
    p.addOptions({
        {QStringLiteral("lengths"), QStringLiteral("Recording lengths in seconds (10,60,600)."),
         QStringLiteral("S,S,...")},
        {QStringLiteral("bitrate"), QStringLiteral("Picture bit rate in bit/s (20000000)."),
         QStringLiteral("N")},
        {QStringLiteral("repeats"), QStringLiteral("Interleaved repeats of both finishes (3)."),
         QStringLiteral("N")},
        {QStringLiteral("dir"), QStringLiteral("Directory for the files (/tmp)."), QStringLiteral("DIR")},
    });
    commandline::parseOrExit(p, QStringLiteral("Finishes fragmented recordings of several lengths "
                                               "in place and by a copy, and times both."));
    Settings s;
    readLengths(p, s.lengths);
    commandline::readInteger(p, QStringLiteral("bitrate"), s.bitrate, 8000, kMaxBitrate);
    commandline::readInteger(p, QStringLiteral("repeats"), s.repeats, 1, kMaxRepeats);
    if (p.isSet(QStringLiteral("dir")))
        s.dir = p.value(QStringLiteral("dir")).toStdString();
    // The sound packets are noise, which the copy's probe of the streams complains of.
    av_log_set_level(AV_LOG_FATAL);
    const std::string dir = s.dir + "/finish-bench-" + std::to_string(getpid());
    std::filesystem::create_directories(dir);
    Gop gop;
    if (!encodeGop(gop))
        return 1;
    std::vector<uint8_t> noise(1 << 20);
    std::mt19937 random(1);
    for (uint8_t &b : noise)
        b = uint8_t(random());
    std::printf("picture %lld bit/s at %d fps, sound 64 kbit/s; median (min-max) over %d repeats, ms\n",
                s.bitrate, kFps, s.repeats);
    std::printf("%10s %10s %26s %26s\n", "length s", "MB", "in place", "copy (--faststart)");
    int status = 0;
    for (double length : s.lengths) {
        const std::string recording = dir + "/recording.mp4", work = dir + "/work.mp4";
        if (!makeRecording(recording, length, s.bitrate, gop, noise)) {
            status = 1;
            break;
        }
        std::vector<double> inPlace, copy;
        for (int r = 0; r < s.repeats; ++r) {
            // Alternate which goes first, so neither always meets a warm or busy machine.
            for (int k = 0; k < 2; ++k) {
                const bool place = (k == 0) == (r % 2 == 0);
                const double t = place ? timeFinish(recording, work, [](const std::string &f, std::string *e) {
                    return finishMp4InPlace(f, e);
                }) : timeFinish(recording, work, rewriteAsStandardMp4);
                if (t < 0)
                    status = 1;
                (place ? inPlace : copy).push_back(t);
            }
        }
        std::printf("%10.0f %10.1f %26s %26s\n", length, double(std::filesystem::file_size(recording)) / 1e6,
                    spread(inPlace).c_str(), spread(copy).c_str());
        std::fflush(stdout);
        std::filesystem::remove(recording);
    }
    std::filesystem::remove_all(dir);
    return status;
}
