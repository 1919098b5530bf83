#include "heavyrecording.h"

#include <QRegularExpression>
#include <algorithm>
#include <thread>

#include "loadedrecorder.h"
#include "qtmessages.h"
#include "syntheticcamera.h"
#include "testutil.h"

std::vector<cv::Mat> noisePictures(int width, int height)
{
    constexpr size_t kMaxNoiseBytes = size_t(200) << 20;
    const size_t frameBytes = size_t(width) * height * 3;
    const int distinct = int(std::clamp<size_t>(kMaxNoiseBytes / std::max<size_t>(frameBytes, 1), 2, 30));
    std::vector<cv::Mat> pictures;
    cv::RNG rng(7);
    for (int i = 0; i < distinct; ++i) {
        pictures.emplace_back(height, width, CV_8UC3);
        rng.fill(pictures.back(), cv::RNG::UNIFORM, 0, 256);
    }
    return pictures;
}

HeavyRecordingReport recordHeavy(LoadedRecorder &rec, const std::string &file, int width,
                                 int height, int fps, unsigned bitrate,
                                 std::chrono::seconds length, std::chrono::seconds sampleEvery)
{
    using Clock = std::chrono::steady_clock;
    HeavyRecordingReport r;
    CyclingCamera camera(noisePictures(width, height), fps);
    rec->vSetRecSize(width, height);
    rec->setFps(fps);
    rec->setVideoBitrate(bitrate);
    rec->setPluginComponent(&camera);
    rec->setFilename(QString::fromStdString(file));
    QtMessageCollector log;

    Clock::time_point t0, t1;
    testutil::captureStdout([&] {
        rec->startRecord();
        r.started = rec->waitForRecordStart(30000);
        t0 = Clock::now();
        if (r.started) {
            for (auto next = t0 + sampleEvery; next <= t0 + length; next += sampleEvery) {
                std::this_thread::sleep_until(next);
                r.rssKiB.push_back(testutil::residentKiB());
            }
            std::this_thread::sleep_until(t0 + length);
        }
        t1 = Clock::now();
        // A writer far behind drains at most one second of frames.
        r.stopped = rec.stopAndWait(std::chrono::minutes(30));
    });
    r.wallSeconds = std::chrono::duration<double>(t1 - t0).count();
    r.drainSeconds = std::chrono::duration<double>(Clock::now() - t1).count();
    rec->setPluginComponent(nullptr);

    const QRegularExpression peak(QStringLiteral("at most (\\d+) video frames \\(([0-9.]+) MiB\\)"));
    const QRegularExpression lost(QStringLiteral("(\\d+) not made up"));
    const QRegularExpression dropped(QStringLiteral("(\\d+) video frames dropped"));
    for (const QString &m : log.messages()) {
        const auto match = peak.match(m);
        if (match.hasMatch()) {
            r.peakQueuedFrames = match.captured(1).toLong();
            r.peakQueuedMiB = match.captured(2).toDouble();
        }
        const auto lostMatch = lost.match(m);
        if (lostMatch.hasMatch())
            r.framesNotMadeUp = lostMatch.captured(1).toLong();
        const auto droppedMatch = dropped.match(m);
        if (droppedMatch.hasMatch())
            r.framesDropped = droppedMatch.captured(1).toLong();
    }
    return r;
}
