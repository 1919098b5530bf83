#ifndef RECORDTHREAD_H
#define RECORDTHREAD_H

#include <QThread>
#include <chrono>
#include <opencv2/core/mat.hpp>

#include "ffmpegplugin.h"
#include "recordingstatus.h"

class RecordThreadPrivate;
struct RecordingSettings;

// The plugin instance: keeps the recording settings, turns the host's calls into flags,
// and runs one recording session per run of its own thread.
// Every FFMPEGPlugin operation may be called from any host thread.
class RecordThread : public QThread, public FFMPEGPlugin, public FFMPEGPluginStatus
{
    Q_OBJECT
    Q_PLUGIN_METADATA(IID FFMPEGPlugin_iid FILE "recordthread.json")
    Q_INTERFACES(FFMPEGPlugin FFMPEGPluginStatus)

public:
    explicit RecordThread(QObject *parent = nullptr);
    // Stops a session that still runs and waits for its thread.
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

protected:
    void run() override;

private:
    struct Session;
    void runSession(Session &s, const RecordingSettings &settings);
    bool openMicrophone(Session &s);
    bool stillWanted(const Session &s) const;
    void waitWhileIdle(const Session &s, bool paused, bool needsComponent);
    void recordVideo(Session &s);
    void startBehindFirstFrame(Session &s);
    void stopVideo(Session &s);
    void stopAfterFailedOpen(Session &s);
    void recordAudioOnly(Session &s);
    void answerStart(uint64_t generation, bool recording);
    void answerLocked(uint64_t generation, bool recording);
    bool waitForFrame(const Session &s, std::chrono::milliseconds period);
    bool takeFrame(Session &s, cv::Mat &frame);
    void publishProgress(Session &s, bool force);
    void setState(RecordingStatus::State state);
    void beginFinishing(Session &s);
    void endStatus(Session &s);
    bool shouldEnd(Session &s);

    RecordThreadPrivate *d;
};

#endif // RECORDTHREAD_H
