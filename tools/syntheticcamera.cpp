#include "syntheticcamera.h"

#include <opencv2/imgproc.hpp>
#include <string>
#include <thread>

namespace {

// Frame-number marks: kMarkBits squares of kMarkSize pixels along the top-left edge,
// white for a set bit, most significant bit first.
constexpr int kMarkBits = 16;
constexpr int kMarkSize = 8;

} // namespace

SyntheticCamera::SyntheticCamera(int width, int height, double cameraFps)
    : m_width(width)
    , m_height(height)
    , m_period(cameraFps > 0 ? std::chrono::duration_cast<Clock::duration>(
                                   std::chrono::duration<double>(1.0 / cameraFps))
                             : Clock::duration::zero())
{
}

void SyntheticCamera::beginUse()
{
    ++m_begins;
}

void SyntheticCamera::endUse()
{
    ++m_ends;
}

bool SyntheticCamera::getFrame(cv::Mat &frame)
{
    // Called on the recorder's session thread only.
    if (!m_started) {
        m_start = Clock::now();
        m_started = true;
    }
    const long index = m_delivered;
    if (m_period != Clock::duration::zero())
        std::this_thread::sleep_until(m_start + m_period * index);
    const auto elapsed = std::chrono::duration_cast<std::chrono::milliseconds>(
        Clock::now() - m_start);
    frame = makeFrame(m_width, m_height, index, elapsed.count());
    {
        std::lock_guard<std::mutex> lock(m_lastMutex);
        m_last = frame;
    }
    ++m_delivered;
    return true;
}

cv::Mat SyntheticCamera::lastFrame() const
{
    std::lock_guard<std::mutex> lock(m_lastMutex);
    return m_last;
}

cv::Mat SyntheticCamera::makeFrame(int width, int height, long index, long long msecs)
{
    cv::Mat img(height, width, CV_8UC3);
    // Diagonal colour bands that move by 4 pixels a frame.
    for (int y = 0; y < height; ++y) {
        auto *row = img.ptr<cv::Vec3b>(y);
        for (int x = 0; x < width; ++x) {
            const int t = x + y + static_cast<int>(index * 4);
            row[x] = cv::Vec3b(static_cast<uchar>(t & 0xff), static_cast<uchar>((t >> 1) & 0xff),
                               static_cast<uchar>(255 - (t & 0xff)));
        }
    }
    if (width >= kMarkBits * kMarkSize && height >= 2 * kMarkSize) {
        for (int bit = 0; bit < kMarkBits; ++bit) {
            const bool set = (index >> (kMarkBits - 1 - bit)) & 1;
            cv::rectangle(img, cv::Rect(bit * kMarkSize, 0, kMarkSize, kMarkSize),
                          set ? cv::Scalar(255, 255, 255) : cv::Scalar(0, 0, 0), cv::FILLED);
        }
    }
    if (width >= 160 && height >= 60) {
        const std::string text = "#" + std::to_string(index) + "  " + std::to_string(msecs) + " ms";
        cv::putText(img, text, cv::Point(8, height - 16), cv::FONT_HERSHEY_SIMPLEX,
                    std::max(0.4, height / 720.0), cv::Scalar(255, 255, 255), 2);
    }
    return img;
}

long SyntheticCamera::readFrameNumber(const cv::Mat &bgr)
{
    if (bgr.type() != CV_8UC3 || bgr.cols < kMarkBits * kMarkSize || bgr.rows < kMarkSize)
        return -1;
    long value = 0;
    for (int bit = 0; bit < kMarkBits; ++bit) {
        const cv::Vec3b c = bgr.at<cv::Vec3b>(kMarkSize / 2, bit * kMarkSize + kMarkSize / 2);
        const int luma = (c[0] + c[1] + c[2]) / 3;
        if (luma > 80 && luma < 176)
            return -1;
        value = (value << 1) | (luma >= 176 ? 1 : 0);
    }
    return value;
}

CyclingCamera::CyclingCamera(std::vector<cv::Mat> pictures, int fps)
    : m_pictures(std::move(pictures))
    , m_period(std::chrono::nanoseconds(1000000000LL / (fps > 0 ? fps : 1)))
{
}

std::vector<cv::Mat> CyclingCamera::synthetic(int width, int height, int fps, int count)
{
    std::vector<cv::Mat> pictures;
    for (int i = 0; i < count; ++i)
        pictures.push_back(SyntheticCamera::makeFrame(width, height, i, i * 1000LL / (fps > 0 ? fps : 1)));
    return pictures;
}

bool CyclingCamera::getFrame(cv::Mat &frame)
{
    if (m_next == 0)
        m_start = Clock::now();
    std::this_thread::sleep_until(m_start + m_period * m_next);
    frame = m_pictures[m_next++ % m_pictures.size()];
    return true;
}
