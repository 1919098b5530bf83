#include "clocksync.h"

#include <algorithm>
#include <cmath>

namespace {

// Fewest kept points a fit is made from.
constexpr size_t kMinFitPoints = 3;

} // namespace

CardClockEstimator::CardClockEstimator(double nominalRate)
    : m_nominalRate(nominalRate > 0 ? nominalRate : 1.0)
{
}

void CardClockEstimator::reset()
{
    m_started = false;
    m_t0 = 0;
    m_frame0 = 0;
    m_points.clear();
    m_valid = false;
    m_meanT = m_meanF = m_slope = 0;
}

void CardClockEstimator::add(double tSeconds, int64_t framesTotal)
{
    if (!std::isfinite(tSeconds))
        return;
    if (!m_started) {
        // Sums are taken relative to the run's first read, so squares stay small for hours.
        m_started = true;
        m_t0 = tSeconds;
        m_frame0 = framesTotal;
    }
    const Point p{static_cast<int64_t>(std::floor((tSeconds - m_t0) / kBucketSeconds)),
                  tSeconds - m_t0, framesTotal - m_frame0};
    if (!m_points.empty()) {
        Point &last = m_points.back();
        if (p.bucket < last.bucket)
            return; // a steady clock does not go back: not a read of this run
        if (p.bucket == last.bucket) {
            // Lower envelope: the read that came soonest after its frames is kept.
            const double key = p.t - double(p.frames) / m_nominalRate;
            const double lastKey = last.t - double(last.frames) / m_nominalRate;
            if (key >= lastKey)
                return;
            last = p;
            refit();
            return;
        }
    }
    m_points.push_back(p);
    while (m_points.front().t < p.t - kWindowSeconds)
        m_points.pop_front();
    refit();
}

void CardClockEstimator::refit()
{
    m_valid = false;
    if (m_points.size() < kMinFitPoints
        || m_points.back().t - m_points.front().t < kMinSpanSeconds)
        return;
    if (!fit(false))
        return;
    m_valid = true;
    // A second pass without the points far above the first line; if too few are left,
    // the first line stands.
    const double meanT = m_meanT, meanF = m_meanF, slope = m_slope;
    if (!fit(true)) {
        m_meanT = meanT;
        m_meanF = meanF;
        m_slope = slope;
    }
}

bool CardClockEstimator::fit(bool dropOutliers)
{
    const double meanT0 = m_meanT, meanF0 = m_meanF, slope0 = m_slope;
    auto kept = [&](const Point &p) {
        return !dropOutliers
            || p.t - (meanT0 + slope0 * (double(p.frames) - meanF0)) <= kOutlierSeconds;
    };
    size_t n = 0;
    double sumT = 0, sumF = 0;
    for (const Point &p : m_points) {
        if (!kept(p))
            continue;
        ++n;
        sumT += p.t;
        sumF += double(p.frames);
    }
    if (n < kMinFitPoints)
        return false;
    const double meanT = sumT / double(n);
    const double meanF = sumF / double(n);
    // Centred sums: no cancellation between large totals.
    double sff = 0, sft = 0;
    for (const Point &p : m_points) {
        if (!kept(p))
            continue;
        const double df = double(p.frames) - meanF;
        sff += df * df;
        sft += df * (p.t - meanT);
    }
    if (!(sff > 0) || !(sft > 0))
        return false;
    m_meanT = meanT;
    m_meanF = meanF;
    m_slope = sft / sff;
    return true;
}

double CardClockEstimator::rateRatio() const
{
    return m_valid ? 1.0 / (m_slope * m_nominalRate) : 1.0;
}

double CardClockEstimator::timeOfFrame(int64_t frame) const
{
    if (m_points.empty())
        return double(frame) / m_nominalRate;
    const double f = double(frame - m_frame0);
    if (m_valid)
        return m_t0 + m_meanT + m_slope * (f - m_meanF);
    const Point &p = m_points.back();
    return m_t0 + p.t + (f - double(p.frames)) / m_nominalRate;
}

void DriftController::reset()
{
    m_c = 0;
    m_integral = 0;
    m_remainder = 0;
}

double DriftController::update(double errorSeconds, double rateRatio, double dtSeconds)
{
    if (!(dtSeconds > 0) || !std::isfinite(errorSeconds) || !(rateRatio > 0)
        || !std::isfinite(rateRatio))
        return m_c;
    const double step = std::min(dtSeconds, kMaxStepSeconds);
    const double feedForward = 1.0 / rateRatio - 1.0;
    const double proportional = -errorSeconds / kProportionalSeconds;
    const double gainI = 1.0 / (kProportionalSeconds * kIntegralSeconds);
    double integral = m_integral + errorSeconds * step;
    double target = feedForward + proportional - integral * gainI;
    // No winding up against the bound: while the output is held there, an error that
    // would push it further out is not integrated.
    if ((target > kMaxCompensation && errorSeconds < 0)
        || (target < -kMaxCompensation && errorSeconds > 0)) {
        integral = m_integral;
        target = feedForward + proportional - integral * gainI;
    }
    m_integral = integral;
    target = std::clamp(target, -kMaxCompensation, kMaxCompensation);
    const double maxChange = kMaxSlewPerSecond * step;
    m_c += std::clamp(target - m_c, -maxChange, maxChange);
    return m_c;
}

int DriftController::compensationSamples(double c, int blockSamples)
{
    if (blockSamples <= 0 || !std::isfinite(c))
        return 0;
    m_remainder += c * double(blockSamples);
    const double delta = std::round(m_remainder);
    m_remainder -= delta;
    return static_cast<int>(delta);
}
