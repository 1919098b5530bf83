#include "mediawriter.h"

#include <cstdio>

extern "C" {
#include <libavfilter/avfilter.h>
#include <libavfilter/buffersink.h>
#include <libavfilter/buffersrc.h>
#include <libavutil/opt.h>
}

#include "filtergraph.h"

namespace {

// Every value is filled in escaped for the graph syntax, in one pass (a value holding
// "%2" is not filled again), so the graph is exactly these filters.
const char *const kLogoTemplate = "movie=%1[wm];[in][wm]overlay=%2:%3[out]";
const char *const kTextTemplate =
    "drawtext=fontfile=%1:fontsize=%2:text=%3:x=%4:y=%5:fontcolor=%6";
const char *const kTextAndLogoTemplate =
    "drawtext=fontfile=%1:                       fontsize=%2:                 fontcolor=%3:"
    "                 x=%4:                y=%5:                text=%6 [text];movie=%7 [wm];"
    "         [text] [wm] overlay=%8:%9 [out]";
// Put before the text when the local time is drawn.
const char *const kLocalTime = "%{localtime} ";

// Where initFilters reports each failure ("initFilters %d").
constexpr FilterGraphLines kWatermarkLines{752, 784, 794};

// 0xRRGGBB as at least six lowercase hex digits.
QString colour(int rgb)
{
    return QStringLiteral("%1").arg(static_cast<uint>(rgb), 6, 16, QLatin1Char('0'));
}

QString value(const QString &v)
{
    return QString::fromStdString(graphOptionValue(v.toStdString()));
}

QString drawnText(const QString &text, bool localTime)
{
    const std::string literal = drawtextLiteral(text.toStdString());
    return QString::fromStdString(graphOptionValue(localTime ? kLocalTime + literal : literal));
}

QString logo(const QString &file)
{
    return QString::fromStdString(pictureMovieOptions(file.toStdString()));
}

} // namespace

QString MediaWriter::getFiltersDescr(stWaterprint &w)
{
    if (w.bText == 0) {
        if (w.bLogo != 1)
            return QString();
        return QString::fromLatin1(kLogoTemplate)
            .arg(logo(w.logoFile), QString::number(w.logoX), QString::number(w.logoY));
    }
    if (w.bText != 1)
        return QString();
    if (w.bLogo == 1) {
        return QString::fromLatin1(kTextAndLogoTemplate)
            .arg(value(w.fontFile), QString::number(w.fontSize), colour(w.fontColor),
                 QString::number(w.x), QString::number(w.y), drawnText(w.text, false),
                 logo(w.logoFile), QString::number(w.logoX), QString::number(w.logoY));
    }
    if (w.bLogo != 0 || w.text.isEmpty())
        return QString();
    return QString::fromLatin1(kTextTemplate)
        .arg(value(w.fontFile), QString::number(w.fontSize), drawnText(w.text, w.bLocalTime == 1),
             QString::number(w.x), QString::number(w.y), colour(w.fontColor));
}

int MediaWriter::initFilters(AVCodecContext *c)
{
    // A repeated call replaces the graph: the earlier one is freed, not lost.
    m_useFilter = false;
    avfilter_graph_free(&filter_graph);
    buffersrc_ctx = nullptr;
    buffersink_ctx = nullptr;
    if (!c)
        return AVERROR(EINVAL);

    stWaterprint w;
    w.text = QStringLiteral("在目标的最后面加上\n-no-sandbox");
    w.fontFile = QStringLiteral("/usr/share/fonts/wps-office/fs_GB2312.ttf");
    w.fontSize = 40;
    w.x = 100;
    w.y = 100;
    w.fontColor = 0xFF0000;
    w.bLocalTime = 1;
    w.bText = 1;
    w.bLogo = 0;
    const QByteArray descr = getFiltersDescr(w).toUtf8();
    printf("des::::%s\n", descr.constData());
    fflush(stdout);
    const int fontOk = checkFontFile(w.fontFile.toUtf8().constData());
    if (fontOk < 0)
        return fontOk;

    FilterGraph graph;
    const int ret = graph.build(c->width, c->height, c->pix_fmt, c->time_base, c->sample_aspect_ratio,
                                descr.constData(), kWatermarkLines);
    fflush(stdout);
    if (ret < 0)
        return ret; // the graph of a failed attempt is freed with `graph`
    filter_graph = graph.release(&buffersrc_ctx, &buffersink_ctx);
    m_useFilter = true;
    puts("initFilters over");
    return 0;
}

int MediaWriter::write_watermark(cv::Mat img)
{
    // Without a graph there is nothing to feed.
    if (!m_useFilter || !buffersrc_ctx || !buffersink_ctx || !video_st.frame)
        return -1;
    AVFrame *frame = nextVideoFrame(img, video_st.next_pts);
    if (!frame)
        return -1;
    if (av_buffersrc_add_frame_flags(buffersrc_ctx, frame, AV_BUFFERSRC_FLAG_KEEP_REF) < 0)
        av_log(nullptr, AV_LOG_ERROR, "Error while feeding the filtergraph\n");
    AVFrame *out = av_frame_alloc();
    if (!out)
        return -1;
    const int got = av_buffersink_get_frame_flags(buffersink_ctx, out, 0);
    av_frame_free(&out);
    return got >= 0 ? 0 : -1;
}
