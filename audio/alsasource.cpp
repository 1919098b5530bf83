#include "audio/alsasource.h"

#include <QDebug>
#include <alsa/asoundlib.h>
#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <thread>

Q_LOGGING_CATEGORY(lcMixer, "kwrecorder.audio.mixer", QtWarningMsg)

namespace {

const char *const kSeparator = "==========================================";
// Mixer elements examined on the camera's card.
constexpr unsigned int kMaxElements = 100;
// Rate asked of the device, Hz.
constexpr unsigned int kWantedRate = 48000;
// Channels asked of the device: the nearest it accepts is taken (more are mixed down).
constexpr unsigned int kWantedChannels = 1;
// A device another program holds is retried for this long, this often: a sound server
// lets go of an idle device a few seconds after its last client.
constexpr std::chrono::milliseconds kBusyFor{2000};
constexpr std::chrono::milliseconds kBusyRetryPause{100};
// Period and buffer asked of the device, microseconds: short periods so that sound comes
// promptly and a wait ends soon after it; a buffer that rides out a quarter second of the
// capture thread not being scheduled before anything is lost.
constexpr unsigned int kPeriodUs = 10000;
constexpr unsigned int kBufferUs = 250000;
// Longest single wait for sound from the device: a stop is seen at least this often.
constexpr int kReadWaitMs = 50;
// A device that delivers nothing for this long is taken for gone.
constexpr std::chrono::milliseconds kStallLimit{2000};

double steadySeconds()
{
    return std::chrono::duration<double>(std::chrono::steady_clock::now().time_since_epoch()).count();
}

// Whether a mixer element is one of the capture controls turned fully up.
bool isCaptureVolume(const char *name) { return strstr(name, "Capture Volume") != nullptr; }
bool isCaptureSwitch(const char *name) { return strstr(name, "Capture Switch") != nullptr; }

// Lists one element of the camera's card and turns it up if it is a capture control.
void adjustElement(snd_ctl_t *ctl, unsigned int numid, snd_ctl_elem_info_t *info,
                   snd_ctl_elem_value_t *value)
{
    snd_ctl_elem_info_set_numid(info, numid);
    if (snd_ctl_elem_info(ctl, info) < 0)
        return;
    const snd_ctl_elem_type_t type = snd_ctl_elem_info_get_type(info);
    const unsigned int count = snd_ctl_elem_info_get_count(info);
    const char *name = snd_ctl_elem_info_get_name(info);
    snd_ctl_elem_value_set_numid(value, numid);
    if (snd_ctl_elem_read(ctl, value) < 0)
        return;
    QStringList values;
    bool raise = false;
    for (unsigned int k = 0; k < count; ++k) {
        if (type == SND_CTL_ELEM_TYPE_BOOLEAN) {
            values << QString::number(snd_ctl_elem_value_get_boolean(value, k));
            if (isCaptureSwitch(name)) {
                snd_ctl_elem_value_set_boolean(value, k, 1);
                raise = true;
            }
        } else if (type == SND_CTL_ELEM_TYPE_INTEGER) {
            values << QString::number(snd_ctl_elem_value_get_integer(value, k));
            if (isCaptureVolume(name)) {
                snd_ctl_elem_value_set_integer(value, k, snd_ctl_elem_info_get_max(info));
                raise = true;
            }
        }
    }
    qCDebug(lcMixer).noquote() << QStringLiteral("numid %1 \"%2\" %3 x%4: %5")
                                      .arg(numid)
                                      .arg(QString::fromUtf8(name))
                                      .arg(QString::fromUtf8(snd_ctl_elem_type_name(type)))
                                      .arg(count)
                                      .arg(values.join(QLatin1Char(' ')));
    if (raise && snd_ctl_elem_write(ctl, value) < 0)
        qCDebug(lcMixer).noquote() << QStringLiteral("numid %1 could not be written").arg(numid);
}

// Lists the card's first kMaxElements mixer elements, turning its capture controls up.
void adjustCaptureControls(snd_ctl_t *ctl)
{
    snd_ctl_elem_list_t *list = nullptr;
    snd_ctl_elem_info_t *info = nullptr;
    snd_ctl_elem_value_t *value = nullptr;
    if (snd_ctl_elem_list_malloc(&list) < 0 || snd_ctl_elem_info_malloc(&info) < 0
        || snd_ctl_elem_value_malloc(&value) < 0) {
        qCDebug(lcMixer) << "cannot allocate the mixer element list";
    } else if (snd_ctl_elem_list_alloc_space(list, kMaxElements) < 0 || snd_ctl_elem_list(ctl, list) < 0) {
        qCDebug(lcMixer) << "cannot list the mixer elements";
    } else {
        const unsigned int used = snd_ctl_elem_list_get_used(list);
        for (unsigned int i = 0; i < used; ++i)
            adjustElement(ctl, snd_ctl_elem_list_get_numid(list, i), info, value);
    }
    if (list)
        snd_ctl_elem_list_free_space(list);
    if (value)
        snd_ctl_elem_value_free(value);
    if (info)
        snd_ctl_elem_info_free(info);
    if (list)
        snd_ctl_elem_list_free(list);
}

// The name of the card behind an open control device, or empty.
QString cardNameOf(snd_ctl_t *ctl)
{
    QString name;
    snd_ctl_card_info_t *info = nullptr;
    if (snd_ctl_card_info_malloc(&info) < 0)
        return name;
    if (snd_ctl_card_info(ctl, info) >= 0)
        name = QString::fromUtf8(snd_ctl_card_info_get_name(info));
    snd_ctl_card_info_free(info);
    return name;
}

// Sleeps `pause` in slices, looking at the stop request; false when it came.
bool pauseUnlessStopped(std::chrono::milliseconds pause, const std::function<bool()> &stopRequested)
{
    constexpr std::chrono::milliseconds kStopCheck{20};
    const auto until = std::chrono::steady_clock::now() + pause;
    for (auto now = std::chrono::steady_clock::now(); now < until; now = std::chrono::steady_clock::now()) {
        if (stopRequested())
            return false;
        std::this_thread::sleep_for(std::min<std::chrono::steady_clock::duration>(until - now, kStopCheck));
    }
    return !stopRequested();
}

// Sets the stream's parameters: S16 interleaved, the rate nearest kWantedRate and the
// channel count nearest kWantedChannels that the device accepts. False after a message.
bool configure(snd_pcm_t *pcm, int &rate, int &channels)
{
    snd_pcm_hw_params_t *params = nullptr;
    int err = snd_pcm_hw_params_malloc(&params);
    if (err < 0) {
        printf("无法分配硬件参数结构 (%s)\n", snd_strerror(err));
        return false;
    }
    bool ok = false;
    unsigned int wantedRate = kWantedRate;
    unsigned int wantedChannels = kWantedChannels;
    do {
        if ((err = snd_pcm_hw_params_any(pcm, params)) < 0) {
            printf("无法初始化硬件参数结构 (%s)\n", snd_strerror(err));
            break;
        }
        if ((err = snd_pcm_hw_params_set_access(pcm, params, SND_PCM_ACCESS_RW_INTERLEAVED)) < 0) {
            printf("无法设置访问类型(%s)\n", snd_strerror(err));
            break;
        }
        if ((err = snd_pcm_hw_params_set_format(pcm, params, SND_PCM_FORMAT_S16_LE)) < 0) {
            printf("无法设置格式 (%s)\n", snd_strerror(err));
            break;
        }
        if ((err = snd_pcm_hw_params_set_rate_near(pcm, params, &wantedRate, nullptr)) < 0) {
            printf("无法设置采样率(%s)\n", snd_strerror(err));
            break;
        }
        if ((err = snd_pcm_hw_params_set_channels_near(pcm, params, &wantedChannels)) < 0) {
            printf("无法设置声道数(%s)\n", snd_strerror(err));
            break;
        }
        unsigned int periodUs = kPeriodUs, bufferUs = kBufferUs;
        if ((err = snd_pcm_hw_params_set_period_time_near(pcm, params, &periodUs, nullptr)) < 0) {
            printf("无法设置周期 (%s)\n", snd_strerror(err));
            break;
        }
        if ((err = snd_pcm_hw_params_set_buffer_time_near(pcm, params, &bufferUs, nullptr)) < 0) {
            printf("无法设置缓冲区 (%s)\n", snd_strerror(err));
            break;
        }
        if ((err = snd_pcm_hw_params(pcm, params)) < 0) {
            printf("无法向驱动程序设置参数(%s)\n", snd_strerror(err));
            break;
        }
        ok = true;
    } while (false);
    snd_pcm_hw_params_free(params);
    if (!ok)
        return false;
    if ((err = snd_pcm_prepare(pcm)) < 0) {
        printf("无法使用音频接口 (%s)\n", snd_strerror(err));
        return false;
    }
    rate = int(wantedRate);
    channels = int(wantedChannels);
    printf("音频接口准备好: %d Hz, %d 声道\n", rate, channels);
    return true;
}

} // namespace

AlsaSource::~AlsaSource() { close(); }

QString AlsaSource::findCard(const QString &name)
{
    const QString wanted = name.toLower();
    QString device;
    for (int card = -1; snd_card_next(&card) >= 0 && card != -1;) {
        const QString candidate = QStringLiteral("hw:%1").arg(card);
        snd_ctl_t *ctl = nullptr;
        // A control device that does not open cannot be matched: skip the card.
        if (snd_ctl_open(&ctl, candidate.toUtf8().constData(), SND_CTL_NONBLOCK) < 0 || !ctl)
            continue;
        const QString cardName = cardNameOf(ctl);
        qCDebug(lcMixer).noquote() << candidate << cardName;
        snd_ctl_close(ctl);
        if (cardName.toLower().contains(wanted))
            device = candidate;
    }
    if (device.isEmpty())
        return device;
    // Only the camera's own card is written: another card's controls are the user's.
    snd_ctl_t *ctl = nullptr;
    if (snd_ctl_open(&ctl, device.toUtf8().constData(), SND_CTL_NONBLOCK) >= 0 && ctl) {
        adjustCaptureControls(ctl);
        snd_ctl_close(ctl);
    }
    return device;
}

bool AlsaSource::open(const QStringList &cardNames, const std::function<bool()> &stopRequested, QString *why)
{
    close();
    QString device, cardName;
    for (const QString &name : cardNames) {
        if (!(device = findCard(name)).isEmpty()) {
            cardName = name;
            break;
        }
    }
    if (device.isEmpty()) {
        *why = QStringLiteral("no sound card named \"%1\"").arg(cardNames.join(QStringLiteral("\", \"")));
        return false;
    }
    const QByteArray name = device.toUtf8();
    const auto busySince = std::chrono::steady_clock::now();
    for (;;) {
        // Non-blocking: a blocking open of a held device waits in the kernel until it is let go.
        const int err = snd_pcm_open(&m_pcm, name.constData(), SND_PCM_STREAM_CAPTURE, SND_PCM_NONBLOCK);
        if (err >= 0)
            break;
        m_pcm = nullptr;
        if (err != -EBUSY) {
            *why = QStringLiteral("%1 (%2) does not open: %3").arg(device, cardName, QString::fromUtf8(snd_strerror(err)));
            return false;
        }
        if (std::chrono::steady_clock::now() - busySince >= kBusyFor) {
            *why = QStringLiteral("%1 (%2) is held by another program").arg(device, cardName);
            return false;
        }
        if (!pauseUnlessStopped(kBusyRetryPause, stopRequested)) {
            *why = QStringLiteral("%1 (%2) was busy until the recording stopped").arg(device, cardName);
            return false;
        }
    }
    printf("音频接口打开成功.%s:%s\n", cardName.toUtf8().constData(), name.constData());
    // The device stays non-blocking: the read loop waits with snd_pcm_wait and reads only
    // what is there, so a blocking read is never wanted.
    if (!configure(m_pcm, m_rate, m_channels)) {
        close(); // a device that cannot be configured is not kept half set up
        *why = QStringLiteral("%1 (%2) cannot be configured").arg(device, cardName);
        return false;
    }
    fflush(stdout);
    return true;
}

bool AlsaSource::start()
{
    // A capture stream does not run until it is started; reads never start it themselves.
    const int err = snd_pcm_start(m_pcm);
    if (err < 0)
        printf("无法使用音频接口 (%s)\n", snd_strerror(err));
    return err >= 0;
}

CaptureSource::Read AlsaSource::read(std::vector<int16_t> &buffer, long maxFrames,
                                     const std::atomic<bool> &run)
{
    const auto since = std::chrono::steady_clock::now();
    buffer.resize(size_t(maxFrames) * size_t(m_channels));
    for (;;) {
        if (!run)
            return {Status::Stopped};
        int err = snd_pcm_wait(m_pcm, kReadWaitMs);
        snd_pcm_sframes_t got = 0;
        if (err >= 0) {
            const snd_pcm_sframes_t avail = snd_pcm_avail_update(m_pcm);
            if (avail < 0)
                err = int(avail);
            else if (avail > 0 && (got = snd_pcm_readi(m_pcm, buffer.data(),
                                                       snd_pcm_uframes_t(std::min<long>(avail, maxFrames)))) < 0
                     && got != -EAGAIN)
                err = int(got);
        }
        if (got > 0) {
            buffer.resize(size_t(got) * size_t(m_channels));
            // The last frame read was captured before the frames still queued behind it.
            const snd_pcm_sframes_t queued = snd_pcm_avail(m_pcm);
            const double now = steadySeconds();
            return {Status::Data, long(got), now - double(std::max<snd_pcm_sframes_t>(queued, 0)) / m_rate};
        }
        if (err < 0) {
            printf("从音频接口读取失败(%s)\n", snd_strerror(err));
            fflush(stdout);
            // An overrun or a suspend: the stream is recovered and started again, the sound
            // lost meanwhile becomes silence. snd_pcm_recover waits out a sleeping machine
            // a second at a time.
            if ((err == -EPIPE || err == -ESTRPIPE) && snd_pcm_recover(m_pcm, err, 1) >= 0
                && snd_pcm_start(m_pcm) >= 0)
                return {Status::Gap};
            return {Status::Gone};
        }
        if (std::chrono::steady_clock::now() - since >= kStallLimit) {
            printf("从音频接口读取失败(%s)\n", snd_strerror(-ETIMEDOUT));
            return {Status::Gone};
        }
    }
}

void AlsaSource::close()
{
    if (m_pcm)
        snd_pcm_close(m_pcm);
    m_pcm = nullptr;
}
