#include "testcameras.h"

#include "syntheticcamera.h"

PrerenderedCamera::PrerenderedCamera(int w, int h, int fps)
    : m_period(std::chrono::nanoseconds(1000000000LL / (fps > 0 ? fps : 1)))
{
    for (int i = 0; i < kFrames; ++i)
        m_frames.push_back(SyntheticCamera::makeFrame(w, h, i, i * 1000 / (fps > 0 ? fps : 1)));
}
