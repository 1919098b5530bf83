#ifndef FRAMESCHEDULE_H
#define FRAMESCHEDULE_H

#include <chrono>
#include <cstdint>

// When video frames are due, read from a steady clock: in a run that began at t0,
// frame k is due at t0 + k x (1 s / fps), computed from k each time so that no rounding
// accumulates. A pass that comes late hands over every frame that has become due since
// the last pass, so frames handed over always equal the whole periods elapsed; a backlog
// longer than one second (the machine stalled) is made up to one second only, and the
// rest is left as a gap on the timeline: the picture keeps true time either way.
// Every frame has a pts (frame periods since the first run began): runs follow each
// other without a gap, so paused time is not on the timeline.
// Used by one thread (the feeder's).
class FrameSchedule
{
public:
    using Clock = std::chrono::steady_clock;

    // Frame rate used for a requested one, the same as the writer's time base uses.
    static unsigned int effectiveFps(unsigned int fps);

    explicit FrameSchedule(unsigned int fps);

    // Begins a new run whose frame 0 is due at `now` (start, and after a pause: paused
    // time is neither recorded nor made up).
    void restart(Clock::time_point now);
    // Frames to hand over at `now`: all that have become due since the last call, at most
    // one second's worth (the latest ones). Marks them as handed over.
    int take(Clock::time_point now);
    // pts of the first of the frames the last take() returned.
    int64_t takenPts() const { return m_runPts + m_takenFirst; }
    // How many frames the last take() returned.
    int takenCount() const { return static_cast<int>(m_next - m_takenFirst); }
    // How many of the frames the last take() returned were due before `t`.
    int takenDueBefore(Clock::time_point t) const;
    // When the next frame is due.
    Clock::time_point nextDue() const;

    unsigned int fps() const { return m_fps; }
    // Frames handed over beyond one per pass: late passes that caught up.
    int64_t madeUp() const { return m_madeUp; }
    // Frames of a backlog over one second that were left as a gap, not made up.
    int64_t notMadeUp() const { return m_notMadeUp; }

private:
    Clock::time_point dueTime(int64_t k) const;

    unsigned int m_fps;            // frames per second actually scheduled
    Clock::time_point m_t0;        // start of the current run
    int64_t m_next = 0;            // index in this run of the next frame to hand over
    int64_t m_takenFirst = 0;      // index in this run of the first frame the last take() gave
    int64_t m_runPts = 0;          // pts of frame 0 of the current run
    int64_t m_madeUp = 0;          // frames, all runs
    int64_t m_notMadeUp = 0;       // frames, all runs
};

#endif // FRAMESCHEDULE_H
