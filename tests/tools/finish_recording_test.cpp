// The recovery tool as a user runs it on files a crash left: finished in place by
// default, copied with the index at the front on request, files not ours left alone.
#include <gtest/gtest.h>

#include <cstdio>
#include <string>
#include <sys/stat.h>
#include <sys/wait.h>

#include "support/mediareader.h"
#include "support/mp4boxes.h"
#include "support/testutil.h"

namespace {

struct ToolRun {
    int exitCode = -1;  // -1: it did not exit by itself
    std::string output; // standard output and error
};

ToolRun runTool(const std::string &args)
{
    ToolRun r;
    FILE *p = popen((std::string(FINISH_RECORDING_PATH) + " " + args + " 2>&1").c_str(), "r");
    if (!p)
        return r;
    char buf[4096];
    for (size_t n; (n = fread(buf, 1, sizeof buf, p)) > 0;)
        r.output.append(buf, n);
    const int status = pclose(p);
    if (WIFEXITED(status))
        r.exitCode = WEXITSTATUS(status);
    return r;
}

// Two seconds of picture and sound fragmented as the writer does it, by the ffmpeg tool.
void writeFragmented(const std::string &path)
{
    const std::string command = "ffmpeg -nostdin -loglevel error -y -f lavfi -i testsrc=size=160x120:rate=30 "
        "-f lavfi -i sine=sample_rate=48000 -t 2 -c:v libx264 -g 12 -c:a aac -movflags "
        "frag_keyframe+empty_moov+default_base_moof+delay_moov -frag_duration 1000000 '" + path + "'";
    ASSERT_EQ(std::system(command.c_str()), 0) << command;
}

ino_t inodeOf(const std::string &path)
{
    struct stat st {};
    EXPECT_EQ(stat(path.c_str(), &st), 0) << path;
    return st.st_ino;
}

} // namespace

TEST(FinishRecordingTest, FinishesInPlaceOrWithTheIndexAtTheFrontAndLeavesOtherFilesAlone)
{
    testutil::TempDir dir;
    const std::string crashed = dir.file("crashed.mp4"), other = dir.file("notes.mp4"),
                      web = dir.file("web.mp4");
    writeFragmented(crashed);
    writeFragmented(web);
    testutil::writeFileBytes(other, "not a recording at all");
    const ino_t inode = inodeOf(crashed);

    const ToolRun both = runTool("'" + crashed + "' '" + other + "'");
    EXPECT_EQ(both.exitCode, 1) << both.output;
    EXPECT_NE(both.output.find(crashed + ": finished in place\n"), std::string::npos) << both.output;
    EXPECT_NE(both.output.find(other + ": not finished: " + other + ": not an MP4 file"), std::string::npos)
        << both.output;
    EXPECT_EQ(topLevelBoxes(crashed), "ftyp mdat moov");
    EXPECT_EQ(inodeOf(crashed), inode);
    EXPECT_EQ(testutil::readFileBytes(other), "not a recording at all");

    const ToolRun faststart = runTool("--faststart '" + web + "'");
    EXPECT_EQ(faststart.exitCode, 0) << faststart.output;
    const std::string boxes = topLevelBoxes(web);
    EXPECT_TRUE(isStandardLayout(boxes) && boxes.find("moov") < boxes.find("mdat")) << boxes;

    for (const std::string &file : {crashed, web}) {
        MediaFile f;
        std::string err;
        ASSERT_TRUE(readMediaFile(file, f, &err, false)) << err;
        EXPECT_EQ(f.video() ? f.video()->packetPts.size() : 0, 60u) << file;
    }
}
