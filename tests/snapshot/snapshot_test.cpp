// The watermark, the JPEG snapshot writers and the snapshot thread, judged by the
// pictures they write and the failures a user sees.
#include <QDir>
#include <QProcess>
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <unistd.h>

#include <opencv2/imgproc.hpp>

#include "media/ffmpegapi.h"
#include "media/filtergraph.h"
#include "media/mediawriter.h"
#include "support/mediareader.h"
#include "support/qtmessages.h"
#include "support/testutil.h"

extern "C" {
#include <libavfilter/buffersink.h>
#include <libavfilter/buffersrc.h>
#include <libavutil/imgutils.h>
}

namespace fs = std::filesystem;

namespace {

const char *const kFixedFont = "/usr/share/fonts/wps-office/fs_GB2312.ttf";
const char *const kTestFont = "/usr/share/fonts/truetype/dejavu/DejaVuSans.ttf";
const cv::Mat kGrey = solidImage(640, 480, cv::Scalar(40, 40, 40));

// Puts a real font at the path the library's fixed descriptions name, for the life of
// the object, when asked to (RECORDER_TEST_PROVIDE_FONT=1: it writes under /usr/share,
// which other test programs running at the same time would see) and the path is free.
struct FixedFont {
    FixedFont()
    {
        if (qgetenv("RECORDER_TEST_PROVIDE_FONT") != "1" || fs::exists(kFixedFont))
            return;
        madeDir = fs::create_directories(dir, ec);
        fs::create_symlink(kTestFont, kFixedFont, ec);
        linked = !ec;
    }
    ~FixedFont()
    {
        if (linked)
            fs::remove(kFixedFont, ec);
        if (madeDir)
            fs::remove(dir, ec);
    }
    const fs::path dir = fs::path(kFixedFont).parent_path();
    bool madeDir = false, linked = false;
    std::error_code ec; // a failure leaves the font missing: the test says so and skips
};

// A logo of one colour. FFmpeg's movie filter knows a picture by its content, not its
// name: a PPM named like the user's PNG is read the same way.
void writeLogo(const std::string &path, int w, int h, cv::Scalar bgr)
{
    std::ofstream out(path, std::ios::binary);
    out << "P6\n" << w << ' ' << h << "\n255\n";
    for (int i = 0; i < w * h; ++i)
        out << char(bgr[2]) << char(bgr[1]) << char(bgr[0]);
}

cv::Mat decodeLast(const std::string &path)
{
    MediaFile f;
    return readMediaFile(path, f) && !f.frames.empty() ? f.frames.back() : cv::Mat();
}

// The grey picture through the graph `desc` describes; empty when it is empty.
cv::Mat drawnThrough(const QByteArray &desc)
{
    FilterGraph graph;
    AVFrame *frame = av_frame_alloc();
    frame->format = AV_PIX_FMT_YUV420P;
    frame->width = 640;
    frame->height = 480;
    frame->pts = 0;
    cv::Mat grey = kGrey.clone(), i420(720, 640, CV_8UC1), drawn;
    // The source takes the picture and resets the frame.
    if (!desc.isEmpty()
        && graph.build(640, 480, AV_PIX_FMT_YUV420P, {1, 25}, {0, 1}, desc.data(), {1, 2, 3}) == 0
        && av_frame_get_buffer(frame, 0) == 0 && fill_yuv_image(frame, 640, 480, grey) == 0
        && av_buffersrc_add_frame(graph.source(), frame) == 0
        && av_buffersink_get_frame(graph.sink(), frame) == 0
        && av_image_copy_to_buffer(i420.data, int(i420.total()), frame->data, frame->linesize,
                                   AV_PIX_FMT_YUV420P, 640, 480, 1) > 0)
        cv::cvtColor(i420, drawn, cv::COLOR_YUV2BGR_I420);
    av_frame_free(&frame);
    return drawn;
}

cv::Mat drawnThrough(stWaterprint w)
{
    return drawnThrough(FFmpegApi().getFiltersDescr(w).toUtf8());
}

// A text in red at 100,100 with the test's font, as the watermark's text template draws it.
stWaterprint redText(const QString &text)
{
    // text, font, size, x, y, colour, time, text on, logo, logo x, logo y, logo on
    return stWaterprint{text, kTestFont, 20, 100, 100, 0xFF0000, 0, 1, QString(), 0, 0, 0};
}

// A file of the user's with a link to it planted at `name`, as another user could in /tmp.
void plantLink(const std::string &victim, const std::string &name)
{
    testutil::writeFileBytes(victim, "the user's own");
    fs::remove(name);
    fs::create_symlink(victim, name);
}

struct MarkRow {
    const char *name;
    int bText, bLogo, bLocalTime;
    const char *words;
    int colour;                               // 0xRRGGBB
    bool showsText, showsTime, showsLogo; // what it draws (neither text nor logo: no graph)
};

} // namespace

TEST(Watermark, EachSettingDrawsItsTextTimeAndLogoAndNothingElse)
{
    testutil::TempDir dir;
    const QString logoFile = QString::fromStdString(dir.file("logo.png"));
    writeLogo(logoFile.toStdString(), 64, 32, cv::Scalar(0, 255, 255));
    const MarkRow rows[] = {
        {"time and text", 1, 0, 1, "W", 0x0000FF, true, true, false},
        {"logo", 0, 1, 0, "W", 0xFF0000, false, false, true},
        {"text and logo", 1, 1, 0, "W", 0xFF0000, true, false, true},
        {"nothing", 0, 0, 1, "W", 0xFF0000, false, false, false},
        {"empty text", 1, 0, 0, "", 0xFF0000, false, false, false},
        {"unknown flags", 2, 2, 0, "W", 0xFF0000, false, false, false},
    };
    for (const MarkRow &row : rows) {
        SCOPED_TRACE(row.name);
        // text, font, size, x, y, colour, time, text on, logo, logo x, logo y, logo on
        const stWaterprint w{QString::fromLatin1(row.words), kTestFont, 40, 100, 100, row.colour,
                             row.bLocalTime, row.bText, logoFile, 400, 300, row.bLogo};
        const cv::Mat out = drawnThrough(w);
        ASSERT_EQ(out.empty(), !row.showsText && !row.showsLogo);
        if (out.empty())
            continue;
        const cv::Rect textBand(100, 100, 40, 40), timeBand(200, 100, 200, 40),
            elsewhere(0, 200, 380, 280);
        EXPECT_EQ(meanAbsDiff(out(textBand), kGrey(textBand)) > 5, row.showsText);
        EXPECT_EQ(meanAbsDiff(out(timeBand), kGrey(timeBand)) > 5, row.showsTime); // date, time first
        const cv::Scalar logo = cv::mean(out(cv::Rect(408, 304, 48, 24)));
        EXPECT_EQ(logo[0] < 60 && logo[1] > 200 && logo[2] > 200, row.showsLogo) << logo;
        EXPECT_LT(meanAbsDiff(out(elsewhere), kGrey(elsewhere)), 3.0);
        // The text is in the colour asked for: red or blue.
        const cv::Scalar d = cv::mean(out(textBand)) - cv::mean(kGrey(textBand));
        EXPECT_TRUE(!row.showsText || (d[2] - d[0]) * (row.colour == 0xFF0000 ? 1 : -1) > 10) << d;
    }
}

// The recording's watermark and the text snapshot draw with the library's fixed font.
TEST(FixedFontText, IsDrawnWithTheFontFailsVisiblyWithoutItAndNeverWritesThroughAPlantedName)
{
    testutil::TempDir dir;
    std::string file = dir.file("marked.mkv");
    const std::string jpeg = "/tmp/aaIMG_5.jpg";
    FFmpegApi w;
    w.setHasAudio(false);
    ASSERT_EQ(w.open(file.data(), 4000000, 25, 640, 480, 1, 0), 0);
    if (!fs::exists(kFixedFont)) {
        QtMessageCollector log;
        EXPECT_LT(w.initFilters(w.videoEncoder()), 0);
        EXPECT_LT(FFmpegApi::SaveAsJPEG(kGrey, 5), 0);
        EXPECT_EQ(log.count(QStringLiteral("Cannot load font file ") + kFixedFont), 2)
            << qPrintable(log.messages().join('\n'));
        EXPECT_EQ(w.write_video(kGrey), 0); // recorded without the graph
    }
    FixedFont font;
    if (!fs::exists(kFixedFont))
        GTEST_SKIP() << "cannot provide " << kFixedFont << " (put there only as root, under CTest)";
    // A second call replaces the graph (the first is freed: LeakSanitizer).
    ASSERT_EQ(w.initFilters(w.videoEncoder()), 0);
    ASSERT_EQ(w.initFilters(w.videoEncoder()), 0);
    ASSERT_EQ(w.write_video(kGrey), 0);
    plantLink(dir.file("victim"), jpeg);
    ASSERT_EQ(FFmpegApi::SaveAsJPEG(kGrey, 5), 0);
    EXPECT_EQ(testutil::readFileBytes(dir.file("victim")), "the user's own");
    w.flush();
    // The text from (100, 100): the band it is drawn in changed, the rest did not.
    const cv::Rect band(100, 100, 400, 40), below(0, 300, 640, 180);
    for (const cv::Mat &out : {decodeLast(file), decodeLast(jpeg)}) {
        ASSERT_EQ(out.size(), kGrey.size());
        EXPECT_GT(meanAbsDiff(out(band), kGrey(band)), 5.0);
        EXPECT_LT(meanAbsDiff(out(below), kGrey(below)), 6.0);
    }
    // Public as the user's other files are; another user's file at the name is left alone.
    EXPECT_EQ(fs::status(jpeg).permissions() & ~fs::perms(0644), fs::perms::none);
    ASSERT_EQ(chown(jpeg.c_str(), 4242, 4242), 0);
    QtMessageCollector log;
    testutil::captureStdout([&] { EXPECT_EQ(FFmpegApi::SaveAsJPEG(kGrey, 5), -1); });
    EXPECT_EQ(log.count(QString::fromStdString("cannot write " + jpeg + ": it belongs to another user")), 1);
    fs::remove(jpeg);
}

TEST(JpegSnapshot, TheLogoWriterNeedsItsLogoAndTheThreadKeepsTheNewestOfAFloodAndWritesWhatIsQueuedAtExit)
{
    testutil::TempDir dir;
    const QString saved = QDir::currentPath();
    QDir::setCurrent(QString::fromStdString(dir.path()));
    // Without cur_use_logo.png in the working directory it fails, leaving no file.
    fs::remove("/tmp/IMG_77.jpg");
    EXPECT_LT(FilterThread::instance()->saveAsJPEG(kGrey, 77), 0);
    EXPECT_FALSE(fs::exists("/tmp/IMG_77.jpg"));
    writeLogo("cur_use_logo.png", 64, 32, cv::Scalar(0, 255, 255));
    const std::string file = "/tmp/IMG_13.jpg";
    // A flood: the queue keeps the newest few and counts what it drops; the newest is written.
    FilterThread *thread = FilterThread::instance();
    const quint64 before = thread->dropped();
    constexpr int kFlood = 300;
    for (int i = 0; i < kFlood; ++i)
        thread->start(solidImage(160, 120, cv::Scalar(255, 0, i + 1 < kFlood ? 0 : 255)));
    EXPECT_GT(thread->dropped() - before, quint64(kFlood / 2));
    EXPECT_TRUE(testutil::pollUntil([&] {
        const cv::Mat last = decodeLast(file);
        return !last.empty() && cv::mean(last(cv::Rect(80, 40, 72, 72)))[2] > 220;
    }, std::chrono::seconds(30)));
    plantLink(dir.file("victim"), file);
    // Its own output shows in the test's.
    EXPECT_EQ(QProcess::execute(QStringLiteral(SNAPSHOT_EXIT_HELPER), {}), 0);
    QDir::setCurrent(saved);
    EXPECT_EQ(testutil::readFileBytes(dir.file("victim")), "the user's own");
    EXPECT_FALSE(fs::is_symlink(file));
    // Both snapshots queued just before the exit were written: the file holds the second,
    // red one, with the yellow logo at the top left.
    const cv::Mat decoded = decodeLast(file);
    ASSERT_EQ(decoded.size(), cv::Size(160, 120));
    const cv::Scalar logo = cv::mean(decoded(cv::Rect(8, 8, 48, 16)));
    EXPECT_TRUE(logo[0] < 60 && logo[1] > 200 && logo[2] > 200) << logo;
    const cv::Scalar picture = cv::mean(decoded(cv::Rect(80, 40, 72, 72)));
    EXPECT_TRUE(picture[0] < 30 && picture[1] < 30 && picture[2] > 220) << picture;
    fs::remove(file);
}

TEST(Watermark, TextsOfEverySyntaxCharacterAreDrawnAsGivenAndCreateNothing)
{
    testutil::TempDir dir, cwd;
    const QString saved = QDir::currentPath();
    QDir::setCurrent(QString::fromStdString(cwd.path()));
    std::string printable;
    for (char c = ' '; c <= '~'; ++c)
        printable += c;
    const std::string texts[] = {printable, "x':textfile=/etc/hostname:y='1", "a%{localtime}b\\",
                                 "w'[t];movie=pwned.png[l];[t][l]overlay,signature=filename=pwned"};
    for (const std::string &text : texts) {
        SCOPED_TRACE(text);
        // The same text read from a file with expansion off: what "exactly as given" draws.
        testutil::writeFileBytes(dir.file("text"), text);
        const QByteArray literal = QByteArray("drawtext=fontfile=") + kTestFont
            + ":fontsize=20:textfile=" + dir.file("text").c_str()
            + ":expansion=none:x=100:y=100:fontcolor=ff0000";
        const cv::Mat want = drawnThrough(literal), got = drawnThrough(redText(QString::fromStdString(text)));
        ASSERT_FALSE(got.empty());
        EXPECT_EQ(meanAbsDiff(got, want), 0.0);
        EXPECT_GT(meanAbsDiff(got, kGrey), 0.1);
    }
    QDir::setCurrent(saved);
    EXPECT_TRUE(fs::is_empty(cwd.path()));
}
