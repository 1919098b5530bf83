#ifndef ALSASOURCE_H
#define ALSASOURCE_H

#include <QLoggingCategory>

#include "audio/capturesource.h"

typedef struct _snd_pcm snd_pcm_t;

// The per-card mixer listing, at debug level: the host decides whether it shows.
Q_DECLARE_LOGGING_CATEGORY(lcMixer)

// The camera card's raw capture device, for machines without a sound server (or whose
// server does not list the camera). Opened non-blocking: a device another program holds
// is retried for a bounded time, never waited on in the kernel.
class AlsaSource : public CaptureSource
{
public:
    ~AlsaSource() override;
    bool open(const QStringList &cardNames, const std::function<bool()> &stopRequested,
              QString *why) override;
    int rate() const override { return m_rate; }
    int channels() const override { return m_channels; }
    bool start() override;
    Read read(std::vector<int16_t> &buffer, long maxFrames, const std::atomic<bool> &run) override;
    void close() override;

    // The device ("hw:N") of the last card whose name contains `name` (any case), or empty;
    // lists that card's mixer to lcMixer and turns its capture controls fully up.
    static QString findCard(const QString &name);

private:
    snd_pcm_t *m_pcm = nullptr; // the open capture device, owned
    int m_rate = 0;             // Hz, granted
    int m_channels = 0;         // granted
};

#endif // ALSASOURCE_H
