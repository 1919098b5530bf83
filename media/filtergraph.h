#ifndef FILTERGRAPH_H
#define FILTERGRAPH_H

#include <cstdint>
#include <string>

extern "C" {
#include <libavfilter/avfilter.h>
#include <libavutil/pixfmt.h>
#include <libavutil/rational.h>
}

// The numbers printed with "initFilters %d" when the graph, its source or its sink
// cannot be made; each caller has its own.
struct FilterGraphLines {
    int alloc;
    int source;
    int sink;
};

// Debian's drawtext falls back to any fontconfig font when its font file cannot be
// read; a missing font must fail instead. 0, or AVERROR(ENOENT) after a message.
int checkFontFile(const char *path);

// A value for one filter option inside a graph description, escaped for the option
// parser (":" ends an option) and then for the graph parser ("," ";" "[" "]" end a
// filter), so that it reaches the filter exactly as given and can add nothing.
std::string graphOptionValue(const std::string &value);
// A text drawtext draws exactly as given: its own expansion ("%{...}", "\") escaped.
std::string drawtextLiteral(const std::string &text);
// The "movie" options that read `path` as a picture: through the file protocol only, by
// an image demuxer only (whatever the name says), escaped as graphOptionValue.
std::string pictureMovieOptions(const std::string &path);

// A buffer -> description -> buffersink graph for one picture format, as the watermark
// and the JPEG writers build it. Owns the graph until release().
class FilterGraph
{
public:
    FilterGraph() = default;
    ~FilterGraph() { avfilter_graph_free(&m_graph); }
    FilterGraph(const FilterGraph &) = delete;
    FilterGraph &operator=(const FilterGraph &) = delete;

    // 0, or a negative FFmpeg code after the message of the step that failed.
    int build(int width, int height, AVPixelFormat format, AVRational timeBase, AVRational sar,
              const char *description, const FilterGraphLines &lines);
    // Hands the graph over to the caller.
    AVFilterGraph *release(AVFilterContext **source, AVFilterContext **sink);

    AVFilterContext *source() const { return m_source; }
    AVFilterContext *sink() const { return m_sink; }

private:
    AVFilterGraph *m_graph = nullptr;
    AVFilterContext *m_source = nullptr;
    AVFilterContext *m_sink = nullptr;
};

#endif // FILTERGRAPH_H
