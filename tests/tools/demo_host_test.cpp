// The demo host as a user runs it, in a process of its own: what it does with a bad
// command line, and what a recording prints.
#include <QProcess>
#include <QProcessEnvironment>
#include <QStringList>
#include <gtest/gtest.h>

#include <filesystem>
#include <string>

#include "support/testutil.h"

namespace {

// Longest a demo host run may take, milliseconds.
constexpr int kRunLimitMs = 60000;

struct HostRun {
    int exitCode = -1; // -1: it crashed or did not finish
    std::string out;   // standard output
    std::string err;   // standard error
};

// Runs the demo host with `args`, without the caller's logging rules.
HostRun runDemoHost(const QStringList &args)
{
    QProcess p;
    QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
    env.remove(QStringLiteral("QT_LOGGING_RULES"));
    p.setProcessEnvironment(env);
    p.start(QStringLiteral(DEMO_HOST_PATH), args);
    HostRun r;
    if (!p.waitForFinished(kRunLimitMs)) {
        p.kill();
        p.waitForFinished();
    } else if (p.exitStatus() == QProcess::NormalExit) {
        r.exitCode = p.exitCode();
    }
    r.out = p.readAllStandardOutput().toStdString();
    r.err = p.readAllStandardError().toStdString();
    return r;
}

// What FFmpeg and libx264 print at information level (x264's statistics at the end, the
// description of the file at the start); the logging test shows a rule turns it on.
const char *const kInformationLines[] = {"[libx264 @", "frame I:", "kb/s:", "Output #0"};

} // namespace

TEST(DemoHostTest, ABadCommandLineEndsBeforeRecordingWithAMessageNamingTheOption)
{
    testutil::TempDir dir;
    const QString out = QString::fromStdString(dir.file("never.mp4"));
    const struct {
        QStringList args;
        const char *named;
    } cases[] = {
        {{"--size", "12x"}, "--size"},
        {{"--seconds", "-1"}, "--seconds"},
        {{"--bogus"}, "bogus"},
        {{"--fps", "0"}, "--fps"},
        {{"--bitrate", "fast"}, "--bitrate"},
        {{"--size"}, "--size"},
        {{"--no-video", "--no-audio"}, "--no-video"},
        {{"--resume-at", "2"}, "--resume-at"},
    };
    for (const auto &c : cases) {
        const HostRun r = runDemoHost(QStringList{"--out", out} + c.args);
        const std::string what = c.args.join(' ').toStdString();
        EXPECT_GT(r.exitCode, 0) << what;
        EXPECT_NE(r.err.find(c.named), std::string::npos) << what << ": " << r.err;
        EXPECT_FALSE(std::filesystem::exists(dir.file("never.mp4"))) << what;
    }
}

TEST(DemoHostTest, ARecordingDescribesItsFileAndPrintsNoFfmpegInformation)
{
    testutil::TempDir dir;
    const QStringList args{"--no-audio", "--seconds", "1", "--size", "160x120", "--out",
                           QString::fromStdString(dir.file("clip.mp4"))};
    const HostRun quiet = runDemoHost(args);
    ASSERT_EQ(quiet.exitCode, 0) << quiet.out << quiet.err;
    EXPECT_NE(quiet.out.find("stream 0: video h264 160x120"), std::string::npos) << quiet.out;
    EXPECT_NE(quiet.out.find(": finished, video, "), std::string::npos) << quiet.out;
    EXPECT_NE(quiet.out.find("; ended: stopped by the host\n"), std::string::npos) << quiet.out;
    for (const char *line : kInformationLines) {
        EXPECT_EQ(quiet.err.find(line), std::string::npos) << line << "\n" << quiet.err;
        EXPECT_EQ(quiet.out.find(line), std::string::npos) << line << "\n" << quiet.out;
    }
}
