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

// Runs the demo host with `args`; `rules` is its QT_LOGGING_RULES (none when empty).
HostRun runDemoHost(const QStringList &args, const QString &rules = QString())
{
    QProcess p;
    QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
    env.remove(QStringLiteral("QT_LOGGING_RULES"));
    if (!rules.isEmpty())
        env.insert(QStringLiteral("QT_LOGGING_RULES"), rules);
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
// description of the file at the start).
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

TEST(DemoHostTest, HelpAndVersionAnswerOnStandardOutput)
{
    const HostRun help = runDemoHost({"--help"});
    EXPECT_EQ(help.exitCode, 0);
    for (const char *option : {"--size", "--seconds", "--no-audio", "--version"})
        EXPECT_NE(help.out.find(option), std::string::npos) << option << "\n" << help.out;
    const HostRun version = runDemoHost({"--version"});
    EXPECT_EQ(version.exitCode, 0);
    EXPECT_NE(version.out.find(std::string("demo_host ") + RECORDER_VERSION), std::string::npos)
        << version.out;
}

TEST(DemoHostTest, ARecordingPrintsNoFfmpegInformationUnlessTheLoggingRulesAskForIt)
{
    testutil::TempDir dir;
    const QStringList args{"--no-audio", "--seconds", "1", "--size", "160x120", "--out",
                           QString::fromStdString(dir.file("clip.mp4"))};
    const HostRun quiet = runDemoHost(args);
    ASSERT_EQ(quiet.exitCode, 0) << quiet.out << quiet.err;
    EXPECT_NE(quiet.out.find("stream 0: video h264 160x120"), std::string::npos) << quiet.out;
    for (const char *line : kInformationLines) {
        EXPECT_EQ(quiet.err.find(line), std::string::npos) << line << "\n" << quiet.err;
        EXPECT_EQ(quiet.out.find(line), std::string::npos) << line << "\n" << quiet.out;
    }

    const HostRun detailed = runDemoHost(args, QStringLiteral("kwrecorder.ffmpeg.info=true"));
    ASSERT_EQ(detailed.exitCode, 0) << detailed.out << detailed.err;
    for (const char *line : kInformationLines)
        EXPECT_NE(detailed.err.find(line), std::string::npos) << line << "\n" << detailed.err;
}
