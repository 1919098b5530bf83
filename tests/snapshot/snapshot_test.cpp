// The watermark graph, the JPEG snapshot writers and the snapshot thread, judged by
// the strings they build and the pictures they write.
#include <QCoreApplication>
#include <QDir>
#include <QProcess>
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <thread>

#include <opencv2/core.hpp>

#include "media/ffmpegapi.h"
#include "media/filtergraph.h"
#include "support/mediareader.h"
#include "support/testutil.h"

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavfilter/buffersink.h>
#include <libavfilter/buffersrc.h>
#include <libswscale/swscale.h>
}

using namespace std::chrono_literals;
namespace fs = std::filesystem;

namespace {

const char *const kFixedFont = "/usr/share/fonts/wps-office/fs_GB2312.ttf";
const char *const kTestFont = "/usr/share/fonts/truetype/dejavu/DejaVuSans.ttf";

// Puts a real font at the path the library's fixed descriptions name, for the life of
// the object, when asked to (RECORDER_TEST_PROVIDE_FONT=1: it writes under /usr/share,
// which other test programs running at the same time would see) and the path is free.
class FixedFont
{
public:
    FixedFont()
    {
        std::error_code ec;
        if (qgetenv("RECORDER_TEST_PROVIDE_FONT") != "1" || fs::exists(kFixedFont)
            || !fs::exists(kTestFont))
            return;
        const fs::path dir = fs::path(kFixedFont).parent_path();
        m_madeDir = !fs::exists(dir) && fs::create_directories(dir, ec);
        fs::create_symlink(kTestFont, kFixedFont, ec);
        m_linked = !ec;
    }
    ~FixedFont()
    {
        std::error_code ec;
        if (m_linked)
            fs::remove(kFixedFont, ec);
        if (m_madeDir)
            fs::remove(fs::path(kFixedFont).parent_path(), ec);
    }
    bool available() const { return m_linked; }

private:
    bool m_madeDir = false;
    bool m_linked = false;
};

// Writes a solid-colour PNG with FFmpeg's encoder.
bool writePng(const std::string &path, int w, int h, cv::Scalar bgr)
{
    const AVCodec *codec = avcodec_find_encoder(AV_CODEC_ID_PNG);
    AVCodecContext *c = codec ? avcodec_alloc_context3(codec) : nullptr;
    if (!c)
        return false;
    c->width = w;
    c->height = h;
    c->pix_fmt = AV_PIX_FMT_RGB24;
    c->time_base = AVRational{1, 1};
    AVFrame *f = av_frame_alloc();
    AVPacket *p = av_packet_alloc();
    bool ok = avcodec_open2(c, codec, nullptr) >= 0 && f && p;
    if (ok) {
        f->format = AV_PIX_FMT_RGB24;
        f->width = w;
        f->height = h;
        ok = av_frame_get_buffer(f, 0) >= 0;
    }
    for (int y = 0; ok && y < h; ++y)
        for (int x = 0; x < w; ++x) {
            uint8_t *px = f->data[0] + y * f->linesize[0] + x * 3;
            px[0] = uint8_t(bgr[2]);
            px[1] = uint8_t(bgr[1]);
            px[2] = uint8_t(bgr[0]);
        }
    ok = ok && avcodec_send_frame(c, f) >= 0 && avcodec_receive_packet(c, p) >= 0;
    if (ok) {
        std::ofstream out(path, std::ios::binary);
        out.write(reinterpret_cast<const char *>(p->data), p->size);
        ok = bool(out);
    }
    av_packet_free(&p);
    av_frame_free(&f);
    avcodec_free_context(&c);
    return ok;
}

cv::Mat decodeOne(const std::string &path)
{
    MediaFile f;
    std::string err;
    if (!readMediaFile(path, f, &err) || f.frames.empty())
        return cv::Mat();
    return f.frames.front();
}

double regionDiff(const cv::Mat &a, const cv::Mat &b, cv::Rect r)
{
    return meanAbsDiff(a(r).clone(), b(r).clone());
}

// Runs the body with the process's working directory set to `dir`.
template <typename F>
void inDirectory(const std::string &dir, F body)
{
    const QString saved = QDir::currentPath();
    QDir::setCurrent(QString::fromStdString(dir));
    body();
    QDir::setCurrent(saved);
}

} // namespace

TEST(WatermarkDescription, EachRowOfTheTableGivesItsTemplate)
{
    FFmpegApi api;
    stWaterprint w;
    w.text = "Hi";
    w.fontFile = "/f.ttf";
    w.fontSize = 24;
    w.x = 5;
    w.y = 7;
    w.fontColor = 0x00FF00;
    w.logoFile = "logo.png";
    w.logoX = 11;
    w.logoY = 13;

    w.bText = 0;
    w.bLogo = 1;
    EXPECT_EQ(api.getFiltersDescr(w), "movie=logo.png[wm];[in][wm]overlay=11:13[out]");
    w.bLogo = 0;
    EXPECT_TRUE(api.getFiltersDescr(w).isNull());
    w.bLogo = 2;
    EXPECT_TRUE(api.getFiltersDescr(w).isNull());

    w.bText = 1;
    w.bLogo = 0;
    w.bLocalTime = 0;
    EXPECT_EQ(api.getFiltersDescr(w),
              "drawtext=fontfile=/f.ttf:fontsize=24:text='Hi':x=5:y=7:fontcolor=00ff00");
    w.bLocalTime = 1;
    EXPECT_EQ(api.getFiltersDescr(w),
              "drawtext=fontfile=/f.ttf:fontsize=24:text='%{localtime} Hi':x=5:y=7:fontcolor=00ff00");
    w.text.clear();
    EXPECT_TRUE(api.getFiltersDescr(w).isNull());

    // Text and logo: used even with an empty text; blanks as the template has them.
    w.bLogo = 1;
    const std::string expected = "drawtext=fontfile=/f.ttf:" + std::string(23, ' ') + "fontsize=24:"
        + std::string(17, ' ') + "fontcolor=00ff00:" + std::string(17, ' ') + "x=5:"
        + std::string(16, ' ') + "y=7:" + std::string(16, ' ') + "text='' [text];movie=logo.png [wm];"
        + std::string(9, ' ') + "[text] [wm] overlay=11:13 [out]";
    EXPECT_EQ(api.getFiltersDescr(w).toStdString(), expected);
    w.bLogo = 3;
    EXPECT_TRUE(api.getFiltersDescr(w).isNull());
    w.bText = 2;
    w.bLogo = 1;
    EXPECT_TRUE(api.getFiltersDescr(w).isNull());
}

TEST(WatermarkDescription, ColoursAreSixOrMoreLowercaseHexDigits)
{
    FFmpegApi api;
    stWaterprint w;
    w.text = "t";
    w.bText = 1;
    for (const auto &[rgb, hex] : std::vector<std::pair<int, QString>>{
             {0xFF0000, "ff0000"}, {0x00FF00, "00ff00"}, {0x000123, "000123"}, {0x1ABCDEF, "1abcdef"}}) {
        w.fontColor = rgb;
        EXPECT_TRUE(api.getFiltersDescr(w).endsWith(":fontcolor=" + hex)) << qPrintable(hex);
    }
}

class WatermarkTest : public ::testing::Test
{
protected:
    // An open video-only writer of 640x480.
    void open(FFmpegApi &w, const std::string &file)
    {
        std::string name = file;
        testutil::captureStdout([&] {
            w.setHasAudio(false);
            ASSERT_EQ(w.open(name.data(), 4000000, 25, 640, 480, 1, 48000), 0);
        });
    }
    testutil::TempDir dir;
};

TEST_F(WatermarkTest, WithoutItsFontTheGraphFailsAndFramesGoDirect)
{
    if (fs::exists(kFixedFont))
        GTEST_SKIP() << kFixedFont << " exists on this machine";
    FFmpegApi w;
    const std::string file = dir.file("direct.mkv");
    open(w, file);
    EXPECT_EQ(w.write_watermark(gradientImage(640, 480)), -1); // no graph yet
    int ret = 0;
    const std::string out = testutil::captureStdout([&] { ret = w.initFilters(w.videoEncoder()); });
    EXPECT_LT(ret, 0);
    EXPECT_NE(out.find("des::::drawtext=fontfile=/usr/share/fonts/wps-office/fs_GB2312.ttf:fontsize=40:"
                       "text='%{localtime} 在目标的最后面加上\n-no-sandbox':x=100:y=100:fontcolor=ff0000\n"),
              std::string::npos)
        << out;
    EXPECT_EQ(out.find("initFilters over"), std::string::npos);
    EXPECT_EQ(w.write_watermark(gradientImage(640, 480)), -1);
    const cv::Mat input = gradientImage(640, 480);
    ASSERT_EQ(w.write_video(input), 0);
    testutil::captureStdout([&] { w.flush(); });
    const cv::Mat decoded = decodeOne(file);
    ASSERT_FALSE(decoded.empty());
    EXPECT_LT(meanAbsDiff(decoded, input), 4.0); // nothing drawn
}

TEST_F(WatermarkTest, WithItsFontFramesCarryTheTextAndNothingElseChanges)
{
    FixedFont font;
    if (!font.available())
        GTEST_SKIP() << "cannot provide " << kFixedFont << " (it is put there only as root, under CTest)";
    FFmpegApi w;
    const std::string file = dir.file("marked.mkv");
    open(w, file);
    std::string out;
    out = testutil::captureStdout([&] { ASSERT_EQ(w.initFilters(w.videoEncoder()), 0); });
    EXPECT_NE(out.find("initFilters over\n"), std::string::npos);
    // A second call replaces the graph (the first is freed: LeakSanitizer).
    out = testutil::captureStdout([&] { ASSERT_EQ(w.initFilters(w.videoEncoder()), 0); });
    EXPECT_EQ(w.write_watermark(solidImage(640, 480, cv::Scalar(40, 40, 40))), 0);
    const cv::Mat input = solidImage(640, 480, cv::Scalar(40, 40, 40));
    for (int i = 0; i < 3; ++i)
        ASSERT_EQ(w.write_video(input), 0);
    testutil::captureStdout([&] { w.flush(); });
    const cv::Mat decoded = decodeOne(file);
    ASSERT_FALSE(decoded.empty());
    // Red text from (100, 100): the band it is drawn in changed, the rest did not.
    EXPECT_GT(regionDiff(decoded, input, cv::Rect(100, 100, 400, 40)), 5.0);
    EXPECT_LT(regionDiff(decoded, input, cv::Rect(0, 300, 640, 180)), 3.0);
    EXPECT_LT(regionDiff(decoded, input, cv::Rect(0, 0, 90, 480)), 3.0);
}

// The graph the watermark builds, with the test's font and logo in place of the fixed
// ones: text and logo land where the description puts them, the rest passes unchanged.
TEST(WatermarkGraph, TextAndLogoAreDrawnWhereTheDescriptionPutsThem)
{
    testutil::TempDir dir;
    const std::string logo = dir.file("logo.png");
    ASSERT_TRUE(writePng(logo, 64, 32, cv::Scalar(0, 255, 255)));
    FFmpegApi api;
    stWaterprint w;
    w.text = "WATERMARK";
    w.fontFile = kTestFont;
    w.fontSize = 40;
    w.x = 100;
    w.y = 100;
    w.fontColor = 0xFF0000;
    w.bText = 1;
    w.logoFile = QString::fromStdString(logo);
    w.logoX = 400;
    w.logoY = 300;
    w.bLogo = 1;
    const QByteArray descr = api.getFiltersDescr(w).toUtf8();
    FilterGraph graph;
    int ret = 0;
    testutil::captureStdout([&] {
        ret = graph.build(640, 480, AV_PIX_FMT_YUV420P, AVRational{1, 25}, AVRational{0, 1},
                          descr.constData(), FilterGraphLines{1, 2, 3});
    });
    ASSERT_EQ(ret, 0) << descr.constData();

    const cv::Mat input = solidImage(640, 480, cv::Scalar(40, 40, 40));
    cv::Mat inputCopy = input.clone();
    AVFrame *in = av_frame_alloc();
    AVFrame *out = av_frame_alloc();
    ASSERT_TRUE(in && out);
    in->format = AV_PIX_FMT_YUV420P;
    in->width = 640;
    in->height = 480;
    ASSERT_GE(av_frame_get_buffer(in, 0), 0);
    ASSERT_EQ(fill_yuv_image(in, 640, 480, inputCopy), 0);
    in->pts = 0;
    ASSERT_GE(av_buffersrc_add_frame_flags(graph.source(), in, AV_BUFFERSRC_FLAG_KEEP_REF), 0);
    ASSERT_GE(av_buffersink_get_frame_flags(graph.sink(), out, 0), 0);
    cv::Mat drawn(480, 640, CV_8UC3);
    SwsContext *sws = sws_getContext(640, 480, AVPixelFormat(out->format), 640, 480,
                                     AV_PIX_FMT_BGR24, SWS_POINT, nullptr, nullptr, nullptr);
    ASSERT_NE(sws, nullptr);
    uint8_t *dst[1] = {drawn.data};
    const int dstStride[1] = {int(drawn.step1())};
    sws_scale(sws, out->data, out->linesize, 0, 480, dst, dstStride);
    sws_freeContext(sws);
    av_frame_free(&out);
    av_frame_free(&in);

    EXPECT_GT(regionDiff(drawn, input, cv::Rect(100, 100, 200, 40)), 5.0); // red text
    const cv::Scalar logoColour = cv::mean(drawn(cv::Rect(408, 304, 48, 24)));
    EXPECT_LT(logoColour[0], 60);
    EXPECT_GT(logoColour[1], 200);
    EXPECT_GT(logoColour[2], 200);
    EXPECT_LT(regionDiff(drawn, input, cv::Rect(0, 0, 90, 480)), 3.0);
    EXPECT_LT(regionDiff(drawn, input, cv::Rect(100, 200, 280, 280)), 3.0);
}

TEST(JpegSnapshot, TheTextWriterNeedsItsFontAndDrawsOnlyWhereTheTextIs)
{
    const cv::Mat input = solidImage(640, 480, cv::Scalar(30, 60, 90));
    const std::string file = "/tmp/aaIMG_5.jpg";
    std::error_code ec;
    fs::remove(file, ec);
    if (!fs::exists(kFixedFont)) {
        testutil::captureStdout([&] { EXPECT_LT(FFmpegApi::SaveAsJPEG(input, 5), 0); });
    }
    FixedFont font;
    if (!font.available() && !fs::exists(kFixedFont))
        GTEST_SKIP() << "cannot provide " << kFixedFont << " (it is put there only as root, under CTest)";
    testutil::captureStdout([&] { ASSERT_EQ(FFmpegApi::SaveAsJPEG(input, 5), 0); });
    const cv::Mat decoded = decodeOne(file);
    ASSERT_EQ(decoded.cols, 640);
    ASSERT_EQ(decoded.rows, 480);
    EXPECT_GT(regionDiff(decoded, input, cv::Rect(100, 100, 200, 40)), 5.0); // white text
    EXPECT_LT(regionDiff(decoded, input, cv::Rect(0, 300, 640, 180)), 6.0);
    fs::remove(file, ec);
}

TEST(JpegSnapshot, TheLogoWriterFailsAfterTheHeaderWithoutALogoAndOverlaysOne)
{
    testutil::TempDir dir;
    const cv::Mat input = gradientImage(320, 240);
    const std::string file = "/tmp/IMG_77.jpg";
    std::error_code ec;
    fs::remove(file, ec);
    FilterThread *t = FilterThread::instance();
    inDirectory(dir.path(), [&] {
        testutil::captureStdout([&] { EXPECT_LT(t->saveAsJPEG(input, 77), 0); });
    });
    EXPECT_TRUE(fs::exists(file)); // created, header written, before the graph failed
    ASSERT_TRUE(writePng(dir.file("cur_use_logo.png"), 64, 32, cv::Scalar(0, 255, 255)));
    inDirectory(dir.path(), [&] {
        testutil::captureStdout([&] { ASSERT_EQ(t->saveAsJPEG(input, 77), 0); });
    });
    const cv::Mat decoded = decodeOne(file);
    ASSERT_EQ(decoded.cols, 320);
    ASSERT_EQ(decoded.rows, 240);
    // Yellow logo at the top left, the picture elsewhere.
    const cv::Scalar logo = cv::mean(decoded(cv::Rect(8, 8, 48, 16)));
    EXPECT_LT(logo[0], 60);
    EXPECT_GT(logo[1], 200);
    EXPECT_GT(logo[2], 200);
    EXPECT_LT(regionDiff(decoded, input, cv::Rect(0, 64, 320, 176)), 8.0);
    fs::remove(file, ec);
}

TEST(SnapshotThread, OneInstanceFromEveryThread)
{
    std::vector<FilterThread *> seen(8, nullptr);
    std::vector<std::thread> threads;
    for (size_t i = 0; i < seen.size(); ++i)
        threads.emplace_back([&seen, i] { seen[i] = FilterThread::instance(); });
    for (std::thread &t : threads)
        t.join();
    for (FilterThread *p : seen)
        EXPECT_EQ(p, FilterThread::instance());
}

TEST(SnapshotThread, QueuedFramesAreWrittenInOrderTheFileHoldingTheLast)
{
    testutil::TempDir dir;
    ASSERT_TRUE(writePng(dir.file("cur_use_logo.png"), 8, 8, cv::Scalar(0, 0, 0)));
    const std::string file = "/tmp/IMG_13.jpg";
    std::error_code ec;
    fs::remove(file, ec);
    const cv::Mat first = solidImage(160, 120, cv::Scalar(255, 0, 0));
    const cv::Mat second = solidImage(160, 120, cv::Scalar(0, 0, 255));
    inDirectory(dir.path(), [&] {
        testutil::captureStdout([&] {
            FilterThread::instance()->start(first);
            FilterThread::instance()->start(second);
            // Written when the file shows the second picture.
            EXPECT_TRUE(testutil::pollUntil(
                [&] {
                    const cv::Mat d = decodeOne(file);
                    return !d.empty() && cv::mean(d(cv::Rect(40, 40, 80, 60)))[2] > 200;
                },
                20s));
        });
    });
    const cv::Mat decoded = decodeOne(file);
    ASSERT_FALSE(decoded.empty());
    EXPECT_LT(regionDiff(decoded, second, cv::Rect(16, 16, 144, 104)), 8.0);
}

TEST(SnapshotThread, AProcessThatUsedItExitsCleanly)
{
    testutil::TempDir dir;
    ASSERT_TRUE(writePng(dir.file("cur_use_logo.png"), 8, 8, cv::Scalar(0, 0, 0)));
    std::error_code ec;
    fs::remove("/tmp/IMG_13.jpg", ec);
    QProcess child;
    child.setWorkingDirectory(QString::fromStdString(dir.path()));
    child.start(QStringLiteral(SNAPSHOT_EXIT_HELPER), QStringList());
    ASSERT_TRUE(child.waitForFinished(60000));
    EXPECT_EQ(child.exitStatus(), QProcess::NormalExit);
    EXPECT_EQ(child.exitCode(), 0) << child.readAllStandardError().toStdString();
    // The snapshot queued just before exit was still written.
    EXPECT_FALSE(decodeOne("/tmp/IMG_13.jpg").empty());
}

int main(int argc, char **argv)
{
    QCoreApplication app(argc, argv);
    ::testing::InitGoogleTest(&argc, argv);
    return RUN_ALL_TESTS();
}
