#ifndef SOUNDSERVER_H
#define SOUNDSERVER_H

// A real sound server for a test, headless, as root without a session bus: PulseAudio, or
// PipeWire with WirePlumber and pipewire-pulse, each daemon started here in a private
// runtime directory and stopped by its process id. This process's clients reach it
// through PULSE_SERVER while it lives.
#include <QProcess>
#include <memory>
#include <vector>

#include "support/testutil.h"

class SoundServer
{
public:
    enum class Kind { PulseAudio, PipeWire };
    explicit SoundServer(Kind kind);
    ~SoundServer();

    // Empty when every daemon runs and the server answers; else what failed.
    QString failure() const { return m_failure; }
    bool running() const;
    void stop();
    // Starts the daemons again after stop(), in the same runtime directory, with nothing
    // loaded; false (and failure() says why) when the server does not answer.
    bool restart();
    // A null sink `sink` whose monitor is remapped into the source `source`, which carries
    // the card name and description given: a microphone that a player feeds.
    bool addMicrophone(const QString &sink, const QString &source, const QString &card, const QString &description);
    // A sink `sink` that looks like the camera's speaker: its monitor source (listed before
    // every source added after it) carries the card name and description given.
    bool addSpeaker(const QString &sink, const QString &card, const QString &description);
    // A process against the server (not started); run() starts it and waits for success.
    std::unique_ptr<QProcess> client(const QString &program, const QStringList &arguments) const;
    bool run(const QString &program, const QStringList &arguments) const;

private:
    bool start();
    bool startDaemon(const QString &program, const QStringList &arguments, const QString &socket);

    const Kind m_kind;
    testutil::TempDir m_dir;                          // runtime, home and configuration
    QProcessEnvironment m_env;                        // of the daemons and clients
    std::vector<std::unique_ptr<QProcess>> m_daemons; // in start order
    QString m_failure;
};

#endif // SOUNDSERVER_H
