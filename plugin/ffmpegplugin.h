#ifndef FFMPEGPLUGIN_H
#define FFMPEGPLUGIN_H

#include <QString>
#include <QtPlugin>

#include "plugincomponent.h"

#define FFMPEGPlugin_iid "com.kw.ffmpegplugin"

// The slot order of both interfaces is the host contract: never reorder, never insert.
class PluginInterface
{
public:
    virtual void setPluginComponent(PluginComponent *component) = 0;

protected:
    // Not in the vtable: the instance is destroyed as a QObject, never through here.
    ~PluginInterface() = default;
};

// The recording interface. Every operation may be called from any host thread.
class FFMPEGPlugin : public PluginInterface
{
public:
    virtual void startRecord() = 0;
    virtual void stopRecord() = 0;
    virtual bool isRecording() = 0;
    virtual bool hasVideo() const = 0;
    virtual void setHasVideo(bool) = 0;
    virtual bool hasAudio() const = 0;
    virtual void setHasAudio(bool) = 0;
    virtual QString filename() const = 0;
    virtual void setFilename(const QString &) = 0;
    virtual bool bPauseRec() = 0;
    virtual bool bResumeRec() = 0;
    virtual void vSetRecSize(long width, long height) = 0;
    virtual int fps() const = 0;
    virtual void setFps(int) = 0;
    virtual unsigned int videoBitrate() const = 0;
    virtual void setVideoBitrate(unsigned int) = 0;
    virtual bool waitForRecordStart(int msecs) = 0;

protected:
    ~FFMPEGPlugin() = default;
};

Q_DECLARE_INTERFACE(FFMPEGPlugin, FFMPEGPlugin_iid)

#endif // FFMPEGPLUGIN_H
