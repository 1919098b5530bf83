// The feeder's clock-driven schedule, driven by a clock the test controls.
#include <gtest/gtest.h>

#include "encode/frameschedule.h"

using namespace std::chrono;
using Clock = FrameSchedule::Clock;

static const Clock::time_point t0{};

TEST(FrameSchedule, HandsOverTimesFpsFramesWhateverThePassesCost)
{
    // Requested and effective rate: 0 and negative ones (seen as huge unsigned values) are
    // taken as 10, and the rate is held at the most a pass can keep.
    const std::pair<unsigned, unsigned> rates[] = {
        {1, 1}, {25, 25}, {30, 30}, {60, 60}, {240, 240}, {0, 10}, {4294967293u, 10}, {5000, 1000}};
    for (const auto &[fps, effective] : rates) {
        for (nanoseconds late : {nanoseconds(0), nanoseconds(300000), nanoseconds(3000000)}) {
            // Steps the schedule like the feeder: wake at nextDue() plus `late`, take.
            FrameSchedule s(fps);
            ASSERT_EQ(s.fps(), effective) << fps;
            s.restart(t0);
            int64_t handed = 0;
            for (Clock::time_point now = t0; now <= t0 + seconds(60); now = s.nextDue() + late) {
                handed += s.take(now);
                ASSERT_GT(s.nextDue() + late, now) << "the schedule does not advance";
            }
            // Frames due in [0, 60 s]: 60 x fps + 1 (frame 0 is due at once).
            EXPECT_NEAR(double(handed), 60.0 * effective + 1, 1.0)
                << fps << " fps, late " << late.count() << " ns";
            EXPECT_EQ(s.notMadeUp(), 0);
        }
    }
}

TEST(FrameSchedule, DueTimesCarryNoRoundingDrift)
{
    // 1 s / 30 is not a whole number of nanoseconds; after 10^6 frames the due time must
    // still be exactly k x 1e9 / 30 from the start (rounded up to the nanosecond).
    const auto due = [](int64_t k) { return t0 + nanoseconds((k * 1000000000LL + 29) / 30); };
    FrameSchedule s(30);
    s.restart(t0);
    EXPECT_EQ(s.take(due(1000000)), 30); // capped catch-up
    EXPECT_EQ(s.nextDue(), due(1000001));
    // One nanosecond before its due time the frame is not yet due; at it, it is.
    EXPECT_EQ(s.take(s.nextDue() - nanoseconds(1)), 0);
    EXPECT_EQ(s.take(s.nextDue()), 1);
}

TEST(FrameSchedule, AShortStallIsMadeUpInFullALongOneToOneSecondAPauseNotAtAll)
{
    FrameSchedule s(30);
    s.restart(t0);
    EXPECT_EQ(s.take(t0), 1);
    // The next pass comes 300 ms late: frames 1..9 are due (due times 33.3 .. 300 ms).
    EXPECT_EQ(s.take(t0 + milliseconds(300)), 9);
    // A picture the camera gave 50 ms in was not there for frame 1 (due 33.3 ms) only;
    // one given after the pass, for none of them.
    EXPECT_EQ(s.takenDueBefore(t0 + milliseconds(50)), 1);
    EXPECT_EQ(s.takenDueBefore(t0 + milliseconds(301)), 9);
    EXPECT_EQ(s.madeUp(), 8);
    EXPECT_EQ(s.nextDue(), t0 + nanoseconds(333333334)); // 10 / 30 s, rounded up
    // Then 2.7 s with no pass: 81 frames due, the latest second (30) handed over, due
    // from 2.033 s on.
    EXPECT_EQ(s.take(t0 + seconds(3)), 30);
    EXPECT_EQ(s.takenDueBefore(t0 + milliseconds(2500)), 14);
    EXPECT_EQ(s.notMadeUp(), 51);
    EXPECT_EQ(s.madeUp(), 8 + 29);
    // The schedule goes on from where the clock is, not from the dropped frames.
    EXPECT_EQ(s.take(t0 + seconds(3)), 0);
    EXPECT_EQ(s.take(t0 + seconds(3) + milliseconds(34)), 1);
    // Paused for 5 s, then a new run: nothing of the pause is made up, and a clock that
    // reads before the run's start hands nothing.
    const Clock::time_point resume = t0 + seconds(8);
    s.restart(resume);
    EXPECT_EQ(s.take(t0 + seconds(4)), 0);
    EXPECT_EQ(s.take(resume), 1);
    EXPECT_EQ(s.notMadeUp(), 51);
    EXPECT_EQ(s.take(resume + milliseconds(34)), 1);
}
