#ifndef PLUGINCOMPONENT_H
#define PLUGINCOMPONENT_H

#include <opencv2/core/mat.hpp>

// The host's frame source. The plugin calls exactly these three operations, in this
// slot order, all on the recorder's session thread.
class PluginComponent
{
public:
    // Once per recording session, before the encoder is built.
    virtual void beginUse() = 0;
    // Puts the current camera frame (8-bit BGR) into `frame`, which arrives empty.
    // Returns false, or leaves it empty, when there is no frame this time.
    // Called back to back by the session: pace it, or block until a new frame.
    virtual bool getFrame(cv::Mat &frame) = 0;
    // Once at the very end of the session, on the component that got beginUse.
    virtual void endUse() = 0;

    virtual ~PluginComponent() = default;
};

#endif // PLUGINCOMPONENT_H
