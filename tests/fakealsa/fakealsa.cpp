#include "fakealsa.h"

#include <alsa/asoundlib.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <mutex>
#include <thread>

using Clock = std::chrono::steady_clock;

namespace {

struct Card {
    std::string name;
    std::vector<fakealsa::Element> elements;
    fakealsa::Capture capture;
    bool controlFails = false;
    int busyLeft = 0;
    bool clockStarted = false;      // a stream has been started: the epoch is set
    Clock::time_point epoch;        // when the card's frame 0 was captured
    unsigned int rate = 48000;      // of the stream that set the epoch
    bool unplugged = false;
    Clock::time_point unpluggedAt;
};

struct Model {
    std::mutex mutex; // guards everything below
    std::vector<Card> cards;
    std::vector<fakealsa::MixerWrite> writes;
    std::vector<std::string> openAttempts;
    int opens = 0;
    int openHandles = 0;
    long framesDelivered = 0;
    int overruns = 0;
    long framesLost = 0;
    bool beeping = false;
    fakealsa::Beeps beeps;
};

Model &model()
{
    static Model m;
    return m;
}

// Whether the card is there now: it goes at its unplug time and comes back after its
// replug time as a new device. The caller holds the model's mutex.
bool present(Card &c)
{
    const Clock::time_point now = Clock::now();
    if (!c.unplugged && c.clockStarted && c.capture.unplugAfterMs >= 0
        && now >= c.epoch + std::chrono::milliseconds(c.capture.unplugAfterMs)) {
        c.unplugged = true;
        c.unpluggedAt = c.epoch + std::chrono::milliseconds(c.capture.unplugAfterMs);
    }
    if (!c.unplugged)
        return true;
    const long back = c.capture.replugAfterMs;
    if (back >= 0 && now - c.unpluggedAt >= std::chrono::milliseconds(back)) {
        c.unplugged = false;
        c.clockStarted = false;
        c.capture.unplugAfterMs = -1;
        return true;
    }
    return false;
}

// Card frames per steady second.
double cardRate(const Card &c)
{
    return c.rate * (1.0 + c.capture.ppm * 1e-6);
}

// Frames the card has captured by `t` (none after its stall).
long framesBy(const Card &c, Clock::time_point t)
{
    if (c.capture.stallAfterMs >= 0)
        t = std::min(t, c.epoch + std::chrono::milliseconds(c.capture.stallAfterMs));
    if (t <= c.epoch)
        return 0;
    return static_cast<long>(std::chrono::duration<double>(t - c.epoch).count() * cardRate(c));
}

// When the card has captured `frames` frames; never, for frames after its stall.
Clock::time_point timeOfFrames(const Card &c, long frames)
{
    const auto t = c.epoch
        + std::chrono::duration_cast<Clock::duration>(
                       std::chrono::duration<double>(frames / cardRate(c)));
    if (c.capture.stallAfterMs >= 0
        && t > c.epoch + std::chrono::milliseconds(c.capture.stallAfterMs))
        return Clock::time_point::max();
    return t;
}

// Card index from "hw:N"; -1 if not such a name.
int cardIndex(const char *name)
{
    int n = -1;
    if (!name || std::sscanf(name, "hw:%d", &n) != 1)
        return -1;
    return n;
}

// The element of `card` with `numid`, or null; the caller holds the model's mutex.
fakealsa::Element *findElement(Model &m, int card, unsigned int numid)
{
    for (fakealsa::Element &e : m.cards.at(card).elements)
        if (e.numid == numid)
            return &e;
    return nullptr;
}

} // namespace

// The opaque ALSA types, as this model needs them.
struct _snd_ctl {
    int card = -1;
    std::string name;
};
struct _snd_ctl_card_info {
    char name[80];
};
struct _snd_ctl_elem_list {
    unsigned int space = 0;
    std::vector<unsigned int> numids;
};
struct _snd_ctl_elem_info {
    unsigned int numid = 0;
    fakealsa::Element element;
};
struct _snd_ctl_elem_value {
    unsigned int numid = 0;
    std::vector<long> values;
};
struct _snd_pcm_hw_params {
    unsigned int rate = 0;
    unsigned int channels = 0;
};
struct _snd_pcm {
    int card = -1;
    unsigned int rate = 48000;
    unsigned int channels = 1;
    enum State { Prepared, Running, Overrun } state = Prepared;
    long readPos = 0;               // card frame of the next frame to deliver
    bool started = false;           // the stream has run before
    Clock::time_point nextOverrun;  // when the next planned overrun comes
    bool lostFrames = false;        // the last stop was an overrun: frames are lost on restart
};

namespace fakealsa {

void reset()
{
    Model &m = model();
    std::lock_guard<std::mutex> lock(m.mutex);
    m.cards.clear();
    m.writes.clear();
    m.openAttempts.clear();
    m.opens = 0;
    m.framesDelivered = 0;
    m.overruns = 0;
    m.framesLost = 0;
    m.beeping = false;
}

int addCard(const std::string &name, const std::vector<Element> &elements, const Capture &capture)
{
    Model &m = model();
    std::lock_guard<std::mutex> lock(m.mutex);
    Card c;
    c.name = name;
    c.elements = elements;
    for (Element &e : c.elements)
        e.values.resize(e.count, 0);
    c.capture = capture;
    c.busyLeft = capture.busyOpens;
    m.cards.push_back(c);
    return static_cast<int>(m.cards.size()) - 1;
}

void setControlOpenFails(int card)
{
    Model &m = model();
    std::lock_guard<std::mutex> lock(m.mutex);
    m.cards.at(card).controlFails = true;
}

std::vector<MixerWrite> mixerWrites()
{
    Model &m = model();
    std::lock_guard<std::mutex> lock(m.mutex);
    return m.writes;
}

std::vector<long> elementValues(int card, unsigned int numid)
{
    Model &m = model();
    std::lock_guard<std::mutex> lock(m.mutex);
    const Element *e = findElement(m, card, numid);
    return e ? e->values : std::vector<long>();
}

std::vector<std::string> pcmOpenAttempts()
{
    Model &m = model();
    std::lock_guard<std::mutex> lock(m.mutex);
    return m.openAttempts;
}

int pcmOpens()
{
    Model &m = model();
    std::lock_guard<std::mutex> lock(m.mutex);
    return m.opens;
}

int pcmOpenHandles()
{
    Model &m = model();
    std::lock_guard<std::mutex> lock(m.mutex);
    return m.openHandles;
}

long framesDelivered()
{
    Model &m = model();
    std::lock_guard<std::mutex> lock(m.mutex);
    return m.framesDelivered;
}

int overruns()
{
    Model &m = model();
    std::lock_guard<std::mutex> lock(m.mutex);
    return m.overruns;
}

long framesLost()
{
    Model &m = model();
    std::lock_guard<std::mutex> lock(m.mutex);
    return m.framesLost;
}

void setBeeps(const Beeps &beeps)
{
    Model &m = model();
    std::lock_guard<std::mutex> lock(m.mutex);
    m.beeping = true;
    m.beeps = beeps;
}

short sampleAt(long frame, int channel, unsigned int rate, double frequency)
{
    const double f = frequency * (channel + 1);
    return static_cast<short>(std::lround(12000.0 * std::sin(2 * M_PI * f * double(frame) / rate)));
}

// The sample card `c` captures at its frame `frame`, channel `channel`. The caller holds
// the model's mutex.
short cardSample(const Model &m, const Card &c, long frame, int channel)
{
    if (!m.beeping) {
        return sampleAt(frame, c.capture.sameToneOnAllChannels ? 0 : channel, c.rate,
                        c.capture.frequency);
    }
    // A beep is timed on the steady clock: when the frame was captured, not its number.
    const double t = std::chrono::duration<double>(c.epoch - m.beeps.epoch).count()
        + frame / cardRate(c);
    const double period = m.beeps.periodMs / 1000.0;
    const double intoPeriod = t - std::floor(t / period) * period;
    if (t < 0 || intoPeriod >= m.beeps.lengthMs / 1000.0)
        return 0;
    return static_cast<short>(
        std::lround(12000.0 * std::sin(2 * M_PI * m.beeps.frequency * intoPeriod)));
}

} // namespace fakealsa

extern "C" {

const char *snd_strerror(int errnum)
{
    return strerror(errnum < 0 ? -errnum : errnum);
}

int snd_card_next(int *card)
{
    Model &m = model();
    std::lock_guard<std::mutex> lock(m.mutex);
    for (int i = *card + 1; i < static_cast<int>(m.cards.size()); ++i) {
        if (present(m.cards[i])) {
            *card = i;
            return 0;
        }
    }
    *card = -1;
    return 0;
}

int snd_ctl_open(snd_ctl_t **ctl, const char *name, int /*mode*/)
{
    Model &m = model();
    std::lock_guard<std::mutex> lock(m.mutex);
    const int i = cardIndex(name);
    if (i < 0 || i >= static_cast<int>(m.cards.size()) || !present(m.cards[i]))
        return -ENOENT;
    if (m.cards[i].controlFails)
        return -EACCES;
    *ctl = new _snd_ctl();
    (*ctl)->card = i;
    (*ctl)->name = name;
    return 0;
}

int snd_ctl_close(snd_ctl_t *ctl)
{
    delete ctl;
    return 0;
}

const char *snd_ctl_name(snd_ctl_t *ctl)
{
    return ctl->name.c_str();
}

int snd_ctl_card_info_malloc(snd_ctl_card_info_t **ptr)
{
    *ptr = new _snd_ctl_card_info();
    return 0;
}

void snd_ctl_card_info_free(snd_ctl_card_info_t *obj)
{
    delete obj;
}

size_t snd_ctl_card_info_sizeof(void)
{
    return sizeof(_snd_ctl_card_info);
}

void snd_ctl_card_info_clear(snd_ctl_card_info_t *obj)
{
    std::memset(obj, 0, sizeof *obj);
}

int snd_ctl_card_info(snd_ctl_t *ctl, snd_ctl_card_info_t *info)
{
    Model &m = model();
    std::lock_guard<std::mutex> lock(m.mutex);
    std::snprintf(info->name, sizeof info->name, "%s", m.cards.at(ctl->card).name.c_str());
    return 0;
}

const char *snd_ctl_card_info_get_name(const snd_ctl_card_info_t *obj)
{
    return obj->name;
}

int snd_ctl_elem_list_malloc(snd_ctl_elem_list_t **ptr)
{
    *ptr = new _snd_ctl_elem_list();
    return 0;
}

void snd_ctl_elem_list_free(snd_ctl_elem_list_t *obj)
{
    delete obj;
}

int snd_ctl_elem_list_alloc_space(snd_ctl_elem_list_t *obj, unsigned int entries)
{
    obj->space = entries;
    return 0;
}

void snd_ctl_elem_list_free_space(snd_ctl_elem_list_t *obj)
{
    obj->space = 0;
    obj->numids.clear();
}

void snd_ctl_elem_list_set_offset(snd_ctl_elem_list_t *, unsigned int) {}

int snd_ctl_elem_list(snd_ctl_t *ctl, snd_ctl_elem_list_t *list)
{
    Model &m = model();
    std::lock_guard<std::mutex> lock(m.mutex);
    list->numids.clear();
    for (const fakealsa::Element &e : m.cards.at(ctl->card).elements) {
        if (list->numids.size() >= list->space)
            break;
        list->numids.push_back(e.numid);
    }
    return 0;
}

unsigned int snd_ctl_elem_list_get_used(const snd_ctl_elem_list_t *obj)
{
    return static_cast<unsigned int>(obj->numids.size());
}

unsigned int snd_ctl_elem_list_get_numid(const snd_ctl_elem_list_t *obj, unsigned int idx)
{
    return idx < obj->numids.size() ? obj->numids[idx] : 0;
}

int snd_ctl_elem_info_malloc(snd_ctl_elem_info_t **ptr)
{
    *ptr = new _snd_ctl_elem_info();
    return 0;
}

void snd_ctl_elem_info_free(snd_ctl_elem_info_t *obj)
{
    delete obj;
}

void snd_ctl_elem_info_set_numid(snd_ctl_elem_info_t *obj, unsigned int val)
{
    obj->numid = val;
}

int snd_ctl_elem_info(snd_ctl_t *ctl, snd_ctl_elem_info_t *info)
{
    Model &m = model();
    std::lock_guard<std::mutex> lock(m.mutex);
    const fakealsa::Element *e = findElement(m, ctl->card, info->numid);
    if (!e)
        return -ENOENT;
    info->element = *e;
    return 0;
}

snd_ctl_elem_iface_t snd_ctl_elem_info_get_interface(const snd_ctl_elem_info_t *)
{
    return SND_CTL_ELEM_IFACE_MIXER;
}

snd_ctl_elem_type_t snd_ctl_elem_info_get_type(const snd_ctl_elem_info_t *obj)
{
    return static_cast<snd_ctl_elem_type_t>(obj->element.type);
}

unsigned int snd_ctl_elem_info_get_count(const snd_ctl_elem_info_t *obj)
{
    return obj->element.count;
}

const char *snd_ctl_elem_info_get_name(const snd_ctl_elem_info_t *obj)
{
    return obj->element.name.c_str();
}

long snd_ctl_elem_info_get_min(const snd_ctl_elem_info_t *obj)
{
    return obj->element.min;
}

long snd_ctl_elem_info_get_max(const snd_ctl_elem_info_t *obj)
{
    return obj->element.max;
}

const char *snd_ctl_elem_iface_name(snd_ctl_elem_iface_t iface)
{
    return iface == SND_CTL_ELEM_IFACE_MIXER ? "MIXER" : "CARD";
}

const char *snd_ctl_elem_type_name(snd_ctl_elem_type_t type)
{
    switch (type) {
    case SND_CTL_ELEM_TYPE_BOOLEAN:
        return "BOOLEAN";
    case SND_CTL_ELEM_TYPE_INTEGER:
        return "INTEGER";
    case SND_CTL_ELEM_TYPE_ENUMERATED:
        return "ENUMERATED";
    default:
        return "NONE";
    }
}

int snd_ctl_elem_value_malloc(snd_ctl_elem_value_t **ptr)
{
    *ptr = new _snd_ctl_elem_value();
    return 0;
}

void snd_ctl_elem_value_free(snd_ctl_elem_value_t *obj)
{
    delete obj;
}

void snd_ctl_elem_value_set_numid(snd_ctl_elem_value_t *obj, unsigned int val)
{
    obj->numid = val;
}

int snd_ctl_elem_read(snd_ctl_t *ctl, snd_ctl_elem_value_t *value)
{
    Model &m = model();
    std::lock_guard<std::mutex> lock(m.mutex);
    const fakealsa::Element *e = findElement(m, ctl->card, value->numid);
    if (!e)
        return -ENOENT;
    value->values = e->values;
    return 0;
}

int snd_ctl_elem_write(snd_ctl_t *ctl, snd_ctl_elem_value_t *value)
{
    Model &m = model();
    std::lock_guard<std::mutex> lock(m.mutex);
    fakealsa::Element *e = findElement(m, ctl->card, value->numid);
    if (!e)
        return -ENOENT;
    e->values = value->values;
    e->values.resize(e->count, 0);
    m.writes.push_back({ctl->card, e->numid, e->values});
    return 0;
}

int snd_ctl_elem_value_get_boolean(const snd_ctl_elem_value_t *obj, unsigned int idx)
{
    return idx < obj->values.size() && obj->values[idx] ? 1 : 0;
}

long snd_ctl_elem_value_get_integer(const snd_ctl_elem_value_t *obj, unsigned int idx)
{
    return idx < obj->values.size() ? obj->values[idx] : 0;
}

void snd_ctl_elem_value_set_integer(snd_ctl_elem_value_t *obj, unsigned int idx, long val)
{
    if (obj->values.size() <= idx)
        obj->values.resize(idx + 1, 0);
    obj->values[idx] = val;
}

int snd_pcm_open(snd_pcm_t **pcm, const char *name, snd_pcm_stream_t stream, int /*mode*/)
{
    Model &m = model();
    std::lock_guard<std::mutex> lock(m.mutex);
    m.openAttempts.push_back(name ? name : "");
    const int i = cardIndex(name);
    if (stream != SND_PCM_STREAM_CAPTURE || i < 0 || i >= static_cast<int>(m.cards.size())
        || !present(m.cards[i]))
        return -ENOENT;
    Card &c = m.cards[i];
    if (c.capture.openError)
        return c.capture.openError;
    if (c.busyLeft > 0) {
        --c.busyLeft;
        return -EBUSY;
    }
    *pcm = new _snd_pcm();
    (*pcm)->card = i;
    ++m.opens;
    ++m.openHandles;
    return 0;
}

int snd_pcm_close(snd_pcm_t *pcm)
{
    Model &m = model();
    {
        std::lock_guard<std::mutex> lock(m.mutex);
        --m.openHandles;
    }
    delete pcm;
    return 0;
}

int snd_pcm_hw_params_malloc(snd_pcm_hw_params_t **ptr)
{
    *ptr = new _snd_pcm_hw_params();
    return 0;
}

void snd_pcm_hw_params_free(snd_pcm_hw_params_t *obj)
{
    delete obj;
}

int snd_pcm_hw_params_any(snd_pcm_t *, snd_pcm_hw_params_t *params)
{
    *params = _snd_pcm_hw_params();
    return 0;
}

int snd_pcm_hw_params_set_access(snd_pcm_t *, snd_pcm_hw_params_t *, snd_pcm_access_t access)
{
    return access == SND_PCM_ACCESS_RW_INTERLEAVED ? 0 : -EINVAL;
}

int snd_pcm_hw_params_set_format(snd_pcm_t *, snd_pcm_hw_params_t *, snd_pcm_format_t format)
{
    return format == SND_PCM_FORMAT_S16_LE ? 0 : -EINVAL;
}

int snd_pcm_hw_params_set_rate_near(snd_pcm_t *pcm, snd_pcm_hw_params_t *params, unsigned int *val,
                                    int *dir)
{
    Model &m = model();
    std::lock_guard<std::mutex> lock(m.mutex);
    const std::vector<unsigned int> &rates = m.cards.at(pcm->card).capture.rates;
    if (rates.empty())
        return -EINVAL;
    unsigned int best = rates.front();
    for (unsigned int r : rates)
        if (std::labs(long(r) - long(*val)) < std::labs(long(best) - long(*val)))
            best = r;
    *val = best;
    params->rate = best;
    if (dir)
        *dir = 0;
    return 0;
}

int snd_pcm_hw_params_set_channels(snd_pcm_t *pcm, snd_pcm_hw_params_t *params, unsigned int val)
{
    Model &m = model();
    std::lock_guard<std::mutex> lock(m.mutex);
    const std::vector<unsigned int> &ok = m.cards.at(pcm->card).capture.channels;
    if (std::find(ok.begin(), ok.end(), val) == ok.end())
        return -EINVAL;
    params->channels = val;
    return 0;
}

int snd_pcm_hw_params(snd_pcm_t *pcm, snd_pcm_hw_params_t *params)
{
    if (!params->rate || !params->channels)
        return -EINVAL;
    pcm->rate = params->rate;
    pcm->channels = params->channels;
    return 0;
}

int snd_pcm_prepare(snd_pcm_t *pcm)
{
    pcm->state = _snd_pcm::Prepared;
    return 0;
}

int snd_pcm_format_width(snd_pcm_format_t format)
{
    switch (format) {
    case SND_PCM_FORMAT_S8:
    case SND_PCM_FORMAT_U8:
        return 8;
    case SND_PCM_FORMAT_S16_LE:
    case SND_PCM_FORMAT_S16_BE:
        return 16;
    case SND_PCM_FORMAT_S32_LE:
        return 32;
    default:
        return -EINVAL;
    }
}

} // extern "C"

namespace {

// The device's buffer: more unread frames than this is an overrun, as on a real card.
constexpr long kBufferMs = 1000;
// A wait returns once this much is readable (a period).
constexpr long kPeriodMs = 10;

// Starts the stream at `now`; the caller holds the model's mutex.
void startStream(Model &m, snd_pcm_t *pcm, Clock::time_point now)
{
    Card &c = m.cards.at(pcm->card);
    if (!c.clockStarted) {
        c.clockStarted = true;
        c.epoch = now;
        c.rate = pcm->rate;
    }
    // Nothing captured before the start is delivered; after an overrun the restart takes
    // the planned loss before sound comes again.
    const Clock::time_point from =
        pcm->lostFrames ? now + std::chrono::milliseconds(c.capture.overrunLossMs) : now;
    const long resumeAt = framesBy(c, from);
    if (pcm->started)
        m.framesLost += std::max(0L, resumeAt - pcm->readPos);
    pcm->started = true;
    pcm->readPos = resumeAt;
    pcm->lostFrames = false;
    pcm->state = _snd_pcm::Running;
    if (c.capture.overrunEveryMs > 0)
        pcm->nextOverrun = from + std::chrono::milliseconds(c.capture.overrunEveryMs);
}

// Frames readable now, or a negative error (-ENODEV unplugged, -EPIPE overrun); the
// caller holds the model's mutex.
long availableNow(Model &m, snd_pcm_t *pcm, Clock::time_point now)
{
    Card &c = m.cards.at(pcm->card);
    if (!present(c))
        return -ENODEV;
    if (pcm->state == _snd_pcm::Prepared)
        return 0;
    if (pcm->state == _snd_pcm::Overrun)
        return -EPIPE;
    const long avail = framesBy(c, now) - pcm->readPos;
    const bool planned = c.capture.overrunEveryMs > 0 && now >= pcm->nextOverrun;
    if (planned || avail > pcm->rate * kBufferMs / 1000) {
        pcm->state = _snd_pcm::Overrun;
        pcm->lostFrames = planned;
        ++m.overruns;
        return -EPIPE;
    }
    return std::max(avail, 0L);
}

} // namespace

extern "C" {

int snd_pcm_start(snd_pcm_t *pcm)
{
    Model &m = model();
    std::lock_guard<std::mutex> lock(m.mutex);
    if (pcm->state != _snd_pcm::Prepared)
        return -EBADFD;
    startStream(m, pcm, Clock::now());
    return 0;
}

snd_pcm_sframes_t snd_pcm_avail_update(snd_pcm_t *pcm)
{
    Model &m = model();
    std::lock_guard<std::mutex> lock(m.mutex);
    return availableNow(m, pcm, Clock::now());
}

int snd_pcm_wait(snd_pcm_t *pcm, int timeout)
{
    Model &m = model();
    const Clock::time_point deadline = Clock::now() + std::chrono::milliseconds(timeout);
    Clock::time_point ready;
    {
        std::lock_guard<std::mutex> lock(m.mutex);
        const long avail = availableNow(m, pcm, Clock::now());
        const long period = long(pcm->rate) * kPeriodMs / 1000;
        if (avail < 0)
            return static_cast<int>(avail);
        if (avail >= period)
            return 1;
        ready = pcm->state == _snd_pcm::Running
            ? timeOfFrames(m.cards.at(pcm->card), pcm->readPos + period)
            : Clock::time_point::max();
    }
    std::this_thread::sleep_until(std::min(ready, deadline));
    return ready <= deadline ? 1 : 0;
}

// Blocks, as ALSA's blocking mode does, until `size` frames are readable (for ever on a
// stalled card), then delivers them. The capture code asks only for what avail_update
// reported, so it never waits here.
snd_pcm_sframes_t snd_pcm_readi(snd_pcm_t *pcm, void *buffer, snd_pcm_uframes_t size)
{
    Model &m = model();
    std::unique_lock<std::mutex> lock(m.mutex);
    if (pcm->state == _snd_pcm::Prepared)
        startStream(m, pcm, Clock::now()); // as with ALSA's default start threshold
    const long frames = static_cast<long>(size);
    for (;;) {
        const long avail = availableNow(m, pcm, Clock::now());
        if (avail < 0)
            return avail;
        if (avail >= frames)
            break;
        const Clock::time_point ready = timeOfFrames(m.cards.at(pcm->card), pcm->readPos + frames);
        lock.unlock();
        std::this_thread::sleep_until(std::min(ready, Clock::now() + std::chrono::milliseconds(kPeriodMs)));
        lock.lock();
    }
    const Card &c = m.cards.at(pcm->card);
    auto *out = static_cast<short *>(buffer);
    for (long f = 0; f < frames; ++f)
        for (unsigned int ch = 0; ch < pcm->channels; ++ch)
            out[f * pcm->channels + ch] =
                fakealsa::cardSample(m, c, pcm->readPos + f, static_cast<int>(ch));
    pcm->readPos += frames;
    m.framesDelivered += frames;
    return frames;
}

} // extern "C"
