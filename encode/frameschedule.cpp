#include "frameschedule.h"

#include <algorithm>

#include "media/mediawriter.h"

unsigned int FrameSchedule::effectiveFps(unsigned int fps)
{
    // The session hands a negative rate over as a huge unsigned one.
    return static_cast<unsigned int>(recordingFps(static_cast<int>(fps)));
}

FrameSchedule::FrameSchedule(unsigned int fps)
    : m_fps(effectiveFps(fps))
{
}

void FrameSchedule::restart(Clock::time_point now)
{
    m_runPts += m_next;
    m_t0 = now;
    m_next = 0;
    m_takenFirst = 0;
}

FrameSchedule::Clock::time_point FrameSchedule::dueTime(int64_t k) const
{
    // k x 1e9 / fps rounded up to whole nanoseconds, from k itself: no drift for any k,
    // and at that instant take() counts frame k as due (it rounds the other way).
    return m_t0 + std::chrono::nanoseconds((k * 1000000000LL + m_fps - 1) / m_fps);
}

int FrameSchedule::take(Clock::time_point now)
{
    if (now < m_t0)
        return 0;
    const int64_t elapsedNs =
        std::chrono::duration_cast<std::chrono::nanoseconds>(now - m_t0).count();
    // Frames 0 .. due-1 have their due time at or before now.
    const int64_t due = elapsedNs * m_fps / 1000000000LL + 1;
    const int64_t backlog = due - m_next;
    if (backlog <= 0) {
        m_takenFirst = m_next;
        return 0;
    }
    const int64_t cap = m_fps; // one second's worth
    const int64_t handed = std::min(backlog, cap);
    m_notMadeUp += backlog - handed;
    m_madeUp += handed - 1;
    m_takenFirst = due - handed;
    m_next = due;
    return static_cast<int>(handed);
}

int FrameSchedule::takenDueBefore(Clock::time_point t) const
{
    int64_t k = m_takenFirst;
    while (k < m_next && dueTime(k) < t)
        ++k;
    return static_cast<int>(k - m_takenFirst);
}

FrameSchedule::Clock::time_point FrameSchedule::nextDue() const
{
    return dueTime(m_next);
}
