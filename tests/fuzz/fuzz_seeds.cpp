// Writes the fuzzer's seeds into the directory given: short fragmented recordings of the
// writer (picture, sound, both, a MOV, one cut short by a crash).
#include <cstdio>
#include <filesystem>
#include <string>
#include <vector>

#include <opencv2/core.hpp>

#include "media/ffmpegapi.h"

namespace {

constexpr int kRate = 48000;
constexpr int kFps = 15;
constexpr int kFrames = 20; // over one fragment (a group of 12 pictures)

bool writeSeed(const std::string &path, bool video, bool audio)
{
    FFmpegApi w;
    w.setHasVideo(video);
    w.setHasAudio(audio);
    w.setWriteMode(FFmpegApi::WriteMode::Recoverable);
    std::string name = path;
    if (w.open(name.data(), 200000, kFps, 64, 48, 1, kRate) != 0)
        return false;
    std::vector<int16_t> block(size_t(audio ? w.audioFrameSize() : 0), 0);
    long written = 0; // sound samples
    for (int frame = 0; frame < kFrames;) {
        if (video && (!audio || w.encodeVideo())) {
            const cv::Mat picture(48, 64, CV_8UC3, cv::Scalar(frame * 12 % 256, 80, 160));
            if (w.write_video(picture) != 0)
                return false;
            ++frame;
            continue;
        }
        if (w.write_audio(reinterpret_cast<unsigned char *>(block.data())) != 0)
            return false;
        written += long(block.size());
        if (!video && written >= long(kFrames) * kRate / kFps)
            break;
    }
    w.flush();
    return true;
}

} // namespace

int main(int argc, char **argv)
{
    if (argc != 2) {
        std::fprintf(stderr, "usage: %s DIR\n", argv[0]);
        return 2;
    }
    const std::string dir = argv[1];
    std::filesystem::create_directories(dir);
    const bool ok = writeSeed(dir + "/video.mp4", true, false) && writeSeed(dir + "/sound.mp4", false, true)
        && writeSeed(dir + "/both.mp4", true, true) && writeSeed(dir + "/both.mov", true, true)
        && writeSeed(dir + "/cut.mp4", true, true);
    if (!ok) {
        std::fprintf(stderr, "writing the seeds into %s failed\n", dir.c_str());
        return 1;
    }
    std::filesystem::resize_file(dir + "/cut.mp4", std::filesystem::file_size(dir + "/cut.mp4") * 2 / 3);
    return 0;
}
