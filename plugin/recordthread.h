#ifndef RECORDTHREAD_H
#define RECORDTHREAD_H

#include <QThread>
#include <memory>

#include "ffmpegplugin.h"
#include "recordingstatus.h"

class RecordThreadPrivate;

// The status record as version 1.0 laid it out, frozen: it is returned by value, so a host
// built for 1.0 keeps room for exactly these members in this order.
struct RecordingStatusV1 {
    RecordingStatus::State state = RecordingStatus::State::Idle;
    QString file;
    bool video = false;
    bool audio = false;
    double seconds = 0;
    qint64 bytes = 0;
    long framesWritten = 0;
    long framesDropped = 0;
    long framesRefused = 0;
    long soundLostMs = 0;
    long soundFilledMs = 0;
    QString endReason;
};

// The status interface as a host built for its version 1.0 reaches it: the same first slot
// (the name is ours; a host calls the slot), answering with the 1.0 record.
class FFMPEGPluginStatusV1
{
public:
    virtual RecordingStatusV1 recordingStatusV1() const = 0;

protected:
    ~FFMPEGPluginStatusV1() = default;
};
Q_DECLARE_INTERFACE(FFMPEGPluginStatusV1, "com.kw.ffmpegplugin.status/1.0")

// The plugin instance: keeps the recording settings and turns the host's calls into flags.
// Its own thread lasts as long as the sessions asked for run back to back; the sessions
// themselves run on a worker thread that shares the private state, so that a host may
// delete the instance from inside the frame source's calls: the session then finishes its
// file on its own and the worker ends without touching the deleted instance.
// Every FFMPEGPlugin operation may be called from any host thread.
class RecordThread : public QThread, public FFMPEGPlugin, public FFMPEGPluginStatus,
                     public FFMPEGPluginStatusV1
{
    Q_OBJECT
    Q_PLUGIN_METADATA(IID FFMPEGPlugin_iid FILE "recordthread.json")
    Q_INTERFACES(FFMPEGPlugin FFMPEGPluginStatus FFMPEGPluginStatusV1)

public:
    explicit RecordThread(QObject *parent = nullptr);
    // Stops a session that still runs. From a host thread it waits for the session; from
    // inside a frame source call it lets the session end by itself.
    ~RecordThread() override;

    void setPluginComponent(PluginComponent *component) override;
    void startRecord() override;
    void stopRecord() override;
    bool isRecording() override;
    bool hasVideo() const override;
    void setHasVideo(bool on) override;
    bool hasAudio() const override;
    void setHasAudio(bool on) override;
    QString filename() const override;
    void setFilename(const QString &name) override;
    bool bPauseRec() override;
    bool bResumeRec() override;
    void vSetRecSize(long width, long height) override;
    int fps() const override;
    void setFps(int fps) override;
    unsigned int videoBitrate() const override;
    void setVideoBitrate(unsigned int bitrate) override;
    bool waitForRecordStart(int msecs) override;
    RecordingStatus recordingStatus() const override;
    RecordingStatusV1 recordingStatusV1() const override;
    bool waitForRecordEnd(int msecs) override;

protected:
    void run() override;

private:
    std::shared_ptr<RecordThreadPrivate> d; // shared with the session worker
};

#endif // RECORDTHREAD_H
