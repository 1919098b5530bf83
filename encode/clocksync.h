#ifndef CLOCKSYNC_H
#define CLOCKSYNC_H

#include <cstdint>
#include <deque>

// Keeping the sound on the steady clock that times the picture. A sound card counts
// samples on its own crystal, which runs tens to hundreds of ppm off; left alone, the
// sound drifts away from the picture by that much. CardClockEstimator measures the card
// against the steady clock from the times reads complete; DriftController turns the
// measurement and the remaining error into a gentle resampling correction.
// Pure computation on the numbers given: no clock reads, no locking.

// Least-squares fit of steady time against frames captured, over a sliding window.
// Reads complete late (scheduling), never early, so each decimation bucket keeps only its
// earliest time-for-frames (the lower envelope), and points far above the fit are left out.
// Used by one thread (the capture thread's), or under the caller's lock.
class CardClockEstimator
{
public:
    // How far back the fit looks: long enough to average the jitter to a few ppm,
    // short enough to follow a crystal warming up.
    static constexpr double kWindowSeconds = 30.0;
    // One kept point per bucket: ~12 reads of 1024 frames at 48 kHz, whose earliest is
    // within ~0.4 ms of the true capture time when reads are 0-5 ms late.
    static constexpr double kBucketSeconds = 0.25;
    // Span the kept points must cover before the fit is used: the rate is then known to
    // ~100 ppm, and it improves as the window fills.
    static constexpr double kMinSpanSeconds = 3.0;
    // A kept point this far above the fit came from a stalled bucket (every read in it
    // late) and is left out of the second fit.
    static constexpr double kOutlierSeconds = 0.003;

    // nominalRate: the rate the card was opened at, in frames per second.
    explicit CardClockEstimator(double nominalRate);

    // A read completed at steady time tSeconds with framesTotal frames captured since the
    // run began (silence put in for frames lost to an overrun included).
    void add(double tSeconds, int64_t framesTotal);
    // Starts over for a new run (after a pause, or a re-opened device).
    void reset();
    // True once the kept points span kMinSpanSeconds, so the fit can be used.
    bool valid() const { return m_valid; }
    // Frames the card captures per steady second over the nominal rate (1.0 while not valid).
    double rateRatio() const;
    // Fitted steady time, in seconds, at which that frame of the run was captured (read
    // jitter removed); while not valid, the nominal rate through the latest kept point;
    // before any point, frame / nominal rate.
    double timeOfFrame(int64_t frame) const;

    double nominalRate() const { return m_nominalRate; }

private:
    struct Point {
        int64_t bucket;  // floor((t - m_t0) / kBucketSeconds)
        double t;        // steady time, seconds since m_t0
        int64_t frames;  // frames since m_frame0
    };

    void refit();
    bool fit(bool dropOutliers);

    double m_nominalRate;       // frames per second the card was opened at
    bool m_started = false;     // m_t0 and m_frame0 are set
    double m_t0 = 0;            // steady time of the run's first read, seconds
    int64_t m_frame0 = 0;       // frames total at the run's first read
    std::deque<Point> m_points; // one per bucket within kWindowSeconds of the latest
    bool m_valid = false;       // m_points span kMinSpanSeconds and the fit succeeded
    double m_meanT = 0;         // fitted line: t = m_meanT + m_slope x (frames - m_meanF),
    double m_meanF = 0;         //   both relative to m_t0 / m_frame0
    double m_slope = 0;         // steady seconds per frame
};

// Turns the sound's timeline error into the compensation for the resampler: a
// feed-forward from the measured card rate plus a slow PI term on the remaining error,
// bounded and slew-limited so the pitch never jumps.
// Used by one thread (the media writer's), or under the caller's lock.
class DriftController
{
public:
    // Most the output rate is bent: covers any real crystal (+-200 ppm) many times over
    // and stays far below what a listener hears as pitch (0.5 % is under a tenth of a
    // semitone).
    static constexpr double kMaxCompensation = 0.005;
    // Fastest the compensation changes, per second: full scale takes 10 s.
    static constexpr double kMaxSlewPerSecond = 0.0005;
    // Time constant of the proportional term: an error of e seconds is worked off at
    // e / kProportionalSeconds seconds per second, slow enough that the fit's sub-ms
    // noise moves the pitch by only a few ppm.
    static constexpr double kProportionalSeconds = 20.0;
    // Integral time: removes an offset the estimator leaves; over four proportional time
    // constants keeps the loop from overshooting (damping above 1).
    static constexpr double kIntegralSeconds = 100.0;
    // Longest step one update integrates over: a long gap between updates must not kick
    // the integral.
    static constexpr double kMaxStepSeconds = 1.0;

    // errorSeconds: output samples written so far / rate - (steady time of the input
    // frames consumed, from CardClockEstimator::timeOfFrame, - the run's fixed anchor);
    // positive when the sound is ahead. rateRatio: CardClockEstimator::rateRatio().
    // dtSeconds: steady time since the last update. Returns the compensation c: output
    // samples per input sample are 1 + c.
    double update(double errorSeconds, double rateRatio, double dtSeconds);
    // Starts over for a new run: no compensation, no integral, no fraction carried.
    void reset();
    // The compensation update() last returned.
    double compensation() const { return m_c; }
    // Whole samples to add (negative: remove) over the next block of blockSamples for a
    // compensation c, carrying the fraction to later blocks so that over many blocks the
    // sum is c x the samples (swr_set_compensation(swr, delta, blockSamples) per block).
    int compensationSamples(double c, int blockSamples);

private:
    double m_c = 0;          // compensation last returned, output/input - 1
    double m_integral = 0;   // integral of the error, seconds x seconds
    double m_remainder = 0;  // samples owed to later blocks, at most half a sample
};

#endif // CLOCKSYNC_H
