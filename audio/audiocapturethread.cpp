#include "audiocapturethread.h"

#include <QDebug>
#include <QProcess>
#include <QProcessEnvironment>
#include <QStringList>
#include <alsa/asoundlib.h>
#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <climits>
#include <cstdint>
#include <condition_variable>
#include <mutex>
#include <thread>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "encode/clocksync.h"
#include "encode/ffmpegencode.h"
#include "media/audioblock.h"
#include "media/threadexit.h"

namespace {

const char *const kSeparator = "==========================================";
// Card names tried after the configured one.
const char *const kFallbackNames[] = {"kwvizdesk", "camera"};
// Mixer elements examined per card.
constexpr unsigned int kMaxElements = 100;
// The integer control raised to its maximum on every card.
constexpr unsigned int kRaisedNumid = 2;
// Opens of a busy device, and the pause between them.
constexpr int kBusyOpens = 9;
constexpr std::chrono::milliseconds kBusyRetryPause{1000};
// Every wait in the busy-device path looks at the stop request at least this often.
constexpr std::chrono::milliseconds kStopCheck{100};
// Rate asked of the device, Hz.
constexpr unsigned int kWantedRate = 48000;
// Re-opens after a failed read, and the pause between them (microseconds).
constexpr int kReopenAttempts = 11;
constexpr unsigned long kReopenPauseUs = 10;
// Longest single wait for sound from the device: a stop is seen at least this often.
constexpr int kReadWaitMs = 50;
// A device that delivers nothing for this long is taken for gone.
constexpr std::chrono::milliseconds kStallLimit{2000};
// readSome's answer when the stop came first.
constexpr long kReadStopped = 0;

double steadySeconds()
{
    return std::chrono::duration<double>(std::chrono::steady_clock::now().time_since_epoch()).count();
}

} // namespace

// State shared by the session thread and the capture thread. The flags are read without
// a lock; bRecord and bRun are written under controlMutex, so that the capture thread's
// waits on controlCondition see every change.
class AudiocaptureThreadPrivate
{
public:
    std::mutex controlMutex;
    std::condition_variable controlCondition; // signalled by startRecord and stopThread
    std::atomic<bool> bRecord{false};   // capture may begin (startRecord)
    std::atomic<bool> bRun{false};      // the capture loop keeps going
    // When stopThread was called (steady clock, ns since its epoch): sound captured after
    // it is not handed on, however late the loop sees the stop.
    std::atomic<int64_t> stopAtNs{INT64_MAX};
    std::atomic<bool> bOver{false};     // the capture loop has ended
    std::atomic<bool> bPause{false};    // blocks are read but dropped
    std::atomic<int> frameSize{1152};   // frames per read and per block; set before startRecord
    std::atomic<int> audioChannel{1};   // channels
    std::atomic<int> sampleRate{48000}; // Hz, as granted by the device
    int pcmFormat = SND_PCM_FORMAT_S16_LE;
    QString soundCardName = QStringLiteral("KW-08P USBCamera"); // wanted card name
    snd_pcm_t *pcmHandle = nullptr;     // the open capture device, owned
    FFmpegEncode *encode = nullptr;     // receiver of the blocks, not owned
    ThreadExit exit;                    // joins run() visibly to the sanitizer
};

AudiocaptureThread::AudiocaptureThread(FFmpegEncode *encode, QObject *parent)
    : QThread(parent)
    , d(new AudiocaptureThreadPrivate)
{
    d->encode = encode;
}

AudiocaptureThread::~AudiocaptureThread()
{
    // Never free the state under a running loop.
    stopThread();
    d->exit.join(this);
    if (d->pcmHandle)
        snd_pcm_close(d->pcmHandle);
    delete d;
}

void AudiocaptureThread::startThread()
{
    {
        std::lock_guard<std::mutex> lock(d->controlMutex);
        d->bRecord = false;
        d->bRun = true;
        d->stopAtNs = INT64_MAX;
    }
    d->bOver = false;
    d->exit.reset();
    start(QThread::InheritPriority);
}

void AudiocaptureThread::stopThread()
{
    {
        std::lock_guard<std::mutex> lock(d->controlMutex);
        if (d->bRun)
            d->stopAtNs = std::chrono::steady_clock::now().time_since_epoch().count();
        d->bRecord = false;
        d->bRun = false;
    }
    d->controlCondition.notify_all();
}

bool AudiocaptureThread::isOver() const { return d->bOver; }

void AudiocaptureThread::startRecord()
{
    {
        std::lock_guard<std::mutex> lock(d->controlMutex);
        d->bRecord = true;
    }
    d->controlCondition.notify_all();
}

void AudiocaptureThread::setPause(bool on) { d->bPause = on; }
int AudiocaptureThread::frameSize() const { return d->frameSize; }
void AudiocaptureThread::setFrameSize(int samples) { d->frameSize = samples; }
int AudiocaptureThread::audioChannel() { return d->audioChannel; }
int AudiocaptureThread::sampleRate() { return d->sampleRate; }
QString AudiocaptureThread::soundCardName() const { return d->soundCardName; }
void AudiocaptureThread::setSoundCardName(const QString &name) { d->soundCardName = name; }

// Prints one element's values; raises integer element kRaisedNumid to its maximum.
static void examineElement(snd_ctl_t *ctl, unsigned int numid, snd_ctl_elem_info_t *info,
                           snd_ctl_elem_value_t *value, bool cardMatched,
                           std::atomic<int> &audioChannel)
{
    printf("numid: %u\n", numid);
    snd_ctl_elem_info_set_numid(info, numid);
    snd_ctl_elem_info(ctl, info);
    const snd_ctl_elem_iface_t iface = snd_ctl_elem_info_get_interface(info);
    const snd_ctl_elem_type_t type = snd_ctl_elem_info_get_type(info);
    const unsigned int count = snd_ctl_elem_info_get_count(info);
    const char *name = snd_ctl_elem_info_get_name(info);
    printf("name: %s\n", name);
    printf("iface: %s\n", snd_ctl_elem_iface_name(iface));
    printf("type: %s\n", snd_ctl_elem_type_name(type));
    printf("count: %u\n", count);
    if (cardMatched && strstr(name, "Channel")) {
        audioChannel = static_cast<int>(count);
        printf("set audioChannel%d\n", audioChannel.load());
    }
    snd_ctl_elem_value_set_numid(value, numid);
    snd_ctl_elem_read(ctl, value);
    if (type == SND_CTL_ELEM_TYPE_BOOLEAN) {
        for (unsigned int k = 0; k < count; ++k)
            printf("value %u : %s\n", k, snd_ctl_elem_value_get_boolean(value, k) ? "true" : "false");
    } else if (type == SND_CTL_ELEM_TYPE_INTEGER) {
        const long max = snd_ctl_elem_info_get_max(info);
        printf("min: %ld\n", snd_ctl_elem_info_get_min(info));
        printf("max: %ld\n", max);
        for (unsigned int k = 0; k < count; ++k) {
            printf("value %u : %ld\n", k, snd_ctl_elem_value_get_integer(value, k));
            if (numid == kRaisedNumid) {
                snd_ctl_elem_value_set_integer(value, k, max);
                snd_ctl_elem_write(ctl, value);
            }
        }
    }
    printf("%s\n", kSeparator);
}

// Lists the card's first kMaxElements mixer elements.
static void listElements(snd_ctl_t *ctl, bool cardMatched, std::atomic<int> &audioChannel)
{
    snd_ctl_elem_list_t *list = nullptr;
    snd_ctl_elem_info_t *info = nullptr;
    snd_ctl_elem_value_t *value = nullptr;
    if (snd_ctl_elem_list_malloc(&list) < 0 || snd_ctl_elem_info_malloc(&info) < 0
        || snd_ctl_elem_value_malloc(&value) < 0) {
        puts("cannot allocate the mixer element list");
    } else {
        snd_ctl_elem_list_alloc_space(list, kMaxElements);
        snd_ctl_elem_list(ctl, list);
        const unsigned int used = snd_ctl_elem_list_get_used(list);
        printf("list used: %u\n", used);
        printf("\n");
        for (unsigned int i = 0; i < used; ++i)
            examineElement(ctl, snd_ctl_elem_list_get_numid(list, i), info, value, cardMatched,
                           audioChannel);
        snd_ctl_elem_list_free_space(list);
    }
    if (value)
        snd_ctl_elem_value_free(value);
    if (info)
        snd_ctl_elem_info_free(info);
    if (list)
        snd_ctl_elem_list_free(list);
}

QString AudiocaptureThread::snd_card_find(QString name)
{
    QString result;
    const QString wanted = name.toLower();
    int card = -1;
    snd_card_next(&card);
    while (card != -1) {
        const QString device = QStringLiteral("hw:%1").arg(card);
        snd_ctl_t *ctl = nullptr;
        const int ret = snd_ctl_open(&ctl, device.toUtf8().constData(), SND_CTL_NONBLOCK);
        printf("open ret: %d\n", ret);
        // A control device that does not open cannot be matched or listed: skip the card.
        if (ret >= 0 && ctl) {
            printf("control name: %s\n", snd_ctl_name(ctl));
            snd_ctl_card_info_t *info = nullptr;
            QString cardName;
            if (snd_ctl_card_info_malloc(&info) >= 0) {
                if (snd_ctl_card_info(ctl, info) >= 0)
                    cardName = QString::fromUtf8(snd_ctl_card_info_get_name(info));
                snd_ctl_card_info_free(info);
            }
            const bool cardMatched = cardName.toLower().contains(wanted);
            if (cardMatched) {
                result = device;
                printf("find sound card\n");
            }
            printf("card name: %s\n", cardName.toUtf8().constData());
            listElements(ctl, cardMatched, d->audioChannel);
            snd_ctl_close(ctl);
        }
        if (snd_card_next(&card) < 0)
            break;
    }
    printf("find:%s%s\n", result.toUtf8().constData(), name.toUtf8().constData());
    printf("%s\n", kSeparator);
    fflush(stdout);
    return result;
}

// Restarts the desktop sound server, which may hold the device. The helper gets an
// environment of its own (LD_LIBRARY_PATH empty, so that a library path of the host's does
// not reach it): the process's own environment, which the host's threads read, is untouched.
static void restartSoundServer()
{
    QProcess killall;
    killall.setProgram(QStringLiteral("killall"));
    killall.setArguments({QStringLiteral("pulseaudio")});
    QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
    environment.insert(QStringLiteral("LD_LIBRARY_PATH"), QString());
    killall.setProcessEnvironment(environment);
    killall.startDetached();
}

// Sleeps `pause`, looking at the stop request every kStopCheck; false when it came.
static bool pauseUnlessStopped(std::chrono::milliseconds pause,
                               const std::function<bool()> &stopRequested)
{
    const auto until = std::chrono::steady_clock::now() + pause;
    for (auto now = std::chrono::steady_clock::now(); now < until;
         now = std::chrono::steady_clock::now()) {
        if (stopRequested())
            return false;
        std::this_thread::sleep_for(std::min<std::chrono::steady_clock::duration>(until - now, kStopCheck));
    }
    return !stopRequested();
}

// Configures an open device; false after the message of the step that failed.
static bool configure(snd_pcm_t *pcm, int format, std::atomic<int> &rate, std::atomic<int> &channels)
{
    snd_pcm_hw_params_t *params = nullptr;
    int err = snd_pcm_hw_params_malloc(&params);
    if (err < 0) {
        printf("无法分配硬件参数结构 (%s)\n", snd_strerror(err));
        return false;
    }
    puts("硬件参数结构已分配成功.");
    bool ok = false;
    do {
        if ((err = snd_pcm_hw_params_any(pcm, params)) < 0) {
            printf("无法初始化硬件参数结构 (%s)\n", snd_strerror(err));
            break;
        }
        puts("硬件参数结构初始化成功.");
        if ((err = snd_pcm_hw_params_set_access(pcm, params, SND_PCM_ACCESS_RW_INTERLEAVED)) < 0) {
            printf("无法设置访问类型(%s)\n", snd_strerror(err));
            break;
        }
        puts("访问类型设置成功.");
        if ((err = snd_pcm_hw_params_set_format(pcm, params, static_cast<snd_pcm_format_t>(format))) < 0) {
            printf("无法设置格式 (%s)\n", snd_strerror(err));
            break;
        }
        fwrite("PCM数据格式设置成功.\n", 1, strlen("PCM数据格式设置成功.\n"), stdout);
        unsigned int wanted = kWantedRate;
        printf("采样率设置:%d\n", wanted);
        if ((err = snd_pcm_hw_params_set_rate_near(pcm, params, &wanted, nullptr)) < 0) {
            printf("无法设置采样率(%s)\n", snd_strerror(err));
            break;
        }
        rate = static_cast<int>(wanted);
        printf("采样率设置成功:%d\n", rate.load());
        printf("声道数设置:%d\n", channels.load());
        if ((err = snd_pcm_hw_params_set_channels(pcm, params, channels)) < 0) {
            printf("1无法设置声道数(%s)\n", snd_strerror(err));
            channels = channels == 1 ? 2 : 1;
            if ((err = snd_pcm_hw_params_set_channels(pcm, params, channels)) < 0) {
                printf("2无法设置声道数(%s)\n", snd_strerror(err));
                break;
            }
        }
        printf("声道数设置成功.:%d\n", channels.load());
        if ((err = snd_pcm_hw_params(pcm, params)) < 0) {
            printf("无法向驱动程序设置参数(%s)\n", snd_strerror(err));
            break;
        }
        puts("参数设置成功.");
        ok = true;
    } while (false);
    snd_pcm_hw_params_free(params);
    if (!ok)
        return false;
    if ((err = snd_pcm_prepare(pcm)) < 0) {
        printf("无法使用音频接口 (%s)\n", snd_strerror(err));
        return false;
    }
    puts("音频接口准备好.");
    printf("%s\n", kSeparator);
    return true;
}

bool AudiocaptureThread::open()
{
    return open([] { return false; });
}

bool AudiocaptureThread::open(const std::function<bool()> &stopRequested)
{
    QString device = snd_card_find(d->soundCardName);
    for (const char *fallback : kFallbackNames) {
        if (!device.isEmpty())
            break;
        d->soundCardName = QString::fromLatin1(fallback);
        device = snd_card_find(d->soundCardName);
    }
    if (device.isEmpty())
        return false;

    d->pcmFormat = SND_PCM_FORMAT_S16_LE;
    const QByteArray name = device.toUtf8();
    for (int retriesLeft = kBusyOpens;;) {
        snd_pcm_t *pcm = nullptr;
        const int err = snd_pcm_open(&pcm, name.constData(), SND_PCM_STREAM_CAPTURE, 0);
        if (err >= 0) {
            // A handle left by an earlier call is not overwritten unclosed.
            if (d->pcmHandle)
                snd_pcm_close(d->pcmHandle);
            d->pcmHandle = pcm;
            printf("音频接口打开成功.%s:%s\n", d->soundCardName.toUtf8().constData(), name.constData());
            break;
        }
        printf("无法打开音频设备: %s (%s) %d\n", name.constData(), snd_strerror(err), err);
        fflush(stdout);
        if (err != -EBUSY || --retriesLeft == 0)
            return false;
        restartSoundServer();
        if (!pauseUnlessStopped(kBusyRetryPause, stopRequested))
            return false;
    }
    const bool ok = configure(d->pcmHandle, d->pcmFormat, d->sampleRate, d->audioChannel);
    fflush(stdout);
    if (!ok) {
        // A device that cannot be configured is closed, not kept half set up.
        snd_pcm_close(d->pcmHandle);
        d->pcmHandle = nullptr;
    }
    return ok;
}

void AudiocaptureThread::run()
{
    capture();
    d->exit.markReturned();
}

// Re-opens the device after a failed read; false when it stays gone.
bool AudiocaptureThread::reopen()
{
    for (int attempt = 1; attempt <= kReopenAttempts; ++attempt) {
        if (open([this] { return !d->bRun; }))
            return true;
        if (attempt == kReopenAttempts)
            break;
        QThread::usleep(kReopenPauseUs);
        if (!d->bRun)
            break;
    }
    return d->pcmHandle != nullptr;
}

// Waits until capture may begin (true) or the thread is stopped first (false).
bool AudiocaptureThread::waitForRecord()
{
    std::unique_lock<std::mutex> lock(d->controlMutex);
    d->controlCondition.wait(lock, [&] { return d->bRecord || !d->bRun; });
    return d->bRun;
}

// Reads what the device has, up to `maxFrames`, waiting for it with a time-out: a device
// that stops delivering or a stop request never leaves the thread blocked. Returns the
// frames read, kReadStopped when the stop came first, or a negative ALSA error
// (-ETIMEDOUT: nothing came for kStallLimit).
long AudiocaptureThread::readSome(int16_t *buffer, long maxFrames)
{
    snd_pcm_t *pcm = d->pcmHandle;
    const auto since = std::chrono::steady_clock::now();
    for (;;) {
        if (!d->bRun)
            return kReadStopped;
        const int ready = snd_pcm_wait(pcm, kReadWaitMs);
        if (ready < 0)
            return ready;
        const snd_pcm_sframes_t avail = snd_pcm_avail_update(pcm);
        if (avail < 0)
            return static_cast<long>(avail);
        if (avail > 0) {
            const snd_pcm_sframes_t got = snd_pcm_readi(
                pcm, buffer, static_cast<snd_pcm_uframes_t>(std::min<long>(avail, maxFrames)));
            if (got != -EAGAIN)
                return static_cast<long>(got);
        }
        if (std::chrono::steady_clock::now() - since >= kStallLimit)
            return -ETIMEDOUT;
    }
}

// Starts a prepared device: a capture stream does not run until it is started, and
// the reads wait on it with a time-out instead of starting it themselves.
static int startDevice(snd_pcm_t *pcm)
{
    const int err = snd_pcm_start(pcm);
    if (err < 0)
        printf("无法使用音频接口 (%s)\n", snd_strerror(err));
    return err;
}

namespace {

// Cuts what the device delivers into the encoder's blocks and dates every block on the
// steady clock through the card's measured clock. Frames lost to an overrun or while the
// device was re-opened come back as silence of their length, so the sound keeps its
// place on the timeline. Used by the capture thread only.
class BlockCutter
{
public:
    BlockCutter(int frames, int channels, int rate)
        : m_frames(frames), m_channels(channels), m_rate(rate), m_clock(rate) {}

    // `got` frames read; the read completed at steady time `t` (seconds).
    void addRead(const int16_t *data, long got, double t)
    {
        if (m_gapFrom >= 0) {
            // The first frame after the gap was captured `got` frames before now.
            const double firstAt = t - double(got) / m_rate;
            const long lost = std::max(0L, std::lround((firstAt - m_gapFrom) * m_rate
                                                        * m_clock.rateRatio()));
            m_pending.insert(m_pending.end(), size_t(lost) * m_channels, 0);
            m_total += lost;
            m_lostFrames += lost;
            m_gapFrom = -1;
        }
        m_pending.insert(m_pending.end(), data, data + got * m_channels);
        m_total += got;
        m_clock.add(t, m_total);
    }
    // The device stopped delivering (an overrun, or it is re-opened): sound resumes later.
    void beginGap(bool newDevice)
    {
        m_gapFrom = m_clock.timeOfFrame(m_total);
        if (newDevice)
            m_clock.reset(); // another device, another crystal
    }
    bool hasBlock() const { return m_pending.size() >= size_t(m_frames) * m_channels; }
    // The oldest whole block; hasBlock() must hold.
    AudioBlock takeBlock()
    {
        AudioBlock block;
        const size_t n = size_t(m_frames) * m_channels;
        block.samples.assign(m_pending.begin(), m_pending.begin() + n);
        m_pending.erase(m_pending.begin(), m_pending.begin() + n);
        block.frames = m_frames;
        block.channels = m_channels;
        block.rate = m_rate;
        const int64_t first = m_total - int64_t(m_pending.size() / m_channels) - m_frames;
        block.captureTime = m_clock.timeOfFrame(first);
        block.rateRatio = m_clock.rateRatio();
        return block;
    }
    long lostFrames() const { return m_lostFrames; }

private:
    const int m_frames;             // per block
    const int m_channels;
    const int m_rate;               // Hz, nominal
    CardClockEstimator m_clock;     // the card's frames against the steady clock
    std::vector<int16_t> m_pending; // frames not yet in a block, interleaved
    int64_t m_total = 0;            // frames of this capture, silence included
    double m_gapFrom = -1;          // steady time the frame after a gap was due; -1: no gap
    long m_lostFrames = 0;          // frames filled with silence
};

} // namespace

// The stream stopped (an overrun): prepares and starts it again; false when it cannot.
static bool restartDevice(snd_pcm_t *pcm)
{
    const int err = snd_pcm_prepare(pcm);
    if (err < 0) {
        printf("无法使用音频接口 (%s)\n", snd_strerror(err));
        return false;
    }
    return snd_pcm_start(pcm) >= 0;
}

void AudiocaptureThread::capture()
{
    printf("%s\n", kSeparator);
    fflush(stdout);
    // A recording stopped before its first frame never calls startRecord: stop ends the wait.
    waitForRecord();

    const int frames = d->frameSize;
    const int channels = d->audioChannel;
    const int rate = d->sampleRate;
    const size_t blockBytes = sizeof(int16_t) * size_t(frames) * channels;
    std::vector<int16_t> readBuffer;
    bool capturing = d->bRun && frames > 0 && d->pcmHandle;
    if (capturing) {
        readBuffer.resize(size_t(frames) * channels);
        printf("开始采集音频数据:%zu\n", blockBytes);
        fflush(stdout);
        capturing = startDevice(d->pcmHandle) >= 0;
    }

    BlockCutter cutter(frames, std::max(channels, 1), std::max(rate, 1));
    // A block that ends more than half a block after the stop is not part of the recording.
    const double halfBlock = 0.5 * frames / std::max(rate, 1);
    bool continues = false; // the next block follows the last one handed on
    int overruns = 0;
    while (capturing && d->bRun) {
        const long got = readSome(readBuffer.data(), frames);
        if (got > 0) {
            cutter.addRead(readBuffer.data(), got, steadySeconds());
            while (cutter.hasBlock()) {
                AudioBlock block = cutter.takeBlock();
                const double stopAt = d->stopAtNs.load() / 1e9;
                if (block.captureTime + double(frames) / rate - halfBlock > stopAt) {
                    capturing = false;
                    break;
                }
                if (d->bPause) {
                    continues = false; // paused time is not recorded
                    continue;
                }
                block.continues = continues;
                continues = true;
                d->encode->addAudio(std::move(block));
            }
            continue;
        }
        if (got == kReadStopped)
            break;
        printf("从音频接口读取失败(%s)\n", snd_strerror(static_cast<int>(got)));
        fflush(stdout);
        if (got == -EPIPE && restartDevice(d->pcmHandle)) {
            // The card's buffer ran full: the sound lost meanwhile becomes silence.
            ++overruns;
            cutter.beginGap(false);
            continue;
        }
        snd_pcm_close(d->pcmHandle);
        d->pcmHandle = nullptr;
        cutter.beginGap(true);
        if (!d->bRun || !reopen() || startDevice(d->pcmHandle) < 0)
            break;
        // The encoder was set up for the first device's layout: a device that came back
        // with another one would hand it blocks it would misread, so capture ends.
        if (d->audioChannel != channels || d->sampleRate != rate) {
            printf("the microphone came back as %d channel(s) at %d Hz, not %d at %d: "
                   "sound capture ends\n",
                   d->audioChannel.load(), d->sampleRate.load(), channels, rate);
            d->audioChannel = channels;
            d->sampleRate = rate;
            break;
        }
    }

    if (d->pcmHandle) {
        snd_pcm_close(d->pcmHandle);
        d->pcmHandle = nullptr;
    }
    if (cutter.lostFrames() > 0)
        qWarning().noquote() << QStringLiteral("%1 ms of sound lost (%2 overruns): filled with "
                                               "silence")
                                    .arg(cutter.lostFrames() * 1000 / std::max(rate, 1))
                                    .arg(overruns);
    if (d->bRun && d->bRecord)
        qDebug() << "the microphone stopped delivering: recording goes on without sound";
    d->bOver = true;
    // The writer stops keeping a place for sound that will not come.
    d->encode->endAudio();
    printf("AudiocaptureThread over\n");
    fflush(stdout);
}
