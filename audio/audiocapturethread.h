#ifndef AUDIOCAPTURETHREAD_H
#define AUDIOCAPTURETHREAD_H

#include <QString>
#include <QThread>
#include <chrono>
#include <cstdint>
#include <functional>

class FFmpegEncode;
class AudiocaptureThreadPrivate;

// Captures the camera's USB microphone, through the sound server when one lists it, else
// from the raw device, and hands encoder-sized PCM blocks to the encoder. The session thread calls every public operation; open()
// also runs on the capture thread when it re-opens the device.
class AudiocaptureThread : public QThread
{
    Q_OBJECT
public:
    AudiocaptureThread(FFmpegEncode *encode, QObject *parent = nullptr);
    // Stops and waits for the thread, closes the device.
    ~AudiocaptureThread() override;

    // Finds and opens the microphone; false (after a one-line warning saying why) when
    // there is none to record. Never waits long on a busy device.
    bool open();
    // The same, giving up early once `stopRequested` answers true.
    bool open(const std::function<bool()> &stopRequested);
    // The raw device ("hw:N") of the last card whose name contains `name`, or empty.
    QString snd_card_find(QString name);

    void startThread();
    void stopThread();
    bool isOver() const;
    void startRecord();
    void setPause(bool on);

    int frameSize() const;
    void setFrameSize(int samples);
    int audioChannel();
    int sampleRate();
    QString soundCardName() const;
    void setSoundCardName(const QString &name);

    // What the microphone's absences have cost so far; any thread.
    struct Outage {
        int losses = 0;      // times it went
        long missingMs = 0;  // sound it did not give (gone, overruns), recorded as silence
        double lostAt = -1;  // seconds after startRecord it last went; -1: never
        double backAt = -1;  // ...and came back; -1: not since
    };
    Outage outage() const;

protected:
    void run() override;

private:
    void capture();
    // The capture thread, after capture() threw: the microphone is given up.
    void endAfterFailure();
    bool waitForRecord();
    bool openSource(const std::function<bool()> &stopRequested, QString *why);
    bool reopen();
    bool pauseUnlessStopped(std::chrono::milliseconds pause);

    AudiocaptureThreadPrivate *d;
};

#endif // AUDIOCAPTURETHREAD_H
