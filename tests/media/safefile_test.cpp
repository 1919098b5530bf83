// Opening an output on a mount that hangs: runs with the hanging open() in front of libc
// (hangopen, LD_PRELOAD), which holds the opens of one path until the test releases them.
#include <gtest/gtest.h>

#include <chrono>
#include <cstdlib>
#include <string>
#include <unistd.h>

#include "media/safefile.h"
#include "support/testutil.h"

using namespace std::chrono_literals;

TEST(SafeFile, AnOpenGivenUpOnLeavesTheFileUntouchedAndFewArePendingAtOnce)
{
    testutil::TempDir dir;
    const std::string file = dir.file("hung.mp4");
    setenv("HANGOPEN_PATH", file.c_str(), 1);
    testutil::writeFileBytes(file, "recorded before");
    ASSERT_EQ(safefile::pendingOpens(), 0);
    std::string error;
    EXPECT_EQ(safefile::createOutput(file, nullptr, 100ms, &error), -1);
    EXPECT_EQ(error, "no answer within 100 ms");
    for (int i = 1; i < safefile::kMaxPendingOpens; ++i)
        EXPECT_EQ(safefile::createOutput(file, [] { return true; }, 100ms, &error), -1);
    EXPECT_EQ(safefile::pendingOpens(), safefile::kMaxPendingOpens);
    // One more would add a thread without bound: refused at once.
    EXPECT_EQ(safefile::createOutput(file, nullptr, 10s, &error), -1);
    EXPECT_EQ(error, std::to_string(safefile::kMaxPendingOpens) + " earlier opens still have no answer");

    // The mount answers: every late open closes what it got and changes nothing.
    testutil::writeFileBytes(file + ".release", "");
    ASSERT_TRUE(testutil::pollUntil([] { return safefile::pendingOpens() == 0; }, 10s));
    EXPECT_EQ(testutil::readFileBytes(file), "recorded before");

    // An open that is waited for truncates as before.
    const int fd = safefile::createOutput(file, nullptr, 10s, &error);
    ASSERT_GE(fd, 0) << error;
    close(fd);
    EXPECT_EQ(testutil::readFileBytes(file), "");
    unsetenv("HANGOPEN_PATH");
}
