// Following a sound card's clock: the estimator, the drift controller and the sound
// timeline that drives it, fed simulated reads of a card whose crystal is off, with the
// jitter a busy machine gives read times.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <random>

#include "encode/clocksync.h"
#include "encode/soundtimeline.h"
#include "media/audioblock.h"

namespace {

using DC = DriftController;
constexpr double kRate = 48000.0;
constexpr int64_t kBlock = 1024;       // frames per read
constexpr double kStart = 12345.678;   // steady time the card starts at: far from 0

// How late reads complete. Uniform: every read 0-5 ms late; Outliers: and 2 % of reads
// 20-50 ms late; Disturbed: and 0.3 s stalls whose reads all complete at once, 1 s busy
// spells with every read 10-40 ms late, and 0.5 s overruns.
enum Jitter { None, Uniform, Outliers, Disturbed };

// Reads of a simulated card: when each completes on the steady clock, and how many frames
// the run has counted by then (frames lost in an overrun are counted as silence).
struct CardSim {
    double rate;             // true frames per steady second
    Jitter jitter;
    std::mt19937 rng;        // fixed seed: the same reads every run
    int64_t frames = 0;      // frames captured at the latest read
    double last = 0;         // completion of the latest read

    CardSim(double ppm, Jitter j, uint32_t seed) : rate(kRate * (1 + ppm * 1e-6)), jitter(j), rng(seed) {}

    double trueTime(int64_t f) const { return kStart + double(f) / rate; }
    double uniform(double lo, double hi) { return lo + (hi - lo) * double(rng() >> 8) / 16777216.0; }
    // Whether `rel` seconds into the run fall in a spell of `length` every `every` from `from`.
    static bool inSpell(double rel, double from, double every, double length)
    {
        return rel >= from && std::fmod(rel - from, every) < length;
    }

    // Advances to the next read: `last` and `frames` are its completion time and frames total.
    void next()
    {
        do // the frames of an overrun (0.5 s every 211 s) come back as silence with the next read
            frames += kBlock;
        while (jitter == Disturbed && inSpell(trueTime(frames) - kStart, 20, 211, 0.5));
        const double due = trueTime(frames), rel = due - kStart;
        double late = 0;
        if (jitter != None)
            late = jitter != Uniform && uniform(0, 1) < 0.02 ? uniform(0.020, 0.050) : uniform(0, 0.005);
        if (jitter == Disturbed && inSpell(rel, 31, 37, 1)) // busy spells
            late = uniform(0.010, 0.040);
        if (jitter == Disturbed && inSpell(rel, 13, 37, 0.3)) // stalls: reads complete at the end
            late = std::max(late, 0.3 - std::fmod(rel - 13, 37));
        last = std::max(last, due + late);
    }
};

// Bound on the measured rate: the lower envelope's points scatter by ~0.4 ms, which over
// a 30 s window of 120 points gives a slope error of ~4 ppm (one sigma); 20 ppm leaves
// room for the outliers while still catching a fit pulled by late reads (hundreds of ppm)
// or one that ignores the card (the rows go up to 1000 ppm).
constexpr double kMaxPpmError = 20.0;
// The fitted capture time: the envelope sits ~0.4 ms above the truth with 0-5 ms jitter.
constexpr double kMaxTimeError = 0.001;
// The sound against the steady clock through the controller, once acquired (after 20 s):
// the envelope's offset plus the proportional term's leftover from the first seconds.
constexpr double kMaxSettledError = 0.003, kAcquireSeconds = 20.0;
// From the start: before the fit is valid the card drifts at up to 1 ms/s, then the
// compensation needs 2 s of slewing to reach 1000 ppm.
constexpr double kMaxStartError = 0.006;

} // namespace

// Ten minutes of each card: the estimator's rate and capture times at checkpoints (32 s
// and 587 s end a busy spell), and the sound placed by the timeline on the estimator's
// capture times kept on the steady clock within bounds (which it is only if the
// compensation's fractions of a sample are carried from block to block).
TEST(ClockSync, TheEstimatorMeasuresTheCardAndTheTimelineKeepsTheSoundOnTheSteadyClock)
{
    uint32_t seed = 1;
    for (double ppm : {-1000.0, -200.0, 0.0, 300.0, 1000.0})
        for (Jitter jitter : {None, Uniform, Outliers, Disturbed}) {
            SCOPED_TRACE(testing::Message() << ppm << " ppm, jitter " << jitter);
            CardSim card(ppm, jitter, seed++);
            CardClockEstimator est(kRate);
            SoundTimeline timeline{int(kRate)};
            timeline.setCorrecting(true); // without an origin: the first block anchors the sound
            double worstStart = 0, worstSettled = 0;
            int64_t out = 0, framesIn = 0;
            for (double checkAt : {30.0, 32.0, 587.0, 600.0}) {
                while (card.last < kStart + checkAt) {
                    card.next();
                    est.add(card.last, card.frames);
                    AudioBlock block;
                    block.frames = int(card.frames - framesIn);
                    // The first block dated exactly, so that it anchors the sound at the card's
                    // start: where a block lands is the placement's concern, not the drift's.
                    block.captureTime = framesIn == 0 ? kStart : est.timeOfFrame(framesIn);
                    block.rateRatio = est.rateRatio();
                    const SoundTimeline::Placement p = timeline.place(block, out);
                    ASSERT_LE(std::abs(p.compensation), DC::kMaxCompensation * block.frames + 1) << card.last;
                    // The ideal resampler: the block's frames come out stretched by the compensation.
                    out += block.frames + p.compensation;
                    framesIn = card.frames;
                    const double trueError = std::abs(double(out) / kRate - (card.trueTime(framesIn) - kStart));
                    worstStart = std::max(worstStart, trueError);
                    worstSettled = std::max(worstSettled, card.last - kStart >= kAcquireSeconds ? trueError : 0);
                }
                ASSERT_TRUE(est.valid()) << "at " << checkAt << " s";
                EXPECT_NEAR((est.rateRatio() - (1.0 + ppm * 1e-6)) * 1e6, 0.0, kMaxPpmError) << checkAt;
                EXPECT_NEAR(est.timeOfFrame(framesIn), card.trueTime(framesIn), kMaxTimeError) << checkAt;
            }
            EXPECT_LT(worstStart, kMaxStartError);
            EXPECT_LT(worstSettled, kMaxSettledError);
        }
}

// A card whose rate changes (a crystal warming, exaggerated) is followed once the window
// has passed the change; a new run (after a reset) starts from the nominal rate; a run of
// hours keeps its precision.
TEST(CardClockEstimator, FollowsARateChangeAndANewRunAndStaysExactForHours)
{
    CardClockEstimator est(kRate);
    // Reads of `card` up to its time `until`, moved by `dt` seconds and `df` frames.
    const auto feed = [&](CardSim &card, double until, double dt, int64_t df) {
        while (card.last < until) {
            card.next();
            est.add(card.last + dt, card.frames + df);
        }
        return card.frames;
    };
    CardSim slow(-200.0, Outliers, 8), warm(200.0, Outliers, 9);
    const int64_t before = feed(slow, kStart + 600.0, 0, 0);
    ASSERT_NEAR(est.rateRatio(), 1.0 - 200e-6, kMaxPpmError * 1e-6);
    const double shift = slow.trueTime(before) - kStart; // the same run goes on, warmer
    int64_t frames = feed(warm, kStart + CardClockEstimator::kWindowSeconds + 5.0, shift, before);
    EXPECT_NEAR(est.rateRatio(), 1.0 + 200e-6, kMaxPpmError * 1e-6);
    EXPECT_NEAR(est.timeOfFrame(before + frames), warm.trueTime(frames) + shift, kMaxTimeError);

    est.reset(); // a fast card, 100 s later, counting from 0 again
    CardSim fast(1000.0, Uniform, 7);
    frames = feed(fast, kStart + 1.0, 100.0, 0);
    // Too short to measure: the nominal rate through the latest point, within the jitter.
    EXPECT_FALSE(est.valid());
    EXPECT_EQ(est.rateRatio(), 1.0);
    EXPECT_NEAR(est.timeOfFrame(frames), fast.trueTime(frames) + 100.0, 0.005);

    // Ten hours without jitter, one read a second, on a steady clock a day past boot:
    // sums of squares of raw times and frame counts would have lost the microseconds.
    est.reset();
    const double t0 = 86400.0, rate = kRate * (1.0 + 1000e-6);
    for (frames = 48000; double(frames) / rate < 36000.0; frames += 48000)
        est.add(t0 + double(frames) / rate, frames);
    EXPECT_NEAR((est.rateRatio() - 1.001) * 1e6, 0.0, 0.01);
    EXPECT_NEAR(est.timeOfFrame(frames), t0 + double(frames) / rate, 1e-6);
}

TEST(DriftController, SaturatesAtTheBoundAndLetsGoWithoutWindUp)
{
    DriftController ctl;
    const double dt = 0.02, slewStep = dt * DC::kMaxSlewPerSecond;
    // The sound half a second ahead for a minute: the output is bent down to the bound,
    // no faster than the slew limit.
    for (int i = 1; i <= 3000; ++i)
        ASSERT_NEAR(ctl.update(0.5, 1.0, dt), -std::min(DC::kMaxCompensation, i * slewStep), 1e-12) << i;
    // Back on time: the compensation returns at the slew limit; an integral wound up over
    // the minute would hold it at the bound for minutes.
    for (int i = 0; i < 1000; ++i)
        ctl.update(0.0, 1.0, dt);
    EXPECT_NEAR(ctl.compensation(), 0.0, 1e-4);
    // A card far outside the bound is followed only up to it.
    for (int i = 0; i < 1000; ++i)
        ctl.update(0.0, 0.9, dt);
    EXPECT_DOUBLE_EQ(ctl.compensation(), DC::kMaxCompensation);
    ctl.reset();
    EXPECT_EQ(ctl.update(0.0, 1.0, dt), 0.0);
    // The first update after a long gap moves the pitch no more than a regular step would.
    EXPECT_DOUBLE_EQ(ctl.update(0.5, 1.0, 5.0), -DC::kMaxSlewPerSecond * DC::kMaxStepSeconds);
}
