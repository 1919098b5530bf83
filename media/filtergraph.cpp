#include "filtergraph.h"

#include <cstdio>
#include <cstring>
#include <unistd.h>

extern "C" {
#include <libavformat/avformat.h>
#include <libavutil/opt.h>
}

namespace {

// Frees the two in/out records however the build ends.
struct InOut {
    AVFilterInOut *outputs = avfilter_inout_alloc();
    AVFilterInOut *inputs = avfilter_inout_alloc();
    ~InOut()
    {
        avfilter_inout_free(&inputs);
        avfilter_inout_free(&outputs);
    }
};

// Characters each parser reads as syntax; whitespace also, where it would be trimmed.
constexpr const char *kOptionSyntax = "\\':";
constexpr const char *kGraphSyntax = "\\'[],;";
constexpr const char *kWhitespace = " \t\n\r\f\v";

std::string escaped(const std::string &value, const char *syntax)
{
    std::string out;
    for (const char c : value) {
        if (strchr(syntax, c) || strchr(kWhitespace, c))
            out += '\\';
        out += c;
    }
    return out;
}

// Every demuxer that reads one picture of an image codec ("png_pipe", "jpeg_pipe", ...).
std::string imageDemuxers()
{
    static const std::string suffix = "_pipe";
    std::string list;
    void *it = nullptr;
    while (const AVInputFormat *f = av_demuxer_iterate(&it)) {
        const std::string name = f->name;
        if (name.size() > suffix.size()
            && name.compare(name.size() - suffix.size(), suffix.size(), suffix) == 0)
            list += (list.empty() ? "" : ",") + name;
    }
    return list;
}

} // namespace

std::string graphOptionValue(const std::string &value)
{
    return escaped(escaped(value, kOptionSyntax), kGraphSyntax);
}

std::string drawtextLiteral(const std::string &text)
{
    return escaped(text, "\\%");
}

std::string pictureMovieOptions(const std::string &path)
{
    // "file:" makes a colon in the name an ordinary character.
    return graphOptionValue("file:" + path) + ":format_opts="
        + graphOptionValue("protocol_whitelist=file:format_whitelist=" + imageDemuxers());
}

int checkFontFile(const char *path)
{
    if (access(path, R_OK) == 0)
        return 0;
    av_log(nullptr, AV_LOG_ERROR, "Cannot load font file %s\n", path);
    return AVERROR(ENOENT);
}

int FilterGraph::build(int width, int height, AVPixelFormat format, AVRational timeBase,
                       AVRational sar, const char *description, const FilterGraphLines &lines)
{
    const AVFilter *buffersrc = avfilter_get_by_name("buffer");
    const AVFilter *buffersink = avfilter_get_by_name("buffersink");
    InOut io;
    const enum AVPixelFormat pixFmts[] = {AV_PIX_FMT_YUV420P, AV_PIX_FMT_NONE};
    avfilter_graph_free(&m_graph);
    m_graph = avfilter_graph_alloc();
    if (!io.outputs || !io.inputs || !m_graph || !buffersrc || !buffersink) {
        printf("initFilters %d\n", lines.alloc);
        return AVERROR(ENOMEM);
    }
    // Pictures pass one at a time: the logo's decoder and the filters run on the caller's
    // thread rather than starting a thread pool for every graph.
    m_graph->nb_threads = 1;
    char args[512];
    snprintf(args, sizeof args, "video_size=%dx%d:pix_fmt=%d:time_base=%d/%d:pixel_aspect=%d/%d",
             width, height, format, timeBase.num, timeBase.den, sar.num, sar.den);
    int ret = avfilter_graph_create_filter(&m_source, buffersrc, "in", args, nullptr, m_graph);
    if (ret < 0) {
        av_log(nullptr, AV_LOG_ERROR, "Cannot create buffer source\n");
        printf("initFilters %d\n", lines.source);
        return ret;
    }
    ret = avfilter_graph_create_filter(&m_sink, buffersink, "out", nullptr, nullptr, m_graph);
    if (ret < 0) {
        av_log(nullptr, AV_LOG_ERROR, "Cannot create buffer sink\n");
        printf("initFilters %d\n", lines.sink);
        return ret;
    }
    ret = av_opt_set_int_list(m_sink, "pix_fmts", pixFmts, AV_PIX_FMT_NONE, AV_OPT_SEARCH_CHILDREN);
    if (ret < 0) {
        av_log(nullptr, AV_LOG_ERROR, "Cannot set output pixel format\n");
        return ret;
    }
    io.outputs->name = av_strdup("in");
    io.inputs->name = av_strdup("out");
    if (!io.outputs->name || !io.inputs->name) {
        av_log(nullptr, AV_LOG_ERROR, "Cannot name the graph's ends\n");
        return AVERROR(ENOMEM);
    }
    io.outputs->filter_ctx = m_source;
    io.outputs->pad_idx = 0;
    io.outputs->next = nullptr;
    io.inputs->filter_ctx = m_sink;
    io.inputs->pad_idx = 0;
    io.inputs->next = nullptr;
    ret = avfilter_graph_parse_ptr(m_graph, description, &io.inputs, &io.outputs, nullptr);
    if (ret < 0)
        return ret;
    return avfilter_graph_config(m_graph, nullptr);
}

AVFilterGraph *FilterGraph::release(AVFilterContext **source, AVFilterContext **sink)
{
    *source = m_source;
    *sink = m_sink;
    AVFilterGraph *g = m_graph;
    m_graph = nullptr;
    m_source = nullptr;
    m_sink = nullptr;
    return g;
}
