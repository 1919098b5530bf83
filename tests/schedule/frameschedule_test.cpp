// The feeder's clock-driven schedule, driven by a clock the test controls.
#include <gtest/gtest.h>

#include "encode/frameschedule.h"

using namespace std::chrono;
using Clock = FrameSchedule::Clock;

namespace {

// Steps the schedule like the feeder does: wake at nextDue() plus `lateness`, take.
int64_t runFor(FrameSchedule &s, Clock::time_point t0, nanoseconds total, nanoseconds lateness)
{
    int64_t handed = 0;
    Clock::time_point now = t0;
    s.restart(t0);
    while (now <= t0 + total) {
        handed += s.take(now);
        const Clock::time_point next = s.nextDue() + lateness;
        if (next <= now) {
            ADD_FAILURE() << "the schedule does not advance at " << (now - t0).count() << " ns";
            break;
        }
        now = next;
    }
    return handed;
}

} // namespace

TEST(FrameSchedule, HandsOverTimesFpsFramesWhateverThePassesCost)
{
    const Clock::time_point t0{};
    for (unsigned fps : {1u, 10u, 25u, 30u, 60u, 240u}) {
        for (nanoseconds late : {nanoseconds(0), nanoseconds(microseconds(300)),
                                 nanoseconds(milliseconds(3))}) {
            FrameSchedule s(fps);
            // Frames due in [0, 60 s]: 60 x fps + 1 (frame 0 is due at once).
            const int64_t handed = runFor(s, t0, seconds(60), late);
            EXPECT_NEAR(double(handed), 60.0 * fps + 1, 1.0) << fps << " fps, late " << late.count();
            EXPECT_EQ(s.notMadeUp(), 0);
        }
    }
}

TEST(FrameSchedule, DueTimesCarryNoRoundingDrift)
{
    // 1 s / 30 is not a whole number of nanoseconds; after 10^6 frames the due time
    // must still be exactly k x 1e9 / 30 from the start.
    FrameSchedule s(30);
    const Clock::time_point t0{};
    s.restart(t0);
    const int64_t k = 1000000;
    EXPECT_EQ(s.take(t0 + nanoseconds((k * 1000000000LL + 29) / 30)), int(30)); // capped catch-up
    EXPECT_EQ(s.nextDue() - t0, nanoseconds(((k + 1) * 1000000000LL + 29) / 30));
    // One nanosecond before its due time the frame is not yet due; at it, it is.
    EXPECT_EQ(s.take(s.nextDue() - nanoseconds(1)), 0);
    EXPECT_EQ(s.take(s.nextDue()), 1);
}

TEST(FrameSchedule, AShortStallIsMadeUpInFull)
{
    FrameSchedule s(30);
    const Clock::time_point t0{};
    s.restart(t0);
    EXPECT_EQ(s.take(t0), 1);
    // The next pass comes 300 ms late: frames 1..9 are due (due times 33.3 .. 300 ms).
    EXPECT_EQ(s.take(t0 + milliseconds(300)), 9);
    EXPECT_EQ(s.takenCount(), 9);
    // A picture the camera gave 50 ms in was not there for frame 1 (due 33.3 ms) only;
    // one given after the pass, for none of them.
    EXPECT_EQ(s.takenDueBefore(t0 + milliseconds(50)), 1);
    EXPECT_EQ(s.takenDueBefore(t0), 0);
    EXPECT_EQ(s.takenDueBefore(t0 + milliseconds(301)), 9);
    EXPECT_EQ(s.madeUp(), 8);
    EXPECT_EQ(s.notMadeUp(), 0);
    EXPECT_EQ(s.nextDue(), t0 + nanoseconds((10 * 1000000000LL + 29) / 30));
}

TEST(FrameSchedule, ALongStallIsMadeUpToOneSecondAndCounted)
{
    FrameSchedule s(30);
    const Clock::time_point t0{};
    s.restart(t0);
    EXPECT_EQ(s.take(t0), 1);
    // 3 s with no pass: 90 frames due, one second (30) handed over, 60 dropped.
    EXPECT_EQ(s.take(t0 + seconds(3)), 30);
    // The latest second is handed over: frames 61..90, due from 2.033 s on.
    EXPECT_EQ(s.takenDueBefore(t0 + milliseconds(2500)), 14);
    EXPECT_EQ(s.notMadeUp(), 60);
    EXPECT_EQ(s.madeUp(), 29);
    // The schedule goes on from where the clock is, not from the dropped frames.
    EXPECT_EQ(s.take(t0 + seconds(3)), 0);
    EXPECT_EQ(s.takenCount(), 0);
    EXPECT_EQ(s.take(t0 + seconds(3) + milliseconds(34)), 1);
}

TEST(FrameSchedule, ARestartMakesUpNothingOfThePause)
{
    FrameSchedule s(25);
    const Clock::time_point t0{};
    s.restart(t0);
    EXPECT_EQ(s.take(t0 + milliseconds(999)), 25); // frames 0..24
    // Paused for 5 s, then a new run.
    const Clock::time_point resume = t0 + seconds(6);
    s.restart(resume);
    EXPECT_EQ(s.take(resume), 1);
    EXPECT_EQ(s.notMadeUp(), 0);
    EXPECT_EQ(s.take(resume + milliseconds(40)), 1);
}

TEST(FrameSchedule, EdgeFrameRatesStaySafe)
{
    EXPECT_EQ(FrameSchedule(0).fps(), 10u);
    EXPECT_EQ(FrameSchedule(1).fps(), 1u);
    EXPECT_EQ(FrameSchedule(4294967293u).fps(), 10u);  // "-3" as unsigned: like 0
    EXPECT_EQ(FrameSchedule(5000).fps(), 1000u);       // held at the most a pass can keep
    FrameSchedule s(0);
    const Clock::time_point t0{};
    EXPECT_NEAR(double(runFor(s, t0, seconds(10), nanoseconds(0))), 101.0, 1.0);
    // A clock that reads before the run's start hands nothing over.
    s.restart(t0 + seconds(1));
    EXPECT_EQ(s.take(t0), 0);
}
