#ifndef SOUNDSERVER_H
#define SOUNDSERVER_H

// A real sound server for a test, headless, as root without a session bus: PulseAudio, or
// PipeWire with WirePlumber and pipewire-pulse, each daemon started here in a private
// runtime directory and stopped by its process id. Clients of this process reach it
// through PULSE_SERVER, set while it runs.
#include <QProcess>
#include <QProcessEnvironment>
#include <QString>
#include <QStringList>
#include <memory>
#include <vector>

#include "support/testutil.h"

class SoundServer
{
public:
    enum class Kind { PulseAudio, PipeWire };
    explicit SoundServer(Kind kind);
    ~SoundServer(); // stops whatever still runs
    SoundServer(const SoundServer &) = delete;
    SoundServer &operator=(const SoundServer &) = delete;

    // Whether every daemon started and the server answers; else why() says what failed.
    bool ok() const { return m_why.isEmpty(); }
    QString why() const { return m_why; }
    // Whether every daemon is still running.
    bool running() const;
    // Stops every daemon now, by its process id.
    void stop();

    // A null sink `sink` whose monitor is remapped into the source `source`, carrying the
    // card name and description given: a microphone that a player feeds. True when made.
    bool addMicrophone(const QString &sink, const QString &source, const QString &cardName,
                       const QString &description);
    bool setDefaultSource(const QString &source);
    // Runs a pulseaudio-utils command against the server; its output, or empty on failure.
    QString run(const QString &program, const QStringList &arguments, int timeoutMs = 10000) const;
    // A process of this program's own or of pulseaudio-utils, against the server.
    std::unique_ptr<QProcess> client(const QString &program, const QStringList &arguments) const;

private:
    bool startDaemon(const QString &program, const QStringList &arguments);
    bool waitForFile(const QString &path);
    void startPulseAudio();
    void startPipeWire();

    testutil::TempDir m_dir;                       // runtime, home and configuration
    QProcessEnvironment m_env;                     // of the daemons and clients
    std::vector<std::unique_ptr<QProcess>> m_daemons; // in start order
    QByteArray m_oldPulseServer;                   // PULSE_SERVER before, restored
    QString m_why;                                 // empty: running
};

#endif // SOUNDSERVER_H
