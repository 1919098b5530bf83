#include "support/soundserver.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <algorithm>

namespace {

// Longest wait for a daemon's socket, and for a stopped daemon to end.
constexpr std::chrono::seconds kStartTimeout{15};
constexpr int kStopTimeoutMs = 5000;

// WirePlumber without a session bus: no device reservation, no portal, no bluetooth.
const char *const kWirePlumberSettings[][2] = {
    {"main.lua.d/60-headless.lua", "alsa_monitor.properties[\"alsa.reserve\"] = false\n"
                                   "default_access.properties[\"enable-flatpak-portal\"] = false\n"},
    {"bluetooth.lua.d/60-headless.lua", "bluez_monitor.enabled = false\n"},
};

bool writeFile(const QString &path, const QByteArray &text)
{
    QDir().mkpath(QFileInfo(path).absolutePath());
    QFile f(path);
    return f.open(QIODevice::WriteOnly) && f.write(text) == text.size();
}

} // namespace

SoundServer::SoundServer(Kind kind)
    : m_kind(kind)
{
    const QString dir = QString::fromStdString(m_dir.path());
    m_env = QProcessEnvironment::systemEnvironment();
    m_env.insert("XDG_RUNTIME_DIR", dir);
    m_env.insert("HOME", dir);
    m_env.insert("XDG_CONFIG_HOME", dir + "/config");
    m_env.remove("DBUS_SESSION_BUS_ADDRESS");
    m_env.remove("DISPLAY");
    const QString socket = dir + (kind == Kind::PulseAudio ? "/native" : "/pulse/native");
    m_env.insert("PULSE_SERVER", "unix:" + socket);
    if (start())
        qputenv("PULSE_SERVER", m_env.value("PULSE_SERVER").toUtf8());
}

bool SoundServer::restart()
{
    stop();
    m_daemons.clear();
    m_failure.clear();
    return start();
}

// Starts the daemons; stops them again unless the server answers.
bool SoundServer::start()
{
    const QString dir = QString::fromStdString(m_dir.path());
    const QString socket = m_env.value("PULSE_SERVER").mid(5);
    // A socket left by the daemon stopped before is not the new one's.
    QFile::remove(socket);
    QFile::remove(dir + "/pipewire-0");
    bool started = false;
    if (m_kind == Kind::PulseAudio) {
        const QString config = dir + "/server.pa";
        started = writeFile(config, "load-module module-native-protocol-unix auth-anonymous=1 socket=" + socket.toUtf8())
            && startDaemon("pulseaudio", {"--daemonize=no", "--exit-idle-time=-1", "-n", "-F", config}, socket);
    } else {
        started = true;
        for (const auto &setting : kWirePlumberSettings)
            started = started && writeFile(dir + "/config/wireplumber/" + setting[0], setting[1]);
        // WirePlumber and pipewire-pulse connect to PipeWire once its socket is there.
        started = started && startDaemon("pipewire", {}, dir + "/pipewire-0") && startDaemon("wireplumber", {}, "")
            && startDaemon("pipewire-pulse", {}, socket);
    }
    if (started && !testutil::pollUntil([&] { return run("pactl", {"info"}); }, kStartTimeout))
        m_failure = "the server does not answer";
    if (!m_failure.isEmpty() || !started)
        stop();
    return m_failure.isEmpty() && started;
}

SoundServer::~SoundServer()
{
    stop();
    qunsetenv("PULSE_SERVER");
}

// Starts a daemon and waits for `socket` (if any) to appear.
bool SoundServer::startDaemon(const QString &program, const QStringList &arguments, const QString &socket)
{
    m_daemons.push_back(client(program, arguments));
    QProcess &p = *m_daemons.back();
    p.setProcessChannelMode(QProcess::ForwardedErrorChannel);
    p.setStandardOutputFile(QProcess::nullDevice());
    p.start();
    if (!p.waitForStarted())
        m_failure = program + " does not start: " + p.errorString();
    else if (!socket.isEmpty() && !(testutil::pollUntil([&] { return QFileInfo::exists(socket) || !running(); },
                                                       kStartTimeout) && running()))
        m_failure = program + " made no " + socket;
    return m_failure.isEmpty();
}

bool SoundServer::running() const
{
    return !m_daemons.empty()
        && std::all_of(m_daemons.begin(), m_daemons.end(), [](const auto &p) { return p->state() == QProcess::Running; });
}

void SoundServer::stop()
{
    // The last started first: pipewire-pulse and WirePlumber before the PipeWire they use.
    for (auto it = m_daemons.rbegin(); it != m_daemons.rend(); ++it) {
        (*it)->terminate(); // SIGTERM to this process id only
        if (!(*it)->waitForFinished(kStopTimeoutMs))
            (*it)->kill();
        (*it)->waitForFinished(kStopTimeoutMs);
    }
}

std::unique_ptr<QProcess> SoundServer::client(const QString &program, const QStringList &arguments) const
{
    auto p = std::make_unique<QProcess>();
    p->setProcessEnvironment(m_env);
    p->setProgram(program);
    p->setArguments(arguments);
    return p;
}

bool SoundServer::run(const QString &program, const QStringList &arguments) const
{
    const auto p = client(program, arguments);
    p->start();
    if (!p->waitForFinished(kStopTimeoutMs))
        p->kill();
    p->waitForFinished();
    return p->exitStatus() == QProcess::NormalExit && p->exitCode() == 0;
}

bool SoundServer::addSpeaker(const QString &sink, const QString &card, const QString &description)
{
    return run("pactl", {"load-module", "module-null-sink", "sink_name=" + sink, "rate=48000", "channels=1",
                         "channel_map=mono",
                         QString("sink_properties=\"device.description='%1' alsa.card_name='%2'\"")
                             .arg(description, card)});
}

bool SoundServer::addMicrophone(const QString &sink, const QString &source, const QString &card,
                                const QString &description)
{
    return run("pactl", {"load-module", "module-null-sink", "sink_name=" + sink, "rate=48000", "channels=1",
                         "channel_map=mono"})
        && run("pactl", {"load-module", "module-remap-source", "master=" + sink + ".monitor", "source_name=" + source,
                         QString("source_properties=\"device.description='%1' alsa.card_name='%2'\"")
                             .arg(description, card)});
}
