#ifndef AUDIOCAPTURETHREAD_H
#define AUDIOCAPTURETHREAD_H

#include <QString>
#include <QThread>
#include <cstdint>
#include <functional>

class FFmpegEncode;
class AudiocaptureThreadPrivate;

// Captures the camera's USB microphone through ALSA and hands encoder-sized PCM
// blocks to the encoder. The session thread calls every public operation; open()
// also runs on the capture thread when it re-opens the device.
class AudiocaptureThread : public QThread
{
    Q_OBJECT
public:
    AudiocaptureThread(FFmpegEncode *encode, QObject *parent = nullptr);
    // Stops and waits for the thread, closes the device.
    ~AudiocaptureThread() override;

    bool open();
    // The same, giving up between the retries of a busy device once `stopRequested`
    // answers true (looked at least every kStopCheckMs).
    bool open(const std::function<bool()> &stopRequested);
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

protected:
    void run() override;

private:
    void capture();
    bool waitForRecord();
    long readSome(int16_t *buffer, long maxFrames);
    bool reopen();

    AudiocaptureThreadPrivate *d;
};

#endif // AUDIOCAPTURETHREAD_H
