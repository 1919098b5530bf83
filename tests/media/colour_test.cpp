// Recorded colours as a player shows them: a colour chart through both of the writer's
// inputs (a host's Mat, the feeder's converted picture), at an HD and an SD size, in MP4
// (finished at flush) and Matroska, decoded honouring what the file declares.
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>

#include <opencv2/core.hpp>
#include <opencv2/imgproc.hpp>

#include "media/ffmpegapi.h"
#include "media/frameconverter.h"
#include "support/mediareader.h"
#include "support/testutil.h"

namespace {

// Full-strength bars, BGR: white, yellow, cyan, green, magenta, red, blue, black.
const cv::Scalar kBars[] = {{255, 255, 255}, {0, 255, 255}, {255, 255, 0}, {0, 255, 0},
                            {255, 0, 255},   {0, 0, 255},   {255, 0, 0},   {0, 0, 0}};
constexpr int kBarCount = 8;
// Bit rate high enough that the codec keeps 1-pixel columns, bits per second.
constexpr int kBitrate = 40000000;
constexpr int kFrames = 3;
// Per channel value: a bar's mean, and the red/blue columns' mean, against the chart's.
constexpr double kBarTolerance = 8;
constexpr double kColumnsTolerance = 16;
// A snapshot's flat colours against the frame's, per channel value.
constexpr double kSnapshotBarTolerance = 4;
// Fraction of the picture's size left out at each region's edges, where the codec rings.
constexpr double kMargin = 0.03;

// Eight bars over the top half; below, 1-pixel columns alternating red and blue, whose
// mean is magenta 127,0,127 and whose every 2x2 block holds both.
cv::Mat colourChart(cv::Size size)
{
    cv::Mat chart(size, CV_8UC3);
    for (int x = 0; x < size.width; ++x) {
        chart.col(x).rowRange(0, size.height / 2) = kBars[x * kBarCount / size.width];
        chart.col(x).rowRange(size.height / 2, size.height) = (x % 2) ? kBars[6] : kBars[5];
    }
    return chart;
}

// The chart as the host hands it over: BGR, BGRA with noise for alpha, or gray.
cv::Mat hostFrame(const cv::Mat &chart, int type)
{
    cv::Mat out;
    if (type == CV_8UC3)
        return chart.clone();
    if (type == CV_8UC1) {
        cv::cvtColor(chart, out, cv::COLOR_BGR2GRAY);
        return out;
    }
    cv::cvtColor(chart, out, cv::COLOR_BGR2BGRA);
    cv::Mat alpha(chart.size(), CV_8UC1);
    cv::randu(alpha, 0, 256);
    cv::insertChannel(alpha, out, 3);
    return out;
}

// The chart's regions in fractions of the picture: the bars, then the columns.
std::vector<cv::Rect2d> chartRegions()
{
    std::vector<cv::Rect2d> regions;
    for (int b = 0; b < kBarCount; ++b)
        regions.emplace_back(double(b) / kBarCount + kMargin, kMargin,
                             1.0 / kBarCount - 2 * kMargin, 0.5 - 2 * kMargin);
    regions.emplace_back(kMargin, 0.5 + kMargin, 1 - 2 * kMargin, 0.5 - 2 * kMargin);
    return regions;
}

// The mean BGR of a fractional region of `img` (gray: the level in all three).
cv::Scalar regionMean(const cv::Mat &img, const cv::Rect2d &r)
{
    const cv::Rect px(int(r.x * img.cols), int(r.y * img.rows), int(r.width * img.cols),
                      int(r.height * img.rows));
    const cv::Scalar m = cv::mean(img(px));
    return img.channels() == 1 ? cv::Scalar(m[0], m[0], m[0]) : m;
}

// A one-pixel white logo.
void writeLogo(const std::string &path)
{
    std::ofstream(path, std::ios::binary) << "P6\n1 1\n255\n\xff\xff\xff";
}

enum class Input { HostMat, ConvertedPicture };

class ColourTest : public ::testing::Test
{
protected:
    void SetUp() override { std::filesystem::current_path(dir.path()); }
    void TearDown() override { std::filesystem::current_path(home); }
    const std::filesystem::path home = std::filesystem::current_path();
    testutil::TempDir dir;
};

} // namespace

TEST_F(ColourTest, ChartPlaysInItsOwnColoursAndTheFileSaysWhatThePixelsAre)
{
    const struct Row {
        const char *name;
        cv::Size size;      // recorded
        cv::Size host;      // handed over
        int type;
        Input input;
    } rows[] = {
        {"hd.mp4", {1280, 720}, {1280, 720}, CV_8UC3, Input::HostMat},
        {"hd.mkv", {1280, 720}, {1280, 720}, CV_8UC3, Input::ConvertedPicture},
        {"sd.mp4", {640, 480}, {640, 480}, CV_8UC3, Input::ConvertedPicture},
        {"sd.mkv", {640, 480}, {640, 480}, CV_8UC3, Input::HostMat},
        {"hd-bgra.mp4", {1280, 720}, {1280, 720}, CV_8UC4, Input::ConvertedPicture},
        {"sd-bgra.mkv", {640, 480}, {640, 480}, CV_8UC4, Input::HostMat},
        {"hd-gray.mp4", {1280, 720}, {1280, 720}, CV_8UC1, Input::HostMat},
        {"sd-gray.mp4", {640, 480}, {640, 480}, CV_8UC1, Input::ConvertedPicture},
        // Scaled on the way, from an odd size and from a larger one.
        {"odd-scaled.mp4", {1280, 720}, {1281, 721}, CV_8UC3, Input::ConvertedPicture},
        {"down-scaled.mkv", {640, 480}, {1920, 1080}, CV_8UC4, Input::ConvertedPicture},
    };
    for (const Row &row : rows) {
        SCOPED_TRACE(row.name);
        const cv::Mat host = hostFrame(colourChart(row.host), row.type);
        {
            FFmpegApi w;
            w.setHasAudio(false);
            std::string path = row.name;
            int opened = -1;
            const std::string said = testutil::captureStdout([&] {
                opened = w.open(path.data(), kBitrate, 25, row.size.width, row.size.height, 1,
                                48000);
            });
            ASSERT_EQ(opened, 0) << said;
            FrameConverter converter;
            for (int i = 0; i < kFrames; ++i) {
                if (row.input == Input::HostMat) {
                    ASSERT_EQ(w.write_video(host), 0);
                } else {
                    const EncoderPicture picture = converter.convert(host, row.size.width,
                                                                     row.size.height);
                    ASSERT_TRUE(picture);
                    ASSERT_EQ(w.write_video(picture.get(), i), 0);
                }
            }
            testutil::captureStdout([&] { w.flush(); });
        }
        MediaFile f;
        std::string err;
        ASSERT_TRUE(readMediaFile(dir.file(row.name), f, &err)) << err;
        ASSERT_TRUE(f.video());
        const DeclaredColour &c = f.video()->colour;
        EXPECT_EQ(c.matrix, AVCOL_SPC_SMPTE170M);
        EXPECT_EQ(c.primaries, AVCOL_PRI_SMPTE170M);
        EXPECT_EQ(c.transfer, AVCOL_TRC_SMPTE170M);
        EXPECT_EQ(c.range, AVCOL_RANGE_MPEG);
        EXPECT_EQ(c.chromaSiting, AVCHROMA_LOC_CENTER);
        ASSERT_EQ(f.frames.size(), size_t(kFrames));
        const std::vector<cv::Rect2d> regions = chartRegions();
        for (size_t r = 0; r < regions.size(); ++r) {
            SCOPED_TRACE(r < kBarCount ? "bar " + std::to_string(r) : std::string("columns"));
            const cv::Scalar want = regionMean(host, regions[r]);
            const double tolerance = r < kBarCount ? kBarTolerance : kColumnsTolerance;
            for (const cv::Mat &frame : f.frames) {
                const cv::Scalar got = regionMean(frame, regions[r]);
                for (int ch = 0; ch < 3; ++ch)
                    EXPECT_NEAR(got[ch], want[ch], tolerance) << "channel " << ch << " (B, G, R)";
            }
        }
    }
}

TEST_F(ColourTest, SnapshotKeepsTheFramesFlatColours)
{
    // The snapshot writer lays the working directory's logo at the top left: one pixel,
    // outside every measured region.
    writeLogo("cur_use_logo.png");
    const cv::Mat chart = colourChart({640, 480});
    constexpr int kNumber = 2828;
    const std::string file = "/tmp/IMG_" + std::to_string(kNumber) + ".jpg";
    ASSERT_EQ(testutil::captureStdout([&] {
                  EXPECT_EQ(FilterThread::instance()->saveAsJPEG(chart, kNumber), 0);
              }).find("failed"), std::string::npos);
    MediaFile f;
    std::string err;
    ASSERT_TRUE(readMediaFile(file, f, &err)) << err;
    std::filesystem::remove(file);
    ASSERT_EQ(f.frames.size(), 1u);
    ASSERT_EQ(f.frames[0].size(), chart.size());
    const std::vector<cv::Rect2d> regions = chartRegions();
    for (size_t r = 0; r < regions.size(); ++r) {
        SCOPED_TRACE(r < kBarCount ? "bar " + std::to_string(r) : std::string("columns"));
        const cv::Scalar want = regionMean(chart, regions[r]);
        const cv::Scalar got = regionMean(f.frames[0], regions[r]);
        const double tolerance = r < kBarCount ? kSnapshotBarTolerance : kColumnsTolerance;
        for (int ch = 0; ch < 3; ++ch)
            EXPECT_NEAR(got[ch], want[ch], tolerance) << "channel " << ch << " (B, G, R)";
    }
}
