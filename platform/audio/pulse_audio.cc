#include "platform/audio/pulse_audio.h"

#include <pulse/pulseaudio.h>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <map>
#include <vector>

#include "platform/audio/pulse_handles.h"
#include "platform/host_clock.h"
#include "platform/log.h"

namespace sv {

// One server connection: a threaded main loop and its context. Every
// libpulse object is touched only with the main loop's lock held (or on its
// thread, which holds it).
//
// When the server goes away after the context was ready, the connection
// tells its listeners and then connects a new context on the same loop
// every kRetryUsec until the server answers again; the loop's thread and its
// timers keep running in between, so sources can go on with silence.
//
// Lifetime: shared by the backend and its sources. It must never be
// released on its loop's thread or while its lock is held: the destructor
// joins that thread. Lock keeps a reference, so a connection dropped while
// a Lock is held goes only after the unlock.
class PulseConnection {
  public:
    using SubscriptionHandler = std::function<void(pa_subscription_event_type_t, uint32_t)>;
    // On the loop's thread, with the lock held: the context is ready again
    // (true) or was lost (false).
    using StateListener = std::function<void(bool ready)>;

    class Lock {
      public:
        explicit Lock(std::shared_ptr<PulseConnection> c) : conn_(std::move(c)) {
            if (conn_ && !pa_threaded_mainloop_in_thread(conn_->mainloop()))
                pa_threaded_mainloop_lock(locked_ = conn_->mainloop());
        }
        // Unlocks before the reference goes, so no destructor runs locked.
        ~Lock() {
            if (locked_) pa_threaded_mainloop_unlock(locked_);
            locked_ = nullptr;
            conn_.reset();
        }
        Lock(const Lock&) = delete;
        Lock& operator=(const Lock&) = delete;

      private:
        std::shared_ptr<PulseConnection> conn_;
        pa_threaded_mainloop* locked_ = nullptr;
    };

    // A connected context, or null when the server does not answer within
    // `timeout` or an allocation fails. `onServerState` (may be null) hears
    // of later losses and returns, on the loop's thread.
    static std::shared_ptr<PulseConnection> open(const std::string& server,
                                                 std::chrono::milliseconds timeout,
                                                 AudioServerStateHandler onServerState = {}) {
        auto c = std::shared_ptr<PulseConnection>(new PulseConnection);
        c->server_ = server;
        c->onServerState_ = std::move(onServerState);
        c->mainloop_.reset(pa_threaded_mainloop_new());
        if (!c->mainloop_) return nullptr;
        pa_threaded_mainloop* loop = c->mainloop_.get();
        pa_threaded_mainloop_set_name(loop, "sv-pulse");
        if (!c->connectContext()) return nullptr;
        if (pa_threaded_mainloop_start(loop) < 0) return nullptr;
        Lock lock(c);
        if (!c->waitUntilReady(timeout)) return nullptr;
        return c;
    }

    // The main loop's thread stops before the context, the timer and the
    // loop are released (members, in reverse order of declaration).
    ~PulseConnection() {
        if (!mainloop_) return;
        pa_threaded_mainloop_lock(mainloop_.get());
        closing_ = true;
        pa_threaded_mainloop_unlock(mainloop_.get());
        pa_threaded_mainloop_stop(mainloop_.get());
    }

    pa_threaded_mainloop* mainloop() const { return mainloop_.get(); }
    pa_context* context() const { return context_.get(); }

    // With the lock held.
    bool ready() const {
        return context_ && pa_context_get_state(context_.get()) == PA_CONTEXT_READY;
    }
    uint64_t addSubscriber(SubscriptionHandler h) {
        subscribers_[nextId_] = std::move(h);
        return nextId_++;
    }
    void removeSubscriber(uint64_t id) { subscribers_.erase(id); }
    uint64_t addStateListener(StateListener l) {
        listeners_[nextId_] = std::move(l);
        return nextId_++;
    }
    void removeStateListener(uint64_t id) { listeners_.erase(id); }

  private:
    static constexpr pa_usec_t kRetryUsec = 500000;

    PulseConnection() = default;

    // With the lock held (or before the loop runs): a new context on the
    // loop, connecting. False when it cannot even be tried.
    bool connectContext() {
        pa_threaded_mainloop* loop = mainloop_.get();
        pulse::Proplist props(pa_proplist_new());
        if (!props) return false;
        pa_proplist_sets(props.get(), PA_PROP_APPLICATION_NAME, "sorveld");
        pa_proplist_sets(props.get(), PA_PROP_APPLICATION_ID, "sorveld");
        // Replaced only by a context that exists: timers need one.
        pulse::Context fresh(pa_context_new_with_proplist(pa_threaded_mainloop_get_api(loop),
                                                          "sorveld", props.get()));
        if (!fresh) return false;
        if (context_) {
            // The old context's callbacks must not run for its release.
            pa_context_set_state_callback(context_.get(), nullptr, nullptr);
            pa_context_set_subscribe_callback(context_.get(), nullptr, nullptr);
        }
        context_ = std::move(fresh);
        pa_context* ctx = context_.get();
        pa_context_set_state_callback(ctx, &PulseConnection::onState, this);
        pa_context_set_subscribe_callback(ctx, &PulseConnection::onEvent, this);
        return pa_context_connect(ctx, server_.empty() ? nullptr : server_.c_str(),
                                  PA_CONTEXT_NOAUTOSPAWN, nullptr) >= 0;
    }

    // With the lock held: waits for the context to become ready, fail, or
    // for `timeout` to pass.
    bool waitUntilReady(std::chrono::milliseconds timeout) {
        pa_threaded_mainloop* loop = mainloop_.get();
        pulse::TimeEvent timer(
            pa_context_rttime_new(
                context_.get(), pa_rtclock_now() + pa_usec_t(timeout.count()) * 1000,
                [](pa_mainloop_api*, pa_time_event*, const struct timeval*, void* userdata) {
                    auto* self = static_cast<PulseConnection*>(userdata);
                    self->timedOut_ = true;
                    pa_threaded_mainloop_signal(self->mainloop_.get(), 0);
                },
                this),
            pulse::TimeEventDeleter(pa_threaded_mainloop_get_api(loop)));
        // Without a timer there is no bound on the wait: give up at once.
        if (!timer) return false;
        for (;;) {
            pa_context_state_t st = pa_context_get_state(context_.get());
            if (st == PA_CONTEXT_READY) return true;
            if (!PA_CONTEXT_IS_GOOD(st) || timedOut_) return false;
            pa_threaded_mainloop_wait(loop);
        }
    }

    // On the loop's thread: try again in kRetryUsec.
    void scheduleRetry() {
        if (closing_) return;
        if (!retry_) {
            retry_ = pulse::TimeEvent(
                pa_context_rttime_new(context_.get(), pa_rtclock_now() + kRetryUsec,
                                      &PulseConnection::onRetry, this),
                pulse::TimeEventDeleter(pa_threaded_mainloop_get_api(mainloop_.get())));
            if (!retry_) log::error("PulseAudio: cannot schedule a reconnection");
            return;
        }
        pa_context_rttime_restart(context_.get(), retry_.get(), pa_rtclock_now() + kRetryUsec);
    }

    static void onRetry(pa_mainloop_api*, pa_time_event*, const struct timeval*, void* u) {
        auto* self = static_cast<PulseConnection*>(u);
        if (self->closing_ || self->ready()) return;
        // A failure to connect shows as a failed state (which retries) or,
        // when the attempt cannot start at all, here.
        if (!self->connectContext() && self->context_) self->scheduleRetry();
    }

    static void onState(pa_context* c, void* userdata) {
        auto* self = static_cast<PulseConnection*>(userdata);
        pa_context_state_t st = pa_context_get_state(c);
        if (st == PA_CONTEXT_READY) {
            pulse::Operation(
                pa_context_subscribe(c, PA_SUBSCRIPTION_MASK_SINK_INPUT, nullptr, nullptr));
            if (self->lost_) {
                self->lost_ = false;
                log::info("PulseAudio: the server answers again");
                self->tell(true);
            }
            self->everReady_ = true;
        } else if ((st == PA_CONTEXT_FAILED || st == PA_CONTEXT_TERMINATED) && !self->closing_) {
            if (self->everReady_ && !self->lost_) {
                self->lost_ = true;
                log::error("PulseAudio: connection ended: %@", pa_strerror(pa_context_errno(c)));
                self->tell(false);
            }
            if (self->everReady_) self->scheduleRetry();
        }
        pa_threaded_mainloop_signal(self->mainloop_.get(), 0);
    }

    void tell(bool ready) {
        // Listeners may remove themselves: iterate over a snapshot of ids.
        std::vector<uint64_t> ids;
        for (auto& [id, l] : listeners_) ids.push_back(id);
        for (uint64_t id : ids) {
            auto it = listeners_.find(id);
            if (it != listeners_.end()) it->second(ready);
        }
        if (onServerState_) onServerState_(ready);
    }

    static void onEvent(pa_context*, pa_subscription_event_type_t t, uint32_t idx, void* userdata) {
        auto* self = static_cast<PulseConnection*>(userdata);
        // Handlers may remove themselves: iterate over a snapshot of ids.
        std::vector<uint64_t> ids;
        for (auto& [id, h] : self->subscribers_) ids.push_back(id);
        for (uint64_t id : ids) {
            auto it = self->subscribers_.find(id);
            if (it != self->subscribers_.end()) it->second(t, idx);
        }
    }

    std::string server_;
    AudioServerStateHandler onServerState_;
    // Declared before the context and the timer: released after them.
    pulse::ThreadedMainloop mainloop_;
    pulse::Context context_;
    pulse::TimeEvent retry_;
    bool timedOut_ = false;
    bool closing_ = false;
    bool everReady_ = false;
    bool lost_ = false;
    std::map<uint64_t, SubscriptionHandler> subscribers_;
    std::map<uint64_t, StateListener> listeners_;
    uint64_t nextId_ = 1;
};

namespace {

bool sampleSpecFor(const AudioStreamFormat& f, pa_sample_spec* sampleSpec) {
    if (!f.isLinearPCM() || f.channelsPerFrame == 0 || f.channelsPerFrame > PA_CHANNELS_MAX)
        return false;
    bool be = f.formatFlags & AudioStreamFormat::kFlagIsBigEndian;
    if (f.bitsPerChannel == 16 && (f.formatFlags & AudioStreamFormat::kFlagIsSignedInteger))
        sampleSpec->format = be ? PA_SAMPLE_S16BE : PA_SAMPLE_S16LE;
    else if (f.bitsPerChannel == 32 && (f.formatFlags & AudioStreamFormat::kFlagIsFloat))
        sampleSpec->format = be ? PA_SAMPLE_FLOAT32BE : PA_SAMPLE_FLOAT32LE;
    else
        return false;
    sampleSpec->rate = uint32_t(std::lround(f.sampleRate));
    sampleSpec->channels = uint8_t(f.channelsPerFrame);
    return pa_sample_spec_valid(sampleSpec) && f.bytesPerFrame == pa_frame_size(sampleSpec);
}

// A record stream (of a source, or a monitor of one sink input) that hands
// its data with host-time stamps to `onData`, on the main loop's thread.
class RecordStream {
  public:
    using DataHandler = std::function<void(const uint8_t* bytes, size_t length, uint64_t hostTime)>;

    // How a chunk's first frame is stamped. Device: when the server says it
    // was recorded (now minus the stream's latency). Arrival: when the server
    // handed it over (now minus what is still unread); for monitors of
    // playback streams, whose reported latency is the sink's look-ahead
    // rather than an age, that is when the server mixed the audio.
    enum class Timing { Device, Arrival };
    // How long a device's first audio may wait for the server's first timing
    // update before it is stamped without it.
    static constexpr pa_usec_t kMaxWaitForTimingUsec = 250000;

    RecordStream(PulseConnection* conn, const pa_sample_spec& sampleSpec, Timing timing,
                 DataHandler onData, std::function<void()> onEnded)
        : conn_(conn),
          spec_(sampleSpec),
          timing_(timing),
          onData_(std::move(onData)),
          onEnded_(std::move(onEnded)) {}

    // With the lock held. `device`: source name or index, null for the
    // default; `sinkInput`: PA_INVALID_INDEX or the sink input to monitor.
    bool connect(const char* name, const char* device, uint32_t sinkInput, pa_usec_t fragmentUsec) {
        stream_.reset(pa_stream_new(conn_->context(), name, &spec_, nullptr));
        if (!stream_) return false;
        pa_stream* s = stream_.get();
        if (sinkInput != PA_INVALID_INDEX && pa_stream_set_monitor_stream(s, sinkInput) < 0)
            return false;
        pa_stream_set_read_callback(s, &RecordStream::onRead, this);
        pa_stream_set_state_callback(s, &RecordStream::onState, this);
        pa_stream_set_overflow_callback(
            s, [](pa_stream*, void* u) { static_cast<RecordStream*>(u)->anchored_ = false; }, this);
        // Reads that waited for the first timing update go on with it.
        pa_stream_set_latency_update_callback(
            s, [](pa_stream* st, void* u) { onRead(st, 0, u); }, this);
        pa_buffer_attr attr;
        attr.maxlength = uint32_t(-1);
        attr.tlength = attr.prebuf = attr.minreq = uint32_t(-1);
        attr.fragsize = uint32_t(pa_usec_to_bytes(fragmentUsec, &spec_));
        auto flags = pa_stream_flags_t(PA_STREAM_ADJUST_LATENCY | PA_STREAM_INTERPOLATE_TIMING |
                                       PA_STREAM_AUTO_TIMING_UPDATE |
                                       (sinkInput != PA_INVALID_INDEX ? PA_STREAM_DONT_MOVE : 0));
        return pa_stream_connect_record(s, device, &attr, flags) == 0;
    }

    // With the lock held; no callback runs after it: they are detached
    // before the owner disconnects the stream.
    ~RecordStream() {
        if (!stream_) return;
        pa_stream_set_read_callback(stream_.get(), nullptr, nullptr);
        pa_stream_set_state_callback(stream_.get(), nullptr, nullptr);
        pa_stream_set_overflow_callback(stream_.get(), nullptr, nullptr);
        pa_stream_set_latency_update_callback(stream_.get(), nullptr, nullptr);
        stream_.reset();
    }

    bool ended() const { return ended_; }

  private:
    static void onState(pa_stream* s, void* u) {
        auto* self = static_cast<RecordStream*>(u);
        pa_stream_state_t st = pa_stream_get_state(s);
        if ((st == PA_STREAM_FAILED || st == PA_STREAM_TERMINATED) && !self->ended_) {
            self->ended_ = true;
            if (self->onEnded_) self->onEnded_();
        }
    }

    static void onRead(pa_stream* s, size_t, void* u) {
        auto* self = static_cast<RecordStream*>(u);
        const uint64_t now = HostClock::now();
        pa_usec_t latency = 0;
        int negative = 0;
        const size_t readable = pa_stream_readable_size(s);
        if (readable == size_t(-1) || readable == 0) return;
        bool latencyKnown =
            self->timing_ == Timing::Device && pa_stream_get_latency(s, &latency, &negative) == 0;
        // A device's first reads often come before the server's first timing
        // update. Anchoring them on "recorded just now" stamps them as late as
        // the device buffers (up to half a second on a device that was
        // idle), and the correction that follows once the latency is known
        // sends the stamps back in time: the movie writer then drops every
        // sample until they pass the last one. So the data waits (the timing
        // update reads it, see connect) unless it piles up.
        if (!latencyKnown && self->timing_ == Timing::Device && !self->anchored_ &&
            readable < pa_usec_to_bytes(kMaxWaitForTimingUsec, &self->spec_))
            return;
        if (!latencyKnown) {
            // Arrival timing, or no timing information for too long: take the
            // newest frame as recorded now.
            latency = pa_bytes_to_usec(readable, &self->spec_);
            negative = 0;
        }
        // The oldest unread frame was recorded `latency` ago (or, for a source
        // that renders ahead such as a monitor, will be played `latency` from now).
        const uint64_t firstUnread =
            negative ? now + latency * 1000 : now - std::min<uint64_t>(now, latency * 1000);
        const size_t frameSize = pa_frame_size(&self->spec_);
        uint64_t consumedFrames = 0;
        for (;;) {
            const void* data = nullptr;
            size_t length = 0;
            if (pa_stream_peek(s, &data, &length) < 0 || length == 0) break;
            if (!data) {  // a hole: what follows is not contiguous
                self->anchored_ = false;
                pa_stream_drop(s);
                continue;
            }
            const uint64_t measured =
                firstUnread + HostClock::ticksForFrames(consumedFrames, self->spec_.rate);
            uint64_t expected = self->anchorTime_ +
                                HostClock::ticksForFrames(self->anchorFrames_, self->spec_.rate);
            if (!self->anchored_) {
                self->anchored_ = true;
                self->anchorTime_ = measured;
                self->anchorFrames_ = 0;
                self->driftFrames_ = 0;
                expected = measured;
            } else {
                self->trackDrift(int64_t(measured) - int64_t(expected), length / frameSize);
                expected = self->anchorTime_ +
                           HostClock::ticksForFrames(self->anchorFrames_, self->spec_.rate);
            }
            const size_t frames = length / frameSize;
            if (frames)
                self->onData_(static_cast<const uint8_t*>(data), frames * frameSize, expected);
            self->anchorFrames_ += frames;
            consumedFrames += frames;
            pa_stream_drop(s);
        }
    }

    // The latency measurement jitters by tens of milliseconds from one read
    // to the next, so the stamps follow it only when it stays more than
    // 30 ms off for half a second, and then by the smallest offset seen.
    void trackDrift(int64_t drift, size_t frames) {
        constexpr int64_t kThreshold = 30'000'000;
        if (std::llabs(drift) <= kThreshold) {
            driftFrames_ = 0;
            return;
        }
        int sign = drift > 0 ? 1 : -1;
        if (driftFrames_ == 0 || sign != driftSign_) {
            driftSign_ = sign;
            driftMin_ = std::llabs(drift);
            driftFrames_ = 0;
        }
        driftMin_ = std::min(driftMin_, int64_t(std::llabs(drift)));
        driftFrames_ += frames;
        if (driftFrames_ >= spec_.rate / 2) {
            anchorTime_ = uint64_t(int64_t(anchorTime_) + driftSign_ * driftMin_);
            driftFrames_ = 0;
        }
    }

    PulseConnection* conn_;
    pa_sample_spec spec_;
    Timing timing_;
    DataHandler onData_;
    std::function<void()> onEnded_;
    pulse::Stream stream_;
    bool ended_ = false;
    bool anchored_ = false;
    uint64_t anchorTime_ = 0;
    uint64_t anchorFrames_ = 0;
    uint64_t driftFrames_ = 0;
    int driftSign_ = 0;
    int64_t driftMin_ = 0;
};

// The recording of a device. While the server is away it goes on with
// silence on the host timeline, paced by the loop's timer and as far behind
// real time as the recording ran, and records again once the server is back.
class PulseDeviceSource : public AudioSource {
  public:
    PulseDeviceSource(std::shared_ptr<PulseConnection> conn, AudioChunkSink sink,
                      AudioSourceFailure onFailure)
        : conn_(std::move(conn)), sink_(std::move(sink)), onFailure_(std::move(onFailure)) {}

    bool open(const std::string& device, const pa_sample_spec& sampleSpec) {
        PulseConnection::Lock lock(conn_);
        device_ = device;
        spec_ = sampleSpec;
        // A server lost before the first audio arrives: silence from now.
        nextTime_ = HostClock::now();
        listener_ = conn_->addStateListener([this](bool ready) {
            if (!ready) return;  // the timer fills in until the server is back
            if (!connectStream())
                log::error("PulseAudio: cannot record the microphone again: %@",
                           pa_strerror(pa_context_errno(conn_->context())));
        });
        timer_ = pulse::TimeEvent(
            pa_context_rttime_new(conn_->context(), pa_rtclock_now() + kTickUsec,
                                  &PulseDeviceSource::onTick, this),
            pulse::TimeEventDeleter(pa_threaded_mainloop_get_api(conn_->mainloop())));
        return timer_ && connectStream();
    }
    ~PulseDeviceSource() override {
        PulseConnection::Lock lock(conn_);
        timer_.reset();
        if (listener_) conn_->removeStateListener(listener_);
        stream_.reset();
    }

  private:
    static constexpr pa_usec_t kTickUsec = 20000;

    // With the lock held.
    bool connectStream() {
        stream_ = std::make_unique<RecordStream>(
            conn_.get(), spec_, RecordStream::Timing::Device,
            [this](const uint8_t* bytes, size_t length, uint64_t hostTime) {
                deliver(bytes, length, hostTime);
            },
            [this] {
                // A stream ended with its server is no failure: silence follows.
                if (conn_->ready() && onFailure_) onFailure_(kAudioNoDeviceError);
            });
        return stream_->connect("sorveld microphone", device_.empty() ? nullptr : device_.c_str(),
                                PA_INVALID_INDEX, 20000);
    }

    void deliver(const uint8_t* bytes, size_t length, uint64_t hostTime) {
        const uint64_t frames = length / pa_frame_size(&spec_);
        nextTime_ = hostTime + HostClock::ticksForFrames(frames, spec_.rate);
        const uint64_t now = HostClock::now();
        lag_ = now > nextTime_ ? now - nextTime_ : 0;
        sink_(std::span<const uint8_t>(bytes, length), hostTime);
    }

    static void onTick(pa_mainloop_api*, pa_time_event* e, const struct timeval*, void* u) {
        auto* self = static_cast<PulseDeviceSource*>(u);
        if (!self->conn_->ready()) self->fillWithSilence();
        pa_context_rttime_restart(self->conn_->context(), e, pa_rtclock_now() + kTickUsec);
    }

    // Silence from the end of what was delivered up to now (less the lag
    // the recording ran with), at most a second per tick.
    void fillWithSilence() {
        const uint64_t now = HostClock::now();
        if (now < lag_ || now - lag_ <= nextTime_) return;
        const size_t frameSize = pa_frame_size(&spec_);
        uint64_t frames = (now - lag_ - nextTime_) * spec_.rate / HostClock::kTicksPerSecond;
        frames = std::min<uint64_t>(frames, spec_.rate);
        if (zeros_.empty()) zeros_.assign(4096 * frameSize, 0);
        while (frames) {
            const uint64_t n = std::min<uint64_t>(frames, zeros_.size() / frameSize);
            const uint64_t at = nextTime_;
            nextTime_ += HostClock::ticksForFrames(n, spec_.rate);
            sink_(std::span<const uint8_t>(zeros_.data(), n * frameSize), at);
            frames -= n;
        }
    }

    std::shared_ptr<PulseConnection> conn_;
    AudioChunkSink sink_;
    AudioSourceFailure onFailure_;
    std::string device_;
    pa_sample_spec spec_{};
    uint64_t listener_ = 0;
    uint64_t nextTime_ = 0;  // host time just after the last frame delivered (or the open)
    uint64_t lag_ = 0;       // how far behind real time that frame was delivered
    std::vector<uint8_t> zeros_;
    pulse::TimeEvent timer_;
    std::unique_ptr<RecordStream> stream_;
};

// The tap of one process: a monitor stream per sink input of the process,
// mixed on a timeline whose frame 0 is the tap's start.
class PulseProcessTap : public AudioSource {
  public:
    PulseProcessTap(std::shared_ptr<PulseConnection> conn, int32_t pid,
                    const AudioStreamFormat& format, AudioChunkSink sink,
                    AudioSourceFailure onFailure)
        : conn_(std::move(conn)),
          pid_(pid),
          format_(format),
          sink_(std::move(sink)),
          onFailure_(std::move(onFailure)) {
        spec_.format = PA_SAMPLE_S16NE;
        spec_.rate = uint32_t(std::lround(format.sampleRate));
        spec_.channels = uint8_t(format.channelsPerFrame);
        channels_ = format.channelsPerFrame;
        capacityFrames_ = uint64_t(spec_.rate) * 4;
        ring_.assign(capacityFrames_ * channels_, 0);
        delayFrames_ = uint64_t(spec_.rate) * PulseAudioBackend::kTapLatencyMs / 1000;
        bigEndian_ = format.formatFlags & AudioStreamFormat::kFlagIsBigEndian;
    }

    bool start() {
        PulseConnection::Lock lock(conn_);
        if (!conn_->ready()) return false;
        t0_ = HostClock::now();
        subscriber_ = conn_->addSubscriber(
            [this](pa_subscription_event_type_t t, uint32_t idx) { onSinkInputEvent(t, idx); });
        // While the server is away the ring mixes nothing: the tick hands
        // over silence. Once it is back, the process's streams are looked
        // up again on the new context.
        listener_ = conn_->addStateListener([this](bool ready) {
            for (auto& op : operations_) pa_operation_cancel(op.get());
            operations_.clear();
            lookups_.clear();
            streams_.clear();
            if (ready)
                track(pa_context_get_sink_input_info_list(conn_->context(),
                                                          &PulseProcessTap::onSinkInput, this));
        });
        track(pa_context_get_sink_input_info_list(conn_->context(), &PulseProcessTap::onSinkInput,
                                                  this));
        timer_ = pulse::TimeEvent(
            pa_context_rttime_new(conn_->context(), pa_rtclock_now() + kTickUsec,
                                  &PulseProcessTap::onTick, this),
            pulse::TimeEventDeleter(pa_threaded_mainloop_get_api(conn_->mainloop())));
        return timer_ != nullptr;
    }

    // Releases every libpulse object of the tap under the loop's lock, so no
    // callback runs with a half-destroyed tap.
    ~PulseProcessTap() override {
        PulseConnection::Lock lock(conn_);
        timer_.reset();
        if (subscriber_) conn_->removeSubscriber(subscriber_);
        if (listener_) conn_->removeStateListener(listener_);
        for (auto& op : operations_) pa_operation_cancel(op.get());
        operations_.clear();
        streams_.clear();
    }

  private:
    static constexpr pa_usec_t kTickUsec = 40000;

    struct Tapped {
        std::unique_ptr<RecordStream> stream;
        uint32_t sink = PA_INVALID_INDEX;
        bool anchored = false;
        int64_t nextFrame = 0;
    };
    struct SinkLookup {
        PulseProcessTap* tap;
        uint32_t sinkInput;
    };

    // Keeps a running operation until it is done, so that the destructor
    // can cancel its callback. A null operation (the request could not be
    // sent) is dropped: the lookup is lost, not the tap.
    void track(pa_operation* op) {
        std::erase_if(operations_, [](const pulse::Operation& o) {
            return pa_operation_get_state(o.get()) != PA_OPERATION_RUNNING;
        });
        if (op) operations_.emplace_back(op);
    }

    void onSinkInputEvent(pa_subscription_event_type_t t, uint32_t idx) {
        if ((t & PA_SUBSCRIPTION_EVENT_FACILITY_MASK) != PA_SUBSCRIPTION_EVENT_SINK_INPUT) return;
        auto type = t & PA_SUBSCRIPTION_EVENT_TYPE_MASK;
        if (type == PA_SUBSCRIPTION_EVENT_REMOVE) {
            streams_.erase(idx);
            return;
        }
        // New or changed (for instance moved to another sink): look again.
        track(pa_context_get_sink_input_info(conn_->context(), idx, &PulseProcessTap::onSinkInput,
                                             this));
    }

    static void onSinkInput(pa_context*, const pa_sink_input_info* info, int eol, void* u) {
        auto* self = static_cast<PulseProcessTap*>(u);
        if (eol || !info) return;
        if (self->pid_ != kAudioTapEveryProcess) {
            const char* pidText = pa_proplist_gets(info->proplist, PA_PROP_APPLICATION_PROCESS_ID);
            if (!pidText) return;
            char* end = nullptr;
            long pid = std::strtol(pidText, &end, 10);
            if (end == pidText || *end != '\0' || pid != self->pid_) return;
        } else if (const char* name = pa_proplist_gets(info->proplist, PA_PROP_APPLICATION_NAME);
                   name && std::string_view(name).starts_with("sorveld")) {
            return;  // the service's own streams, if it ever plays any
        }
        auto it = self->streams_.find(info->index);
        if (it != self->streams_.end() && it->second.sink == info->sink &&
            !it->second.stream->ended())
            return;
        // Monitor streams record from the monitor source of the input's sink.
        auto lookup = std::make_unique<SinkLookup>(SinkLookup{self, info->index});
        self->track(pa_context_get_sink_info_by_index(self->conn_->context(), info->sink,
                                                      &PulseProcessTap::onSink, lookup.get()));
        self->lookups_.push_back(std::move(lookup));
    }

    static void onSink(pa_context*, const pa_sink_info* info, int eol, void* u) {
        auto* lookup = static_cast<SinkLookup*>(u);
        PulseProcessTap* self = lookup->tap;
        if (eol || !info) {
            if (eol) std::erase_if(self->lookups_, [lookup](auto& l) { return l.get() == lookup; });
            return;
        }
        self->attach(lookup->sinkInput, info->index, info->monitor_source);
    }

    void attach(uint32_t sinkInput, uint32_t sink, uint32_t monitorSource) {
        Tapped t;
        t.sink = sink;
        t.stream = std::make_unique<RecordStream>(
            conn_.get(), spec_, RecordStream::Timing::Arrival,
            [this, sinkInput](const uint8_t* bytes, size_t length, uint64_t hostTime) {
                mix(sinkInput, bytes, length, hostTime);
            },
            nullptr);
        std::string device = std::to_string(monitorSource);
        // Tap buffers last about 0.65 s: larger fragments save wake-ups.
        if (!t.stream->connect("sorveld application audio", device.c_str(), sinkInput, kTickUsec)) {
            log::error("AudioTapQueue: cannot monitor stream %u of process %i: %@", sinkInput, pid_,
                       pa_strerror(pa_context_errno(conn_->context())));
            return;
        }
        log::debug("AudioTapQueue: recording stream %u of process %i", sinkInput, pid_);
        streams_[sinkInput] = std::move(t);
    }

    int64_t frameAt(uint64_t hostTime) const {
        return std::llround((double(int64_t(hostTime - t0_))) * double(spec_.rate) / 1e9);
    }

    void mix(uint32_t sinkInput, const uint8_t* bytes, size_t length, uint64_t hostTime) {
        auto it = streams_.find(sinkInput);
        if (it == streams_.end()) return;
        Tapped& t = it->second;
        const int64_t measured = frameAt(hostTime);
        if (!t.anchored || std::llabs(measured - t.nextFrame) > 2) {
            t.anchored = true;
            t.nextFrame = measured;
        }
        const size_t frames = length / (2 * channels_);
        const auto* samples = reinterpret_cast<const int16_t*>(bytes);
        for (size_t i = 0; i < frames; ++i) {
            int64_t f = t.nextFrame + int64_t(i);
            if (f < int64_t(emitFrame_) || f >= int64_t(emitFrame_ + capacityFrames_)) continue;
            int32_t* slot = &ring_[(uint64_t(f) % capacityFrames_) * channels_];
            for (uint32_t c = 0; c < channels_; ++c) {
                int16_t v;
                std::memcpy(&v, samples + i * channels_ + c, 2);
                slot[c] += v;
            }
        }
        t.nextFrame += int64_t(frames);
        // Mix far enough behind real time for the latest stream to land in
        // place: its newest frame's age plus a margin, within the ring.
        const int64_t lag = frameAt(HostClock::now()) - t.nextFrame;
        const int64_t wanted = lag + int64_t(spec_.rate) * 40 / 1000;
        const int64_t limit = int64_t(capacityFrames_) / 2;
        if (wanted > int64_t(delayFrames_)) {
            delayFrames_ = uint64_t(std::min(wanted, limit));
            log::debug("AudioTapQueue: mixing %li ms behind for process %i",
                       long(int64_t(delayFrames_) * 1000 / int64_t(spec_.rate)), pid_);
        }
    }

    static void onTick(pa_mainloop_api*, pa_time_event* e, const struct timeval*, void* u) {
        auto* self = static_cast<PulseProcessTap*>(u);
        self->emit();
        std::erase_if(self->streams_, [](auto& kv) { return kv.second.stream->ended(); });
        pa_context_rttime_restart(self->conn_->context(), e, pa_rtclock_now() + kTickUsec);
    }

    // Hands everything older than the mixing delay to the sink.
    void emit() {
        const int64_t target = frameAt(HostClock::now()) - int64_t(delayFrames_);
        if (target <= int64_t(emitFrame_)) return;
        uint64_t remaining = uint64_t(target) - emitFrame_;
        while (remaining) {
            uint64_t n = std::min<uint64_t>(remaining, capacityFrames_);
            out_.resize(n * channels_ * 2);
            uint8_t* p = out_.data();
            for (uint64_t i = 0; i < n; ++i) {
                int32_t* slot = &ring_[((emitFrame_ + i) % capacityFrames_) * channels_];
                for (uint32_t c = 0; c < channels_; ++c) {
                    auto s = uint16_t(int16_t(std::clamp(slot[c], -32768, 32767)));
                    slot[c] = 0;
                    p[0] = uint8_t(bigEndian_ ? s >> 8 : s);
                    p[1] = uint8_t(bigEndian_ ? s : s >> 8);
                    p += 2;
                }
            }
            sink_(out_, t0_ + HostClock::ticksForFrames(emitFrame_, spec_.rate));
            emitFrame_ += n;
            remaining -= n;
        }
    }

    std::shared_ptr<PulseConnection> conn_;
    int32_t pid_;
    AudioStreamFormat format_;
    AudioChunkSink sink_;
    AudioSourceFailure onFailure_;
    pa_sample_spec spec_{};
    uint32_t channels_ = 1;
    bool bigEndian_ = false;
    uint64_t t0_ = 0;
    uint64_t emitFrame_ = 0;
    uint64_t capacityFrames_ = 0;
    uint64_t delayFrames_ = 0;
    std::vector<int32_t> ring_;
    std::vector<uint8_t> out_;
    std::map<uint32_t, Tapped> streams_;
    std::vector<pulse::Operation> operations_;
    std::vector<std::unique_ptr<SinkLookup>> lookups_;
    pulse::TimeEvent timer_;
    uint64_t subscriber_ = 0;
    uint64_t listener_ = 0;
};

}  // namespace

PulseAudioBackend::PulseAudioBackend(std::string server) : server_(std::move(server)) {}
PulseAudioBackend::~PulseAudioBackend() = default;

bool PulseAudioBackend::serverAnswers(const std::string& server,
                                      std::chrono::milliseconds timeout) {
    return PulseConnection::open(server, timeout) != nullptr;
}

std::shared_ptr<PulseConnection> PulseAudioBackend::connection(int32_t* status) {
    std::shared_ptr<PulseConnection> conn;
    {
        std::lock_guard lock(mutex_);
        if (!connection_) {
            // Told on the loop's thread; the relay outlives the backend.
            connection_ = PulseConnection::open(
                server_, std::chrono::milliseconds(2000),
                [relay = serverState_](bool available) { relay->tell(available); });
        }
        conn = connection_;
    }
    // A connection that lost its server reconnects by itself; until then
    // nothing can be opened on it.
    bool ready = false;
    if (conn) {
        PulseConnection::Lock l(conn);
        ready = conn->ready();
    }
    if (!ready) {
        if (status) *status = kAudioServerUnavailableError;
        return nullptr;
    }
    if (status) *status = kAudioNoError;
    return conn;
}

void PulseAudioBackend::setServerStateHandler(AudioServerStateHandler handler) {
    std::lock_guard lock(serverState_->mutex);
    serverState_->handler = std::move(handler);
}

std::shared_ptr<CaptureDevice> PulseAudioBackend::defaultAudioDevice() {
    auto conn = connection(nullptr);
    if (!conn) return nullptr;
    // The server's default source at the time of recording, whatever it is then.
    auto d = std::make_shared<CaptureDevice>();
    d->uniqueID = "";
    d->localizedName = "Default Source";
    return d;
}

std::unique_ptr<AudioSource> PulseAudioBackend::openDevice(const CaptureDevice& device,
                                                           const AudioStreamFormat& format,
                                                           AudioChunkSink sink,
                                                           AudioSourceFailure onFailure,
                                                           int32_t* status) {
    int32_t st = kAudioNoError;
    pa_sample_spec sampleSpec{};
    auto conn = connection(&st);
    std::unique_ptr<AudioSource> result;
    if (conn && (!sink || !sampleSpecFor(format, &sampleSpec))) st = kAudioUnsupportedFormatError;
    if (conn && st == kAudioNoError) {
        auto source =
            std::make_unique<PulseDeviceSource>(conn, std::move(sink), std::move(onFailure));
        if (source->open(device.uniqueID, sampleSpec))
            result = std::move(source);
        else
            st = kAudioNoDeviceError;
    }
    if (status) *status = st;
    return result;
}

std::unique_ptr<AudioSource> PulseAudioBackend::openProcessTap(int32_t pid,
                                                               const AudioStreamFormat& format,
                                                               AudioChunkSink sink,
                                                               AudioSourceFailure onFailure,
                                                               int32_t* status) {
    int32_t st = kAudioNoError;
    pa_sample_spec sampleSpec{};
    auto conn = connection(&st);
    std::unique_ptr<AudioSource> result;
    if (conn && (!sink || !sampleSpecFor(format, &sampleSpec) || format.bitsPerChannel != 16))
        st = kAudioUnsupportedFormatError;
    else if (conn && pid <= 0)
        st = kAudioNoProcessError;
    if (conn && st == kAudioNoError) {
        auto tap = std::make_unique<PulseProcessTap>(conn, pid, format, std::move(sink),
                                                     std::move(onFailure));
        if (tap->start())
            result = std::move(tap);
        else
            st = kAudioServerUnavailableError;
    }
    if (status) *status = st;
    return result;
}

}  // namespace sv
