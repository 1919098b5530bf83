// Following a sound card's clock: the estimator and the drift controller, fed simulated
// reads of a card whose crystal is off, with the jitter a busy machine gives read times.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <random>

#include "encode/clocksync.h"

namespace {

constexpr double kRate = 48000.0;
constexpr int64_t kBlock = 1024;       // frames per read
constexpr double kStart = 12345.678;   // steady time the card starts at: far from 0

enum class Jitter {
    None,
    Uniform,    // every read 0-5 ms late
    Outliers,   // and 2 % of reads 20-50 ms late
    Disturbed,  // and 0.3 s stalls whose reads all complete at once, 1 s busy spells
                // with every read 10-40 ms late, and 0.5 s overruns
};

const char *name(Jitter j)
{
    switch (j) {
    case Jitter::None: return "none";
    case Jitter::Uniform: return "0-5 ms";
    case Jitter::Outliers: return "0-5 ms + 2 % 20-50 ms";
    case Jitter::Disturbed: return "+ stalls, busy spells, overruns";
    }
    return "?";
}

// Reads of a simulated card: when each completes on the steady clock, and how many frames
// the run has counted by then (frames lost in an overrun are counted as silence).
class CardSim
{
public:
    CardSim(double ppm, Jitter jitter, uint32_t seed)
        : m_rate(kRate * (1.0 + ppm * 1e-6)), m_jitter(jitter), m_rng(seed)
    {
    }

    // From frame `frame` on, the card runs at `ppm` instead.
    void changeRate(int64_t frame, double ppm)
    {
        m_changeTime = trueTime(frame);
        m_changeFrame = frame;
        m_rateAfter = kRate * (1.0 + ppm * 1e-6);
    }

    // True steady time at which frame f was captured.
    double trueTime(int64_t f) const
    {
        if (m_changeFrame >= 0 && f > m_changeFrame)
            return m_changeTime + double(f - m_changeFrame) / m_rateAfter;
        return kStart + double(f) / m_rate;
    }

    // Advances to the next read: its completion time and the frames total.
    void next(double &t, int64_t &frames)
    {
        for (;;) {
            m_frames += kBlock;
            const double due = trueTime(m_frames);
            const double rel = due - kStart;
            if (m_jitter == Jitter::Disturbed && inOverrun(rel))
                continue; // nothing read; the frames come back as silence with the next read
            double done = due + lateness();
            if (m_jitter == Jitter::Disturbed && inBusySpell(rel))
                done = due + uniform(0.010, 0.040);
            if (m_jitter == Jitter::Disturbed) {
                const double stallEnd = stallEndFor(rel);
                if (stallEnd > 0)
                    done = std::max(done, kStart + stallEnd);
            }
            m_last = std::max(m_last, done);
            t = m_last;
            frames = m_frames;
            return;
        }
    }

private:
    static bool inOverrun(double rel)
    {
        for (double at : {20.0, 250.0, 431.0})
            if (rel >= at && rel < at + 0.5)
                return true;
        return false;
    }
    // Busy spells of 1 s every 37 s: whole buckets of late reads.
    static bool inBusySpell(double rel)
    {
        return rel >= 31.0 && std::fmod(rel - 31.0, 37.0) < 1.0;
    }
    // Stalls of 0.3 s every 37 s, at varying phases against the estimator's buckets.
    static double stallEndFor(double rel)
    {
        const double phase = std::fmod(rel - 13.0, 37.0);
        if (rel < 13.0 || phase >= 0.3)
            return 0;
        return rel - phase + 0.3;
    }
    double uniform(double lo, double hi)
    {
        return lo + (hi - lo) * double(m_rng() >> 8) / 16777216.0;
    }
    double lateness()
    {
        if (m_jitter == Jitter::None)
            return 0;
        if (m_jitter != Jitter::Uniform && uniform(0, 1) < 0.02)
            return uniform(0.020, 0.050);
        return uniform(0, 0.005);
    }

    double m_rate;           // true frames per steady second
    int64_t m_changeFrame = -1; // first frame of the changed rate, -1: none
    double m_changeTime = 0;    // its true time
    double m_rateAfter = 0;     // true frames per steady second from then on
    Jitter m_jitter;
    std::mt19937 m_rng;      // fixed seed: the same reads every run
    int64_t m_frames = 0;    // frames captured at the latest read
    double m_last = 0;       // completion of the latest read
};

} // namespace

// Bound on the measured rate: the lower envelope's points scatter by ~0.4 ms, which over
// a 30 s window of 120 points gives a slope error of ~4 ppm (one sigma); 20 ppm leaves
// room for the outliers while still catching a fit pulled by late reads (hundreds of ppm)
// or one that ignores the card (the rows go up to 1000 ppm). 20 ppm is 0.6 ms over the
// window, which the controller's proportional term absorbs.
constexpr double kMaxPpmError = 20.0;
// The fitted capture time: the envelope sits ~0.4 ms above the truth with 0-5 ms jitter.
constexpr double kMaxTimeError = 0.001;

TEST(CardClockEstimator, MeasuresTheCardAndRemovesTheJitter)
{
    uint32_t seed = 1;
    for (double ppm : {-1000.0, -200.0, 0.0, 100.0, 1000.0}) {
        for (Jitter jitter : {Jitter::None, Jitter::Uniform, Jitter::Outliers, Jitter::Disturbed}) {
            SCOPED_TRACE(testing::Message() << ppm << " ppm, jitter " << name(jitter));
            CardSim card(ppm, jitter, seed++);
            CardClockEstimator est(kRate);
            double t = 0;
            int64_t frames = 0;
            // 32 s and 587 s: at the end of a busy spell, whose late points sit at the window's end.
            for (double checkAt : {30.0, 32.0, 587.0, 600.0}) {
                double tMid = 0;
                int64_t framesMid = 0;
                while (t < kStart + checkAt) {
                    card.next(t, frames);
                    est.add(t, frames);
                    if (tMid == 0 && t >= kStart + checkAt - 15.0) {
                        tMid = t;
                        framesMid = frames;
                    }
                }
                ASSERT_TRUE(est.valid()) << "at " << checkAt << " s";
                EXPECT_NEAR((est.rateRatio() - (1.0 + ppm * 1e-6)) * 1e6, 0.0, kMaxPpmError)
                    << "at " << checkAt << " s";
                for (int64_t f : {frames, framesMid})
                    EXPECT_NEAR(est.timeOfFrame(f), card.trueTime(f), kMaxTimeError)
                        << "frame " << f << " at " << checkAt << " s";
            }
        }
    }
}

TEST(CardClockEstimator, ARunStartsWithTheNominalRateAndAResetForgetsTheOldRun)
{
    CardClockEstimator est(kRate);
    double t = 0;
    int64_t frames = 0;
    CardSim fast(1000.0, Jitter::Uniform, 7);
    while (t < kStart + 60.0) {
        fast.next(t, frames);
        est.add(t, frames);
    }
    ASSERT_NEAR(est.rateRatio(), 1.001, kMaxPpmError * 1e-6);

    // A new run on a slow card, 100 s later, counting from 0 again.
    est.reset();
    CardSim slow(-1000.0, Jitter::Uniform, 8);
    double t2 = 0;
    int64_t frames2 = 0;
    while (t2 < kStart + 1.0) {
        slow.next(t2, frames2);
        est.add(t2 + 100.0, frames2);
    }
    // Too short to measure: the nominal rate through the latest point, within the jitter.
    EXPECT_FALSE(est.valid());
    EXPECT_EQ(est.rateRatio(), 1.0);
    EXPECT_NEAR(est.timeOfFrame(frames2), slow.trueTime(frames2) + 100.0, 0.005);
    while (t2 < kStart + 30.0) {
        slow.next(t2, frames2);
        est.add(t2 + 100.0, frames2);
    }
    ASSERT_TRUE(est.valid());
    EXPECT_NEAR(est.rateRatio(), 0.999, kMaxPpmError * 1e-6);
    EXPECT_NEAR(est.timeOfFrame(frames2), slow.trueTime(frames2) + 100.0, kMaxTimeError);
}

TEST(CardClockEstimator, FollowsACardWhoseRateChanges)
{
    // Ten minutes at -200 ppm, then +200 ppm (a crystal warming, exaggerated): once the
    // window has passed the change, only the new rate counts.
    CardSim card(-200.0, Jitter::Outliers, 9);
    CardClockEstimator est(kRate);
    double t = 0;
    int64_t frames = 0;
    while (t < kStart + 600.0) {
        card.next(t, frames);
        est.add(t, frames);
    }
    ASSERT_NEAR(est.rateRatio(), 1.0 - 200e-6, kMaxPpmError * 1e-6);
    card.changeRate(frames, 200.0);
    const double changedAt = t;
    while (t < changedAt + CardClockEstimator::kWindowSeconds + 5.0) {
        card.next(t, frames);
        est.add(t, frames);
    }
    EXPECT_NEAR(est.rateRatio(), 1.0 + 200e-6, kMaxPpmError * 1e-6);
    EXPECT_NEAR(est.timeOfFrame(frames), card.trueTime(frames), kMaxTimeError);
}

TEST(CardClockEstimator, StaysExactAfterHours)
{
    // Ten hours without jitter, one read a second, on a steady clock a day past boot:
    // sums of squares of raw times and frame counts would have lost the microseconds.
    const double t0 = 86400.0;
    const double rate = kRate * (1.0 + 1000e-6);
    const int64_t perRead = 48000;
    CardClockEstimator est(kRate);
    int64_t frames = 0;
    while (double(frames) / rate < 36000.0) {
        frames += perRead;
        est.add(t0 + double(frames) / rate, frames);
    }
    EXPECT_NEAR((est.rateRatio() - 1.001) * 1e6, 0.0, 0.01);
    EXPECT_NEAR(est.timeOfFrame(frames), t0 + double(frames) / rate, 1e-6);
}

// Within this of the steady clock once acquired: the estimator's ~0.4 ms envelope offset
// plus the proportional term's leftover from the first seconds' drift.
constexpr double kMaxSettledError = 0.003;
constexpr double kAcquireSeconds = 20.0;
// From the start: before the fit is valid the card drifts at up to 1 ms/s, then the
// compensation needs 2 s of slewing to reach 1000 ppm.
constexpr double kMaxStartError = 0.006;

TEST(DriftController, KeepsTheSoundOnTheSteadyClockWithinBoundsAndSlew)
{
    struct Row {
        double ppm;
        Jitter jitter;
    };
    const Row rows[] = {
        {-1000, Jitter::Outliers}, {0, Jitter::Outliers}, {300, Jitter::Outliers},
        {1000, Jitter::Outliers},  {1000, Jitter::Disturbed}, {-1000, Jitter::Disturbed},
    };
    uint32_t seed = 100;
    for (const Row &row : rows) {
        SCOPED_TRACE(testing::Message() << row.ppm << " ppm, jitter " << name(row.jitter));
        CardSim card(row.ppm, row.jitter, seed++);
        CardClockEstimator est(kRate);
        DriftController ctl;
        const double anchor = kStart; // the run's frame 0 on the steady clock
        double t = 0, tPrev = 0, out = 0, cPrev = 0;
        int64_t framesIn = 0, frames = 0;
        double worstSettled = 0, worstStart = 0;
        bool first = true;
        while (t < kStart + 600.0) {
            card.next(t, frames);
            est.add(t, frames);
            const double error = out / kRate - (est.timeOfFrame(framesIn) - anchor);
            const double dt = first ? 0.0 : t - tPrev;
            first = false;
            tPrev = t;
            const double c = ctl.update(error, est.rateRatio(), dt);
            ASSERT_LE(std::abs(c), DriftController::kMaxCompensation + 1e-12) << "at " << t - kStart;
            ASSERT_LE(std::abs(c - cPrev),
                      DriftController::kMaxSlewPerSecond
                              * std::min(dt, DriftController::kMaxStepSeconds) + 1e-12)
                << "at " << t - kStart;
            cPrev = c;
            // The ideal resampler: this read's frames come out stretched by 1 + c.
            const int block = int(frames - framesIn);
            out += double(block + ctl.compensationSamples(c, block));
            framesIn = frames;
            const double trueError = out / kRate - (card.trueTime(framesIn) - anchor);
            worstStart = std::max(worstStart, std::abs(trueError));
            if (t - kStart >= kAcquireSeconds)
                worstSettled = std::max(worstSettled, std::abs(trueError));
        }
        EXPECT_LT(worstStart, kMaxStartError);
        EXPECT_LT(worstSettled, kMaxSettledError);
    }
}

TEST(DriftController, SaturatesAtTheBoundAndLetsGoWithoutWindUp)
{
    DriftController ctl;
    const double dt = 0.02;
    // The sound half a second ahead for a minute: the output is bent down to the bound,
    // no faster than the slew limit.
    double c = 0;
    for (int i = 1; i <= 3000; ++i) {
        c = ctl.update(0.5, 1.0, dt);
        const double limit = std::min(DriftController::kMaxCompensation,
                                      i * dt * DriftController::kMaxSlewPerSecond);
        ASSERT_NEAR(c, -limit, 1e-12) << "update " << i;
    }
    // Back on time: the compensation returns at the slew limit; an integral wound up over
    // the minute would hold it at the bound for minutes.
    for (int i = 0; i < 1000; ++i)
        c = ctl.update(0.0, 1.0, dt);
    EXPECT_NEAR(c, 0.0, 1e-4);
    // A card far outside the bound is followed only up to it.
    for (int i = 0; i < 1000; ++i)
        c = ctl.update(0.0, 0.9, dt);
    EXPECT_DOUBLE_EQ(c, DriftController::kMaxCompensation);
    ctl.reset();
    EXPECT_EQ(ctl.update(0.0, 1.0, dt), 0.0);
    // The first update after a long gap moves the pitch no more than a regular step would.
    EXPECT_DOUBLE_EQ(ctl.update(0.5, 1.0, 5.0),
                     -DriftController::kMaxSlewPerSecond * DriftController::kMaxStepSeconds);
}

TEST(DriftController, CompensationSamplesCarryTheFractions)
{
    for (double c : {0.005, -0.005, 0.0001234, -0.0031, 1e-7, 0.0}) {
        for (int block : {1024, 1023, 960}) {
            DriftController ctl;
            int64_t sum = 0;
            for (int i = 0; i < 10000; ++i) {
                const int delta = ctl.compensationSamples(c, block);
                ASSERT_LE(std::abs(delta - c * block), 1.0) << c << " x " << block;
                sum += delta;
            }
            EXPECT_NEAR(double(sum), c * block * 10000.0, 1.0) << c << " x " << block;
        }
    }
}
