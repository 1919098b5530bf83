#include "support/soundserver.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <chrono>

namespace {

// Longest wait for a daemon's socket, and for a stopped daemon to end.
constexpr std::chrono::seconds kStartTimeout{15};
constexpr int kStopTimeoutMs = 5000;

// WirePlumber without a session bus: no device reservation, no portal, no bluetooth.
const char *const kWirePlumberMain =
    "alsa_monitor.properties[\"alsa.reserve\"] = false\n"
    "default_access.properties[\"enable-flatpak-portal\"] = false\n";
const char *const kWirePlumberBluetooth = "bluez_monitor.enabled = false\n";

bool writeFile(const QString &path, const QByteArray &text)
{
    QDir().mkpath(QFileInfo(path).absolutePath());
    QFile f(path);
    return f.open(QIODevice::WriteOnly) && f.write(text) == text.size();
}

} // namespace

SoundServer::SoundServer(Kind kind)
    : m_oldPulseServer(qgetenv("PULSE_SERVER"))
{
    const QString dir = QString::fromStdString(m_dir.path());
    m_env = QProcessEnvironment::systemEnvironment();
    m_env.insert(QStringLiteral("XDG_RUNTIME_DIR"), dir);
    m_env.insert(QStringLiteral("HOME"), dir);
    m_env.insert(QStringLiteral("XDG_CONFIG_HOME"), dir + QStringLiteral("/config"));
    m_env.remove(QStringLiteral("DBUS_SESSION_BUS_ADDRESS"));
    m_env.remove(QStringLiteral("DISPLAY"));
    if (kind == Kind::PulseAudio)
        startPulseAudio();
    else
        startPipeWire();
    if (ok())
        qputenv("PULSE_SERVER", m_env.value(QStringLiteral("PULSE_SERVER")).toUtf8());
    else
        stop();
}

SoundServer::~SoundServer()
{
    stop();
    if (m_oldPulseServer.isNull())
        qunsetenv("PULSE_SERVER");
    else
        qputenv("PULSE_SERVER", m_oldPulseServer);
}

bool SoundServer::startDaemon(const QString &program, const QStringList &arguments)
{
    auto p = std::make_unique<QProcess>();
    p->setProcessEnvironment(m_env);
    p->setProcessChannelMode(QProcess::ForwardedErrorChannel);
    p->setStandardOutputFile(QProcess::nullDevice());
    p->start(program, arguments);
    if (!p->waitForStarted()) {
        m_why = program + QStringLiteral(" does not start: ") + p->errorString();
        return false;
    }
    m_daemons.push_back(std::move(p));
    return true;
}

bool SoundServer::waitForFile(const QString &path)
{
    if (testutil::pollUntil([&] { return QFileInfo::exists(path) || !running(); }, kStartTimeout) && running())
        return true;
    m_why = path + QStringLiteral(" did not appear");
    return false;
}

void SoundServer::startPulseAudio()
{
    const QString dir = QString::fromStdString(m_dir.path());
    const QString socket = dir + QStringLiteral("/native");
    const QString config = dir + QStringLiteral("/server.pa");
    if (!writeFile(config, QStringLiteral("load-module module-native-protocol-unix auth-anonymous=1 socket=%1\n")
                               .arg(socket).toUtf8())) {
        m_why = QStringLiteral("cannot write ") + config;
        return;
    }
    m_env.insert(QStringLiteral("PULSE_SERVER"), QStringLiteral("unix:") + socket);
    if (startDaemon(QStringLiteral("pulseaudio"), {QStringLiteral("--daemonize=no"), QStringLiteral("--exit-idle-time=-1"),
                                                  QStringLiteral("-n"), QStringLiteral("-F"), config}))
        waitForFile(socket) && !run(QStringLiteral("pactl"), {QStringLiteral("info")}).isEmpty();
}

void SoundServer::startPipeWire()
{
    const QString dir = QString::fromStdString(m_dir.path());
    const QString wp = dir + QStringLiteral("/config/wireplumber");
    if (!writeFile(wp + QStringLiteral("/main.lua.d/60-headless.lua"), kWirePlumberMain)
        || !writeFile(wp + QStringLiteral("/bluetooth.lua.d/60-headless.lua"), kWirePlumberBluetooth)) {
        m_why = QStringLiteral("cannot write the WirePlumber settings");
        return;
    }
    m_env.insert(QStringLiteral("PULSE_SERVER"), QStringLiteral("unix:") + dir + QStringLiteral("/pulse/native"));
    if (!startDaemon(QStringLiteral("pipewire"), {}) || !waitForFile(dir + QStringLiteral("/pipewire-0"))
        || !startDaemon(QStringLiteral("wireplumber"), {}) || !startDaemon(QStringLiteral("pipewire-pulse"), {})
        || !waitForFile(dir + QStringLiteral("/pulse/native")))
        return;
    if (run(QStringLiteral("pactl"), {QStringLiteral("info")}).isEmpty())
        m_why = QStringLiteral("pipewire-pulse does not answer");
}

bool SoundServer::running() const
{
    if (m_daemons.empty())
        return false;
    for (const auto &p : m_daemons)
        if (p->state() != QProcess::Running)
            return false;
    return true;
}

void SoundServer::stop()
{
    // The last started first: pipewire-pulse and WirePlumber before the PipeWire they use.
    for (auto it = m_daemons.rbegin(); it != m_daemons.rend(); ++it) {
        QProcess &p = **it;
        if (p.state() == QProcess::NotRunning)
            continue;
        p.terminate(); // SIGTERM to this process id only
        if (!p.waitForFinished(kStopTimeoutMs)) {
            p.kill();
            p.waitForFinished(kStopTimeoutMs);
        }
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

QString SoundServer::run(const QString &program, const QStringList &arguments, int timeoutMs) const
{
    const auto p = client(program, arguments);
    p->start();
    if (!p->waitForFinished(timeoutMs) || p->exitStatus() != QProcess::NormalExit || p->exitCode() != 0) {
        p->kill();
        p->waitForFinished();
        return QString();
    }
    const QString out = QString::fromUtf8(p->readAllStandardOutput());
    return out.isEmpty() ? QStringLiteral("\n") : out; // succeeded, silently
}

bool SoundServer::addMicrophone(const QString &sink, const QString &source, const QString &cardName,
                                const QString &description)
{
    const QString pactl = QStringLiteral("pactl");
    return !run(pactl, {QStringLiteral("load-module"), QStringLiteral("module-null-sink"),
                        QStringLiteral("sink_name=") + sink, QStringLiteral("rate=48000"), QStringLiteral("channels=1"),
                        QStringLiteral("channel_map=mono")})
                .isEmpty()
        && !run(pactl, {QStringLiteral("load-module"), QStringLiteral("module-remap-source"),
                        QStringLiteral("master=%1.monitor").arg(sink), QStringLiteral("source_name=") + source,
                        QStringLiteral("source_properties=\"device.description='%1' alsa.card_name='%2'\"")
                            .arg(description, cardName)})
                .isEmpty();
}

bool SoundServer::setDefaultSource(const QString &source)
{
    return !run(QStringLiteral("pactl"), {QStringLiteral("set-default-source"), source}).isEmpty();
}
