#include "fakealsa.h"

#include <alsa/asoundlib.h>

#include <algorithm>
#include <cerrno>
#include <condition_variable>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <optional>
#include <thread>

using Clock = std::chrono::steady_clock;
using Seconds = std::chrono::duration<double>;
using std::chrono::milliseconds;

namespace {

// The device's buffer and period while the program sets none: more unread frames than the
// buffer is an overrun, as on a real card; a wait returns once a period is readable.
constexpr long kBufferMs = 1000;
constexpr long kPeriodUs = 10000;
// A blocked read or wait looks at the card at least this often.
constexpr Seconds kPoll{0.010};

struct Card {
    int index = 0;                  // the ALSA index it has now
    std::string name;
    std::vector<fakealsa::Element> elements;
    fakealsa::Capture capture;      // busyOpens counts down
    bool controlFails = false;
    bool clockStarted = false;      // a stream has been started: the epoch is set
    Clock::time_point epoch{};      // when the card's frame 0 was captured
    unsigned int rate = 48000;      // Hz, of the stream that set the epoch
    int plugs = 0;                  // times it came back: handles opened before are dead
    Clock::time_point heldUntil{};  // another program holds the device until then
    bool suspended = false;         // the planned suspend has come
};

// What reset() forgets. The counters are those of the functions of the same names.
struct State {
    std::vector<Card> cards;
    std::vector<std::string> openAttempts;
    int opens = 0, overruns = 0, blockedOpens = 0, suspends = 0;
    long framesDelivered = 0, framesLost = 0;
    long periodFrames = 0, bufferFrames = 0; // of the last stream set up
    std::optional<fakealsa::Beeps> beeps; // unset: steady tones
};

struct Model : State {
    std::mutex mutex;     // guards everything
    std::condition_variable released; // a device was let go
    int openHandles = 0;  // kept by reset(): handles opened before it are closed after it
} theModel;

// A program that cannot script the model (a host run with LD_PRELOAD) finds one card with
// the default capture when FAKEALSA_CARD names it.
const bool cardFromEnvironment = [] {
    if (const char *name = std::getenv("FAKEALSA_CARD"))
        fakealsa::addCard(name);
    return true;
}();

// The model, under its mutex for as long as this lives.
struct Locked : std::lock_guard<std::mutex> {
    Locked() : lock_guard(theModel.mutex) {}
    Model *operator->() const { return &theModel; }
};

// The index after every card's: a card added, or one replugged elsewhere, takes it. The
// caller holds the model's mutex.
int nextIndex()
{
    int next = 0;
    for (const Card &c : theModel.cards)
        next = std::max(next, c.index + 1);
    return next;
}

// Whether the card is there now: it goes at its unplug time and comes back after its
// replug time as a new device, with a clock of its own. The caller holds the model's mutex.
bool present(Card &c)
{
    if (!c.clockStarted || c.capture.unplugAfterMs < 0)
        return true;
    const Clock::duration sinceGone = Clock::now() - c.epoch - milliseconds(c.capture.unplugAfterMs);
    if (sinceGone < Clock::duration::zero())
        return true;
    if (c.capture.replugAfterMs < 0 || sinceGone < milliseconds(c.capture.replugAfterMs))
        return false;
    c.clockStarted = false;
    c.capture.unplugAfterMs = -1;
    c.suspended = false;
    ++c.plugs;
    if (c.capture.replugElsewhere)
        c.index = nextIndex();
    return true;
}

// Card frames per steady second.
double cardRate(const Card &c) { return c.rate * (1.0 + c.capture.ppm * 1e-6); }

// Frames the card has captured by `t` (none after its stall).
long framesBy(const Card &c, Clock::time_point t)
{
    if (c.capture.stallAfterMs >= 0)
        t = std::min(t, c.epoch + milliseconds(c.capture.stallAfterMs));
    return std::max(0L, static_cast<long>(Seconds(t - c.epoch).count() * cardRate(c)));
}

// The present card of device "hw:N", or null; the caller holds the model's mutex.
Card *cardNamed(const char *name)
{
    int n = -1;
    if (!name || std::sscanf(name, "hw:%d", &n) != 1 || n < 0)
        return nullptr;
    for (Card &c : theModel.cards)
        if (present(c) && c.index == n)
            return &c;
    return nullptr;
}

// The element of `card` with `numid`, or null; the caller holds the model's mutex.
fakealsa::Element *findElement(int card, unsigned int numid)
{
    for (fakealsa::Element &e : theModel.cards.at(card).elements)
        if (e.numid == numid)
            return &e;
    return nullptr;
}

// The sample card `c` captures at its frame `frame`, channel `channel`. The caller holds
// the model's mutex.
short cardSample(const Card &c, long frame, int channel)
{
    const std::optional<fakealsa::Beeps> &beeps = theModel.beeps;
    if (!beeps)
        return fakealsa::sampleAt(frame, channel, c.rate, c.capture.frequency);
    // A beep is timed on the steady clock: when the frame was captured, not its number.
    const double t = Seconds(c.epoch - beeps->epoch).count() + frame / cardRate(c);
    const double intoPeriod = std::fmod(t, beeps->periodMs / 1000.0);
    if (t < 0 || intoPeriod >= beeps->lengthMs / 1000.0)
        return 0;
    return static_cast<short>(std::lround(12000.0 * std::sin(2 * M_PI * beeps->frequency * intoPeriod)));
}

} // namespace

// The opaque ALSA types, as this model needs them. A control: the device name it was
// opened by, and its card.
struct _snd_ctl : std::string { int card = -1; };
struct _snd_ctl_card_info : std::string {};
// The numids listed: all the card's (none has more than the capture code's space for).
struct _snd_ctl_elem_list : std::vector<unsigned int> {};
// The element of the numid set, as last read.
struct _snd_ctl_elem_info : fakealsa::Element {};
struct _snd_ctl_elem_value : fakealsa::Element {};
// The rate (Hz) and channels asked for, the period and buffer (microseconds); 0: not set.
struct _snd_pcm_hw_params { unsigned int rate = 0, channels = 0, periodUs = 0, bufferUs = 0; };
// A capture stream, with the parameters it was given.
struct _snd_pcm : _snd_pcm_hw_params {
    int card = -1;
    int plugs = 0;                  // the card's plugs when opened
    enum State { Prepared, Running, Overrun, Suspended } state = Prepared;
    long readPos = -1;              // card frame of the next frame to deliver; -1: never ran
    Clock::time_point nextOverrun;  // when the next planned overrun comes
    Clock::time_point lossUntil;    // a restart before this delivers nothing up to it
};
using Info = snd_ctl_elem_info_t;
using Value = snd_ctl_elem_value_t;
using List = snd_ctl_elem_list_t;

namespace fakealsa {

void reset()
{
    Locked lock;
    static_cast<State &>(theModel) = State();
}

int addCard(const std::string &name, const std::vector<Element> &elements, const Capture &capture)
{
    Card c{0, name, elements, capture};
    for (Element &e : c.elements)
        e.values.resize(e.count, 0);
    c.heldUntil = capture.heldMs < 0 ? Clock::time_point::max() : Clock::now() + milliseconds(capture.heldMs);
    Locked m;
    c.index = nextIndex();
    m->cards.push_back(c);
    return int(m->cards.size()) - 1;
}

void release(int card)
{
    Locked()->cards.at(card).heldUntil = Clock::now();
    theModel.released.notify_all();
}

int blockedOpens() { return Locked()->blockedOpens; }

void setControlOpenFails(int card) { Locked()->cards.at(card).controlFails = true; }

void setBeeps(const Beeps &beeps) { Locked()->beeps = beeps; }

std::vector<long> elementValues(int card, unsigned int numid)
{
    Locked lock;
    const Element *e = findElement(card, numid);
    return e ? e->values : std::vector<long>();
}

std::vector<std::string> pcmOpenAttempts() { return Locked()->openAttempts; }
int pcmOpens() { return Locked()->opens; }
int pcmOpenHandles() { return Locked()->openHandles; }
long framesDelivered() { return Locked()->framesDelivered; }
int overruns() { return Locked()->overruns; }
long framesLost() { return Locked()->framesLost; }
int suspends() { return Locked()->suspends; }
long lastPeriodFrames() { return Locked()->periodFrames; }
long lastBufferFrames() { return Locked()->bufferFrames; }

int cardIndex(int card)
{
    Locked m;
    Card &c = m->cards.at(card);
    present(c);
    return c.index;
}

short sampleAt(long frame, int channel, unsigned int rate, double frequency)
{
    const double f = frequency * (channel + 1);
    return static_cast<short>(std::lround(12000.0 * std::sin(2 * M_PI * f * double(frame) / rate)));
}

} // namespace fakealsa

namespace {

// The stream's buffer and period, frames.
long bufferFrames(const snd_pcm_t *pcm)
{
    return pcm->bufferUs ? long(pcm->rate) * pcm->bufferUs / 1000000 : long(pcm->rate) * kBufferMs / 1000;
}
long periodFrames(const snd_pcm_t *pcm)
{
    return long(pcm->rate) * (pcm->periodUs ? pcm->periodUs : kPeriodUs) / 1000000;
}

// The stream overruns now; the caller holds the model's mutex.
void overrun(snd_pcm_t *pcm, Clock::time_point lossUntil)
{
    pcm->state = _snd_pcm::Overrun;
    pcm->lossUntil = lossUntil;
    ++theModel.overruns;
}

// Whether the card's planned suspend has come by `now`; the caller holds the model's mutex.
bool suspendedBy(Card &c, Clock::time_point now)
{
    if (!c.suspended && c.clockStarted && c.capture.suspendAfterMs >= 0
        && now >= c.epoch + milliseconds(c.capture.suspendAfterMs)) {
        c.suspended = true;
        ++theModel.suspends;
    }
    return c.suspended && now < c.epoch + milliseconds(c.capture.suspendAfterMs + c.capture.suspendForMs);
}

// Frames readable now, or a negative error (-ENODEV unplugged, -EPIPE overrun, -ESTRPIPE
// suspended); the caller holds the model's mutex.
long availableNow(snd_pcm_t *pcm, Clock::time_point now)
{
    Card &c = theModel.cards.at(pcm->card);
    if (!present(c) || c.plugs != pcm->plugs)
        return -ENODEV;
    if (pcm->state == _snd_pcm::Running && suspendedBy(c, now))
        pcm->state = _snd_pcm::Suspended; // what it held is lost
    if (pcm->state != _snd_pcm::Running) { // a read does not start the stream
        if (pcm->state == _snd_pcm::Suspended)
            return -ESTRPIPE;
        return pcm->state == _snd_pcm::Overrun ? -EPIPE : -EBADFD;
    }
    const long avail = framesBy(c, now) - pcm->readPos;
    const bool planned = c.capture.overrunEveryMs > 0 && now >= pcm->nextOverrun && !c.capture.overrunMidRead;
    if (planned || avail > bufferFrames(pcm)) {
        overrun(pcm, planned ? now + milliseconds(c.capture.overrunLossMs) : now);
        return -EPIPE;
    }
    return std::max(avail, 0L);
}

// Waits until `frames` are readable or `deadline` has passed, letting go of the model's
// mutex (held in `lock`) while it sleeps; the frames readable then, or a negative error.
long waitFor(std::unique_lock<std::mutex> &lock, snd_pcm_t *pcm, long frames,
             Clock::time_point deadline)
{
    for (;;) {
        const Clock::time_point now = Clock::now();
        const long avail = availableNow(pcm, now);
        if (avail < 0 || avail >= frames || now >= deadline)
            return avail;
        // When the missing frames are due, unless the card stalls or goes meanwhile.
        const Seconds due((frames - avail) / cardRate(theModel.cards.at(pcm->card)));
        const auto wake = now + std::chrono::duration_cast<Clock::duration>(std::min(due, kPoll));
        lock.unlock();
        std::this_thread::sleep_until(std::min(wake, deadline));
        lock.lock();
    }
}

// Fills `e` with the card's element of e.numid.
int readElement(snd_ctl_t *ctl, fakealsa::Element &e)
{
    Locked lock;
    const fakealsa::Element *found = findElement(ctl->card, e.numid);
    if (!found)
        return -ENOENT;
    e = *found;
    return 0;
}

} // namespace

extern "C" {

// malloc and free of an opaque ALSA type.
#define FAKEALSA_ALLOC(type)          \
    int type##_malloc(type##_t **ptr) \
    {                                 \
        *ptr = new _##type();         \
        return 0;                     \
    }                                 \
    void type##_free(type##_t *obj) { delete obj; }
FAKEALSA_ALLOC(snd_ctl_card_info)
FAKEALSA_ALLOC(snd_ctl_elem_list)
FAKEALSA_ALLOC(snd_ctl_elem_info)
FAKEALSA_ALLOC(snd_ctl_elem_value)
FAKEALSA_ALLOC(snd_pcm_hw_params)

const char *snd_strerror(int errnum) { return strerror(std::abs(errnum)); }

int snd_card_next(int *card)
{
    Locked m;
    int next = -1;
    for (Card &c : m->cards)
        if (present(c) && c.index > *card && (next < 0 || c.index < next))
            next = c.index;
    *card = next;
    return 0;
}

int snd_ctl_open(snd_ctl_t **ctl, const char *name, int /*mode*/)
{
    Locked m;
    const Card *c = cardNamed(name);
    if (!c || c->controlFails)
        return -ENOENT;
    *ctl = new _snd_ctl{{name}, int(c - m->cards.data())};
    return 0;
}

int snd_ctl_close(snd_ctl_t *ctl)
{
    delete ctl;
    return 0;
}


int snd_ctl_card_info(snd_ctl_t *ctl, snd_ctl_card_info_t *info)
{
    info->assign(Locked()->cards.at(ctl->card).name);
    return 0;
}

const char *snd_ctl_card_info_get_name(const snd_ctl_card_info_t *info) { return info->c_str(); }

int snd_ctl_elem_list_alloc_space(List *, unsigned int) { return 0; }
void snd_ctl_elem_list_free_space(List *) {}

int snd_ctl_elem_list(snd_ctl_t *ctl, List *list)
{
    Locked m;
    list->clear();
    for (const fakealsa::Element &e : m->cards.at(ctl->card).elements)
        list->push_back(e.numid);
    return 0;
}

unsigned int snd_ctl_elem_list_get_used(const List *list) { return unsigned(list->size()); }
unsigned int snd_ctl_elem_list_get_numid(const List *list, unsigned int i) { return list->at(i); }

void snd_ctl_elem_info_set_numid(Info *info, unsigned int numid) { info->numid = numid; }
int snd_ctl_elem_info(snd_ctl_t *ctl, Info *info) { return readElement(ctl, *info); }
snd_ctl_elem_type_t snd_ctl_elem_info_get_type(const Info *e) { return snd_ctl_elem_type_t(e->type); }
unsigned int snd_ctl_elem_info_get_count(const Info *info) { return info->count; }
const char *snd_ctl_elem_info_get_name(const Info *info) { return info->name.c_str(); }
long snd_ctl_elem_info_get_max(const Info *info) { return info->max; }

// Names that are only logged.
const char *snd_ctl_elem_type_name(snd_ctl_elem_type_t) { return "TYPE"; }

void snd_ctl_elem_value_set_numid(Value *value, unsigned int numid) { value->numid = numid; }
int snd_ctl_elem_read(snd_ctl_t *ctl, Value *value) { return readElement(ctl, *value); }

int snd_ctl_elem_write(snd_ctl_t *ctl, Value *value)
{
    Locked lock;
    fakealsa::Element *e = findElement(ctl->card, value->numid);
    if (!e)
        return -ENOENT;
    e->values = value->values; // as read: count values
    return 0;
}

long snd_ctl_elem_value_get_integer(const Value *v, unsigned int i) { return v->values.at(i); }
int snd_ctl_elem_value_get_boolean(const Value *v, unsigned int i) { return v->values.at(i) != 0; }

// Of a value read first, as the capture code does.
void snd_ctl_elem_value_set_integer(Value *v, unsigned int i, long val) { v->values.at(i) = val; }
void snd_ctl_elem_value_set_boolean(Value *v, unsigned int i, long val) { v->values.at(i) = val != 0; }

// As the kernel does for a device another program holds: a blocking open waits until it
// is let go (for ever if it never is), a non-blocking one fails with -EBUSY.
int snd_pcm_open(snd_pcm_t **pcm, const char *name, snd_pcm_stream_t stream, int mode)
{
    std::unique_lock<std::mutex> lock(theModel.mutex);
    theModel.openAttempts.push_back(name ? name : "");
    Card *c = stream == SND_PCM_STREAM_CAPTURE ? cardNamed(name) : nullptr;
    if (!c)
        return -ENOENT;
    if (c->capture.openError)
        return c->capture.openError;
    const int index = int(c - theModel.cards.data());
    const auto held = [&] { return Clock::now() < theModel.cards.at(index).heldUntil; };
    if (held()) {
        if (mode & SND_PCM_NONBLOCK)
            return -EBUSY;
        ++theModel.blockedOpens;
        while (held()) {
            const Clock::time_point until = theModel.cards.at(index).heldUntil;
            if (until == Clock::time_point::max())
                theModel.released.wait(lock);
            else
                theModel.released.wait_until(lock, until);
        }
    }
    *pcm = new _snd_pcm();
    (*pcm)->card = index;
    (*pcm)->plugs = theModel.cards.at(index).plugs;
    ++theModel.opens;
    ++theModel.openHandles;
    return 0;
}

int snd_pcm_close(snd_pcm_t *pcm)
{
    --Locked()->openHandles;
    delete pcm;
    return 0;
}

// Parameters fresh from malloc are already unset. Reads deliver interleaved S16 whatever
// is asked: another access or format shows in the samples.
int snd_pcm_hw_params_any(snd_pcm_t *, snd_pcm_hw_params_t *) { return 0; }
int snd_pcm_hw_params_set_access(snd_pcm_t *, snd_pcm_hw_params_t *, snd_pcm_access_t) { return 0; }
int snd_pcm_hw_params_set_format(snd_pcm_t *, snd_pcm_hw_params_t *, snd_pcm_format_t) { return 0; }

// Grants the nearest of the card's rates (and leaves `dir` alone).
int snd_pcm_hw_params_set_rate_near(snd_pcm_t *pcm, snd_pcm_hw_params_t *params, unsigned int *val,
                                    int *)
{
    Locked m;
    const std::vector<unsigned int> &rates = m->cards.at(pcm->card).capture.rates;
    const auto nearer = [&](unsigned int a, unsigned int b) {
        return std::labs(long(a) - long(*val)) < std::labs(long(b) - long(*val));
    };
    *val = params->rate = *std::min_element(rates.begin(), rates.end(), nearer);
    return 0;
}

// Grants the accepted channel count nearest the one asked (the smaller on a tie).
int snd_pcm_hw_params_set_channels_near(snd_pcm_t *pcm, snd_pcm_hw_params_t *params, unsigned int *val)
{
    Locked m;
    const std::vector<unsigned int> &ok = m->cards.at(pcm->card).capture.channels;
    const auto nearer = [&](unsigned int a, unsigned int b) {
        const long da = std::labs(long(a) - long(*val)), db = std::labs(long(b) - long(*val));
        return da < db || (da == db && a < b);
    };
    *val = params->channels = *std::min_element(ok.begin(), ok.end(), nearer);
    return 0;
}

// Periods from 1 ms to a second, a buffer of two periods to two seconds: the nearest
// granted, as a USB device does within its own limits.
int snd_pcm_hw_params_set_period_time_near(snd_pcm_t *, snd_pcm_hw_params_t *params, unsigned int *val, int *)
{
    *val = params->periodUs = std::clamp(*val, 1000u, 1000000u);
    return 0;
}

int snd_pcm_hw_params_set_buffer_time_near(snd_pcm_t *, snd_pcm_hw_params_t *params, unsigned int *val, int *)
{
    *val = params->bufferUs = std::clamp(*val, std::max(2 * params->periodUs, 2000u), 2000000u);
    return 0;
}

int snd_pcm_hw_params(snd_pcm_t *pcm, snd_pcm_hw_params_t *params)
{
    if (!params->rate || !params->channels)
        return -EINVAL;
    static_cast<_snd_pcm_hw_params &>(*pcm) = *params;
    Locked m;
    m->periodFrames = params->periodUs ? periodFrames(pcm) : 0;
    m->bufferFrames = params->bufferUs ? bufferFrames(pcm) : 0;
    return 0;
}

int snd_pcm_prepare(snd_pcm_t *pcm)
{
    Locked m;
    Card &c = m->cards.at(pcm->card);
    if (!present(c) || c.plugs != pcm->plugs)
        return -ENODEV;
    pcm->state = _snd_pcm::Prepared;
    return 0;
}

// A suspended stream resumes once the machine is awake, but this driver cannot resume it
// in place (as many USB devices): the caller prepares it again.
int snd_pcm_resume(snd_pcm_t *pcm)
{
    Locked m;
    if (pcm->state != _snd_pcm::Suspended)
        return -EBADFD;
    return suspendedBy(m->cards.at(pcm->card), Clock::now()) ? -EAGAIN : -ENOSYS;
}

// As libasound's: an overrun is prepared; a suspend is resumed, waiting a second at a time
// while the machine sleeps, and prepared when the driver cannot resume; others returned.
int snd_pcm_recover(snd_pcm_t *pcm, int err, int /*silent*/)
{
    if (err > 0)
        err = -err;
    if (err == -EINTR)
        return 0;
    if (err == -EPIPE)
        return snd_pcm_prepare(pcm);
    if (err == -ESTRPIPE) {
        while ((err = snd_pcm_resume(pcm)) == -EAGAIN)
            std::this_thread::sleep_for(std::chrono::seconds(1));
        return err < 0 ? snd_pcm_prepare(pcm) : 0;
    }
    return err;
}

int snd_pcm_start(snd_pcm_t *pcm)
{
    Locked lock;
    if (pcm->state != _snd_pcm::Prepared)
        return -EBADFD;
    Card &c = theModel.cards.at(pcm->card);
    const Clock::time_point now = Clock::now();
    if (!c.clockStarted) {
        c.clockStarted = true;
        c.epoch = now;
        c.rate = pcm->rate;
    }
    // Nothing captured before the start is delivered, nor what an overrun lost.
    const Clock::time_point from = std::max(now, pcm->lossUntil);
    const long resumeAt = framesBy(c, from);
    if (pcm->readPos >= 0)
        theModel.framesLost += std::max(0L, resumeAt - pcm->readPos);
    pcm->readPos = resumeAt;
    pcm->state = _snd_pcm::Running;
    pcm->nextOverrun = from + milliseconds(c.capture.overrunEveryMs);
    return 0;
}

snd_pcm_sframes_t snd_pcm_avail_update(snd_pcm_t *pcm)
{
    Locked lock;
    return availableNow(pcm, Clock::now());
}

// The same here: the model's position is always the hardware's.
snd_pcm_sframes_t snd_pcm_avail(snd_pcm_t *pcm) { return snd_pcm_avail_update(pcm); }

// 1 once a period is readable, 0 after `timeout` ms without, or a negative error.
int snd_pcm_wait(snd_pcm_t *pcm, int timeout)
{
    std::unique_lock<std::mutex> lock(theModel.mutex);
    const long period = periodFrames(pcm);
    const long avail = waitFor(lock, pcm, period, Clock::now() + milliseconds(timeout));
    return avail < 0 ? int(avail) : avail >= period;
}

// Blocks, as ALSA's blocking mode does, until `size` frames are readable (for ever on a
// stalled card), then delivers them. The capture code asks only for what avail_update
// reported, so it never waits here.
snd_pcm_sframes_t snd_pcm_readi(snd_pcm_t *pcm, void *buffer, snd_pcm_uframes_t size)
{
    std::unique_lock<std::mutex> lock(theModel.mutex);
    long frames = static_cast<long>(size);
    const long avail = waitFor(lock, pcm, frames, Clock::time_point::max());
    if (avail < 0)
        return avail;
    const Card &c = theModel.cards.at(pcm->card);
    // An overrun during the transfer: the frames before it are returned, the error later.
    if (c.capture.overrunMidRead && c.capture.overrunEveryMs > 0 && Clock::now() >= pcm->nextOverrun) {
        frames /= 2;
        overrun(pcm, Clock::now() + milliseconds(c.capture.overrunLossMs));
    }
    auto *out = static_cast<short *>(buffer);
    for (long f = 0; f < frames; ++f)
        for (unsigned int ch = 0; ch < pcm->channels; ++ch)
            out[f * pcm->channels + ch] = cardSample(c, pcm->readPos + f, int(ch));
    pcm->readPos += frames;
    theModel.framesDelivered += frames;
    return frames;
}

} // extern "C"
