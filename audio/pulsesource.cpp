#include "audio/pulsesource.h"

#include "media/logcategories.h"

#include <QDebug>
#include <pulse/pulseaudio.h>
#include <chrono>
#include <cstring>

namespace {

using Clock = std::chrono::steady_clock;

// Nobody answering within this long means there is no sound server.
constexpr std::chrono::milliseconds kConnectTimeout{500};
// Longest wait for the server to list its sources or to set the stream up.
constexpr std::chrono::milliseconds kReplyTimeout{2000};
// Fragment asked of the server, microseconds: its default buffers up to two seconds.
constexpr pa_usec_t kFragmentUs = 10000;
// A record stream's latency has settled once it has read below kSettledLatencyUs
// (microseconds) for kSettleTime on end: after connecting it reads hundreds of ms, and
// passes through smaller values that are still too large on its way down.
constexpr pa_usec_t kSettledLatencyUs = 100000;
constexpr double kSettleTime = 1.0; // seconds
// Longest single wait for sound: a stop is seen at least this often.
constexpr std::chrono::milliseconds kReadWait{50};
// A stream that delivers nothing for this long is taken for gone.
constexpr std::chrono::milliseconds kStallLimit{2000};
// Names this program shows in the server's client list.
const char *const kClientName = "Camera recorder";
const char *const kStreamName = "camera microphone";

double steadySeconds()
{
    return std::chrono::duration<double>(Clock::now().time_since_epoch()).count();
}

QString property(const pa_proplist *props, const char *key)
{
    const char *value = pa_proplist_gets(props, key);
    return value ? QString::fromUtf8(value) : QString();
}

bool contextReady(pa_context *c) { return c && pa_context_get_state(c) == PA_CONTEXT_READY; }
bool contextOver(pa_context *c) { return !c || !PA_CONTEXT_IS_GOOD(pa_context_get_state(c)); }

} // namespace

PulseSource::~PulseSource() { close(); }

void PulseSource::wake()
{
    {
        std::lock_guard<std::mutex> lock(m_wakeMutex);
        m_wakeUp = true;
    }
    m_woken.notify_all();
}

// Waits, the loop's lock held on entry and on return, until `done` holds (true), or
// `deadline` passes or the stop request comes (false).
template <typename Done, typename Stop>
static bool waitLocked(pa_threaded_mainloop *loop, std::mutex &wakeMutex, std::condition_variable &woken,
                       bool &wakeUp, Clock::time_point deadline, const Done &done, const Stop &stop)
{
    for (;;) {
        if (done())
            return true;
        if (Clock::now() >= deadline || stop())
            return false;
        pa_threaded_mainloop_unlock(loop);
        {
            std::unique_lock<std::mutex> lock(wakeMutex);
            woken.wait_for(lock, kReadWait, [&] { return wakeUp; });
            wakeUp = false;
        }
        pa_threaded_mainloop_lock(loop);
    }
}

bool PulseSource::connectContext(const std::function<bool()> &stopRequested, QString *why)
{
    m_loop = pa_threaded_mainloop_new();
    if (!m_loop) {
        *why = QStringLiteral("cannot create the sound server's main loop");
        return false;
    }
    m_context = pa_context_new(pa_threaded_mainloop_get_api(m_loop), kClientName);
    if (!m_context) {
        *why = QStringLiteral("cannot create a sound server context");
        return false;
    }
    pa_context_set_state_callback(
        m_context, [](pa_context *, void *self) { static_cast<PulseSource *>(self)->wake(); }, this);
    // Never autospawn: a server this program started would outlive the recording.
    if (pa_context_connect(m_context, nullptr, PA_CONTEXT_NOAUTOSPAWN, nullptr) < 0) {
        *why = QStringLiteral("no sound server: %1").arg(QString::fromUtf8(pa_strerror(pa_context_errno(m_context))));
        return false;
    }
    if (pa_threaded_mainloop_start(m_loop) < 0) {
        *why = QStringLiteral("cannot start the sound server's main loop");
        return false;
    }
    pa_threaded_mainloop_lock(m_loop);
    const bool ready = waitLocked(m_loop, m_wakeMutex, m_woken, m_wakeUp, Clock::now() + kConnectTimeout,
                                  [&] { return contextReady(m_context) || contextOver(m_context); },
                                  stopRequested);
    const bool ok = ready && contextReady(m_context);
    if (!ok)
        *why = QStringLiteral("no sound server answered: %1")
                   .arg(QString::fromUtf8(pa_strerror(pa_context_errno(m_context))));
    pa_threaded_mainloop_unlock(m_loop);
    return ok;
}

void PulseSource::onSource(pa_context *, const pa_source_info *info, int eol, void *self)
{
    auto *me = static_cast<PulseSource *>(self);
    if (eol || !info) {
        me->m_listed = true;
        me->wake();
        return;
    }
    if (me->m_listing)
        me->m_listing->push_back({QByteArray(info->name), property(info->proplist, "alsa.card_name"),
                                  property(info->proplist, PA_PROP_DEVICE_DESCRIPTION),
                                  info->monitor_of_sink != PA_INVALID_INDEX, int(info->sample_spec.rate),
                                  int(info->sample_spec.channels)});
}

bool PulseSource::listSources(std::vector<Candidate> &out, QString *why)
{
    pa_threaded_mainloop_lock(m_loop);
    m_listing = &out;
    m_listed = false;
    pa_operation *op = pa_context_get_source_info_list(m_context, &PulseSource::onSource, this);
    bool ok = op != nullptr;
    if (ok) {
        ok = waitLocked(m_loop, m_wakeMutex, m_woken, m_wakeUp, Clock::now() + kReplyTimeout,
                        [&] { return m_listed || contextOver(m_context); }, [] { return false; })
             && m_listed;
        pa_operation_cancel(op); // harmless once done; the callback must not run later
        pa_operation_unref(op);
    }
    m_listing = nullptr;
    pa_threaded_mainloop_unlock(m_loop);
    if (!ok)
        *why = QStringLiteral("the sound server did not list its sources");
    return ok;
}

bool PulseSource::connectStream(const Candidate &source, const std::function<bool()> &stopRequested,
                                QString *why)
{
    const pa_sample_spec format{PA_SAMPLE_S16LE, uint32_t(source.rate), uint8_t(source.channels)};
    pa_threaded_mainloop_lock(m_loop);
    m_stream = pa_stream_new(m_context, kStreamName, &format, nullptr);
    bool ok = m_stream != nullptr;
    if (ok) {
        const auto wakeUp = [](pa_stream *, void *self) { static_cast<PulseSource *>(self)->wake(); };
        pa_stream_set_state_callback(m_stream, wakeUp, this);
        pa_stream_set_read_callback(m_stream, [](pa_stream *, size_t, void *self) {
            static_cast<PulseSource *>(self)->wake();
        }, this);
        pa_stream_set_suspended_callback(m_stream, wakeUp, this);
        pa_buffer_attr attr;
        attr.maxlength = uint32_t(-1);
        attr.tlength = attr.prebuf = attr.minreq = uint32_t(-1);
        attr.fragsize = uint32_t(pa_usec_to_bytes(kFragmentUs, &format));
        // Corked until start(): what came before the recording is not recorded. Never
        // moved: a camera source that goes ends the stream and is looked for again by its
        // name, where the server would rescue the stream onto the default microphone.
        const auto flags = pa_stream_flags_t(PA_STREAM_ADJUST_LATENCY | PA_STREAM_INTERPOLATE_TIMING
                                             | PA_STREAM_AUTO_TIMING_UPDATE | PA_STREAM_START_CORKED
                                             | PA_STREAM_DONT_MOVE);
        ok = pa_stream_connect_record(m_stream, source.name.constData(), &attr, flags) >= 0;
    }
    if (ok) {
        const auto settled = [&] {
            const pa_stream_state_t s = pa_stream_get_state(m_stream);
            return s == PA_STREAM_READY || !PA_STREAM_IS_GOOD(s) || contextOver(m_context);
        };
        ok = waitLocked(m_loop, m_wakeMutex, m_woken, m_wakeUp, Clock::now() + kReplyTimeout, settled,
                        stopRequested)
             && pa_stream_get_state(m_stream) == PA_STREAM_READY;
    }
    if (!ok)
        *why = QStringLiteral("the sound server cannot record %1: %2")
                   .arg(QString::fromUtf8(source.name), QString::fromUtf8(pa_strerror(pa_context_errno(m_context))));
    pa_threaded_mainloop_unlock(m_loop);
    return ok;
}

bool PulseSource::open(const QStringList &cardNames, const std::function<bool()> &stopRequested, QString *why)
{
    close();
    std::vector<Candidate> sources;
    if (!connectContext(stopRequested, why) || !listSources(sources, why)) {
        close();
        return false;
    }
    // The card names in their order, each against every source: never a monitor, and the
    // default source only if it is the camera's own.
    const Candidate *chosen = nullptr;
    for (const QString &name : cardNames) {
        for (const Candidate &s : sources)
            if (!s.monitor && (s.cardName.contains(name, Qt::CaseInsensitive)
                               || s.description.contains(name, Qt::CaseInsensitive))) {
                chosen = &s;
                break;
            }
        if (chosen)
            break;
    }
    if (!chosen) {
        *why = QStringLiteral("the sound server lists no source of the camera");
        close();
        return false;
    }
    m_rate = chosen->rate;
    m_channels = chosen->channels;
    if (!connectStream(*chosen, stopRequested, why)) {
        close();
        return false;
    }
    qCInfo(lcAudio()).noquote()
        << QStringLiteral("recording the sound server's source %1 (%2), %3 Hz, %4 channel(s)")
               .arg(QString::fromUtf8(chosen->name), chosen->description)
               .arg(m_rate)
               .arg(m_channels);
    return true;
}

bool PulseSource::start()
{
    pa_threaded_mainloop_lock(m_loop);
    pa_operation *op = pa_stream_cork(m_stream, 0, nullptr, nullptr);
    if (op)
        pa_operation_unref(op);
    pa_threaded_mainloop_unlock(m_loop);
    if (!op)
        qCWarning(lcAudio()) << "the sound server does not start the stream";
    return op != nullptr;
}

CaptureSource::Read PulseSource::read(std::vector<int16_t> &buffer, long, const std::atomic<bool> &run)
{
    const size_t frameBytes = sizeof(int16_t) * size_t(m_channels);
    auto since = Clock::now();
    for (;;) {
        if (!run)
            return {Status::Stopped};
        pa_threaded_mainloop_lock(m_loop);
        const void *data = nullptr;
        size_t bytes = 0;
        if (!contextReady(m_context) || pa_stream_get_state(m_stream) != PA_STREAM_READY
            || pa_stream_peek(m_stream, &data, &bytes) < 0) {
            pa_threaded_mainloop_unlock(m_loop);
            qCWarning(lcAudio()) << "the sound server or the camera's source went away";
            return {Status::Gone};
        }
        // A suspended source delivers nothing until it resumes: a gap, not a loss.
        if (bytes == 0 && pa_stream_is_suspended(m_stream) == 1) {
            pa_threaded_mainloop_unlock(m_loop);
            if (!m_suspended) {
                m_suspended = true;
                m_settledSince = -1;
                qCInfo(lcAudio()) << "the camera's source is suspended: waiting for it";
                return {Status::Gap};
            }
            since = Clock::now();
            std::unique_lock<std::mutex> lock(m_wakeMutex);
            m_woken.wait_for(lock, kReadWait, [&] { return m_wakeUp; });
            m_wakeUp = false;
            continue;
        }
        m_suspended = false;
        if (bytes > 0) {
            // The fragment's first frame was captured the stream's latency ago (which can
            // be negative). Until the latency has settled, and before the first timing
            // update, arrival stands in: late, which the clock fit leaves out, never early,
            // which it would keep.
            pa_usec_t latency = 0;
            int negative = 0;
            const long frames = long(bytes / frameBytes);
            const double now = steadySeconds();
            double firstAt = now - double(frames) / m_rate;
            const bool timed = pa_stream_get_latency(m_stream, &latency, &negative) >= 0;
            if (!timed || latency >= kSettledLatencyUs)
                m_settledSince = -1;
            else if (m_settledSince < 0)
                m_settledSince = now;
            if (m_settledSince >= 0 && now - m_settledSince >= kSettleTime)
                firstAt = now + (negative ? 1.0 : -1.0) * double(latency) / 1e6;
            buffer.resize(size_t(frames) * size_t(m_channels));
            if (data)
                memcpy(buffer.data(), data, size_t(frames) * frameBytes);
            else // a hole in the stream: sound lost, kept on the timeline as silence
                std::fill(buffer.begin(), buffer.end(), int16_t(0));
            pa_stream_drop(m_stream);
            pa_threaded_mainloop_unlock(m_loop);
            if (frames == 0)
                continue;
            return {Status::Data, frames, firstAt + double(frames) / m_rate};
        }
        pa_threaded_mainloop_unlock(m_loop);
        if (Clock::now() - since >= kStallLimit) {
            qCWarning(lcAudio()) << "the sound server delivers nothing: sound capture ends";
            return {Status::Gone};
        }
        std::unique_lock<std::mutex> lock(m_wakeMutex);
        m_woken.wait_for(lock, kReadWait, [&] { return m_wakeUp; });
        m_wakeUp = false;
    }
}

void PulseSource::close()
{
    if (!m_loop)
        return;
    pa_threaded_mainloop_lock(m_loop);
    if (m_stream) {
        pa_stream_set_state_callback(m_stream, nullptr, nullptr);
        pa_stream_set_read_callback(m_stream, nullptr, nullptr);
        pa_stream_set_suspended_callback(m_stream, nullptr, nullptr);
        pa_stream_disconnect(m_stream);
        pa_stream_unref(m_stream);
        m_stream = nullptr;
    }
    if (m_context) {
        pa_context_set_state_callback(m_context, nullptr, nullptr);
        pa_context_disconnect(m_context);
        pa_context_unref(m_context);
        m_context = nullptr;
    }
    pa_threaded_mainloop_unlock(m_loop);
    pa_threaded_mainloop_stop(m_loop);
    pa_threaded_mainloop_free(m_loop);
    m_loop = nullptr;
}
