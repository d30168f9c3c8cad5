#include "platform/audio/audio_tap_queue.h"

#include <algorithm>
#include <condition_variable>
#include <cstring>
#include <deque>
#include <map>
#include <mutex>
#include <thread>
#include <vector>

#include <pthread.h>

#include "platform/host_clock.h"
#include "platform/log.h"

namespace sv {

namespace {

struct Buf {
    enum class State { Client, Enqueued, Pending, InCallback };
    std::unique_ptr<uint8_t[]> bytes;
    AudioTapQueueBuffer pub;
    State state = State::Client;
    uint64_t hostTime = 0;  // of the first frame, once filling began
    double sampleTime = 0;  // frames since start of the first frame
    explicit Buf(uint32_t size) : bytes(new uint8_t[size]()), pub(size, bytes.get()) {}
};

struct Event {
    enum class Kind { Buffer, Running } kind;
    Buf* buf = nullptr;
    bool running = false;
    uint64_t epoch = 0;
};

bool supportedFormat(const AudioStreamFormat& f) {
    return f.formatID == AudioStreamFormat::kFormatLinearPCM && f.bitsPerChannel == 16 &&
           (f.formatFlags & AudioStreamFormat::kFlagIsSignedInteger) &&
           !(f.formatFlags & AudioStreamFormat::kFlagIsFloat) &&
           !(f.formatFlags & AudioStreamFormat::kFlagIsNonInterleaved) &&
           (f.channelsPerFrame == 1 || f.channelsPerFrame == 2) && f.framesPerPacket == 1 &&
           f.bytesPerFrame == 2 * f.channelsPerFrame && f.bytesPerPacket == f.bytesPerFrame &&
           f.sampleRate >= 8000 && f.sampleRate <= 192000;
}

}  // namespace

struct AudioTapQueue::Core : std::enable_shared_from_this<Core> {
    std::shared_ptr<AudioBackend> backend;
    AudioStreamFormat format;
    InputCallback callback;

    mutable std::mutex mutex;
    std::condition_variable cv;
    int32_t pid = 0;
    bool pidSet = false;
    std::vector<std::unique_ptr<Buf>> buffers;
    std::deque<Buf*> enqueued;
    std::deque<Event> events;
    std::map<ListenerToken, RunningListener> listeners;
    ListenerToken nextToken = 1;
    bool running = false;
    bool disposed = false;
    bool threadExit = false;
    bool inCall = false;
    uint64_t epoch = 0;
    uint64_t framesRecorded = 0;
    uint64_t droppedFrames = 0;
    std::unique_ptr<AudioSource> source;
    std::thread thread;
    std::thread::id threadId;

    Buf* find(const AudioTapQueueBuffer* b) {
        for (auto& p : buffers)
            if (&p->pub == b) return p.get();
        return nullptr;
    }
    bool onOwnThread() const { return std::this_thread::get_id() == threadId; }

    void run() {
        pthread_setname_np(pthread_self(), "sv-audio-tap");
        std::unique_lock lock(mutex);
        for (;;) {
            cv.wait(lock, [&] { return threadExit || !events.empty(); });
            if (threadExit) return;
            Event ev = events.front();
            events.pop_front();
            if (ev.kind == Event::Kind::Buffer) {
                if (ev.epoch != epoch || !find(&ev.buf->pub)) continue;
                Buf* b = ev.buf;
                b->state = Buf::State::InCallback;
                AudioTimeStamp ts{b->sampleTime, b->hostTime};
                uint32_t packets = b->pub.audioDataByteSize / format.bytesPerPacket;
                inCall = true;
                lock.unlock();
                if (callback) callback(&b->pub, ts, packets, nullptr);
                lock.lock();
                inCall = false;
                // The callback may have freed the buffer.
                if (Buf* still = find(&b->pub); still && still->state == Buf::State::InCallback)
                    still->state = Buf::State::Client;
            } else {
                std::vector<ListenerToken> tokens;
                for (auto& [t, l] : listeners) tokens.push_back(t);
                inCall = true;
                for (ListenerToken t : tokens) {
                    auto it = listeners.find(t);
                    if (it == listeners.end()) continue;
                    RunningListener l = it->second;
                    lock.unlock();
                    l(ev.running);
                    lock.lock();
                }
                inCall = false;
            }
            cv.notify_all();
        }
    }

    // Sink of the backend source: one backend thread at a time.
    void push(std::span<const uint8_t> bytes, uint64_t hostTime) {
        std::lock_guard lock(mutex);
        if (!running) return;
        const uint32_t bpf = format.bytesPerFrame;
        size_t offset = 0;
        while (offset < bytes.size()) {
            if (enqueued.empty()) {
                droppedFrames += (bytes.size() - offset) / bpf;
                break;
            }
            Buf* head = enqueued.front();
            uint32_t usable =
                head->pub.audioDataBytesCapacity - head->pub.audioDataBytesCapacity % bpf;
            if (head->pub.audioDataByteSize == 0) {
                uint64_t frameOffset = offset / bpf;
                head->hostTime =
                    hostTime + HostClock::ticksForFrames(frameOffset, format.sampleRate);
                head->sampleTime = double(framesRecorded + frameOffset);
            }
            size_t n =
                std::min<size_t>(usable - head->pub.audioDataByteSize, bytes.size() - offset);
            std::memcpy(static_cast<uint8_t*>(head->pub.audioData) + head->pub.audioDataByteSize,
                        bytes.data() + offset, n);
            head->pub.audioDataByteSize += uint32_t(n);
            offset += n;
            if (head->pub.audioDataByteSize == usable) {
                enqueued.pop_front();
                head->state = Buf::State::Pending;
                events.push_back({Event::Kind::Buffer, head, false, epoch});
                cv.notify_all();
            }
        }
        framesRecorded += bytes.size() / bpf;
    }

    void failed(int32_t status) {
        log::error("AudioTapQueue: recording of process %i ended: %i", pid, status);
        std::lock_guard lock(mutex);
        if (!running) return;
        running = false;
        events.push_back({Event::Kind::Running, nullptr, false, epoch});
        cv.notify_all();
    }

    void waitIdle(std::unique_lock<std::mutex>& lock) {
        if (onOwnThread()) return;
        cv.wait(lock, [&] { return threadExit || (events.empty() && !inCall); });
    }
};

int32_t AudioTapQueue::create(std::shared_ptr<AudioBackend> backend,
                              const AudioStreamFormat& format, InputCallback callback,
                              uint32_t flags, std::shared_ptr<AudioTapQueue>* outQueue) {
    if (!outQueue) return kAudioParamError;
    *outQueue = nullptr;
    if (!backend || !callback || flags != 0) return kAudioParamError;
    if (!supportedFormat(format)) return kAudioUnsupportedFormatError;
    auto core = std::make_shared<Core>();
    core->backend = std::move(backend);
    core->format = format;
    core->callback = std::move(callback);
    // The thread holds the core so that a dispose from the queue's own
    // thread can detach it safely.
    core->thread = std::thread([core] { core->run(); });
    core->threadId = core->thread.get_id();
    outQueue->reset(new AudioTapQueue(std::move(core)));
    return kAudioNoError;
}

AudioTapQueue::~AudioTapQueue() {
    dispose(true);
}

int32_t AudioTapQueue::setProcessID(int32_t pid) {
    std::lock_guard lock(core_->mutex);
    if (core_->disposed) return kAudioDisposedError;
    if (pid <= 0) return kAudioParamError;
    if (core_->running) return kAudioParamError;
    core_->pid = pid;
    core_->pidSet = true;
    return kAudioNoError;
}

int32_t AudioTapQueue::getStreamFormat(AudioStreamFormat* outFormat) const {
    if (!outFormat) return kAudioParamError;
    std::lock_guard lock(core_->mutex);
    if (core_->disposed) return kAudioDisposedError;
    *outFormat = core_->format;
    return kAudioNoError;
}

int32_t AudioTapQueue::getMaximumPacketSize(uint32_t* outSize) const {
    if (!outSize) return kAudioParamError;
    std::lock_guard lock(core_->mutex);
    if (core_->disposed) return kAudioDisposedError;
    *outSize = core_->format.bytesPerPacket;
    return kAudioNoError;
}

int32_t AudioTapQueue::getIsRunning(bool* outRunning) const {
    if (!outRunning) return kAudioParamError;
    std::lock_guard lock(core_->mutex);
    if (core_->disposed) return kAudioDisposedError;
    *outRunning = core_->running;
    return kAudioNoError;
}

int32_t AudioTapQueue::addRunningListener(RunningListener listener, ListenerToken* outToken) {
    if (!listener || !outToken) return kAudioParamError;
    std::lock_guard lock(core_->mutex);
    if (core_->disposed) return kAudioDisposedError;
    *outToken = core_->nextToken++;
    core_->listeners.emplace(*outToken, std::move(listener));
    return kAudioNoError;
}

int32_t AudioTapQueue::removeRunningListener(ListenerToken token) {
    std::lock_guard lock(core_->mutex);
    if (core_->disposed) return kAudioDisposedError;
    return core_->listeners.erase(token) ? kAudioNoError : kAudioParamError;
}

int32_t AudioTapQueue::allocateBuffer(uint32_t byteSize, AudioTapQueueBuffer** outBuffer) {
    if (!outBuffer) return kAudioParamError;
    *outBuffer = nullptr;
    std::lock_guard lock(core_->mutex);
    if (core_->disposed) return kAudioDisposedError;
    if (byteSize < core_->format.bytesPerFrame || byteSize > kAudioTapQueueMaxBufferBytes)
        return kAudioParamError;
    core_->buffers.push_back(std::make_unique<Buf>(byteSize));
    *outBuffer = &core_->buffers.back()->pub;
    return kAudioNoError;
}

int32_t AudioTapQueue::enqueueBuffer(AudioTapQueueBuffer* buffer) {
    std::lock_guard lock(core_->mutex);
    if (core_->disposed) return kAudioDisposedError;
    Buf* b = core_->find(buffer);
    if (!b) return kAudioInvalidBufferError;
    if (b->state == Buf::State::Enqueued || b->state == Buf::State::Pending)
        return kAudioBufferInUseError;
    b->state = Buf::State::Enqueued;
    b->pub.audioDataByteSize = 0;
    core_->enqueued.push_back(b);
    return kAudioNoError;
}

int32_t AudioTapQueue::freeBuffer(AudioTapQueueBuffer* buffer) {
    std::lock_guard lock(core_->mutex);
    if (core_->disposed) return kAudioDisposedError;
    Buf* b = core_->find(buffer);
    if (!b) return kAudioInvalidBufferError;
    if (b->state == Buf::State::Pending ||
        (b->state == Buf::State::InCallback && !core_->onOwnThread()))
        return kAudioBufferInUseError;
    std::erase(core_->enqueued, b);
    std::erase_if(core_->buffers, [b](auto& p) { return p.get() == b; });
    return kAudioNoError;
}

int32_t AudioTapQueue::start() {
    int32_t pid;
    {
        std::lock_guard lock(core_->mutex);
        if (core_->disposed) return kAudioDisposedError;
        if (core_->running || core_->source) return kAudioNoError;
        if (!core_->pidSet) return kAudioNoProcessError;
        pid = core_->pid;
    }
    Core* core = core_.get();
    int32_t status = kAudioNoError;
    // The source is destroyed before the core (stop, dispose), so the raw
    // pointer in its closures stays valid for every call.
    auto source = core_->backend->openProcessTap(
        pid, core_->format,
        [core](std::span<const uint8_t> bytes, uint64_t hostTime) { core->push(bytes, hostTime); },
        [core](int32_t failure) { core->failed(failure); }, &status);
    if (!source) return status != kAudioNoError ? status : kAudioStartFailedError;
    std::lock_guard lock(core_->mutex);
    core_->source = std::move(source);
    core_->running = true;
    core_->framesRecorded = 0;
    core_->events.push_back({Event::Kind::Running, nullptr, true, core_->epoch});
    core_->cv.notify_all();
    return kAudioNoError;
}

int32_t AudioTapQueue::stop(bool) {
    std::unique_ptr<AudioSource> source;
    {
        std::lock_guard lock(core_->mutex);
        if (core_->disposed) return kAudioDisposedError;
        if (!core_->source) return kAudioNoError;
        if (int32_t status = core_->source->stop(); status != kAudioNoError) return status;
        source = std::move(core_->source);
        bool wasRunning = core_->running;
        core_->running = false;
        ++core_->epoch;
        // Buffers filled but not yet handed over, and the partly filled head,
        // return to the queue empty, in their order.
        std::vector<Buf*> pending;
        for (auto& e : core_->events)
            if (e.kind == Event::Kind::Buffer && e.buf->state == Buf::State::Pending)
                pending.push_back(e.buf);
        std::erase_if(core_->events, [](auto& e) { return e.kind == Event::Kind::Buffer; });
        for (auto it = pending.rbegin(); it != pending.rend(); ++it) {
            (*it)->state = Buf::State::Enqueued;
            core_->enqueued.push_front(*it);
        }
        for (Buf* b : core_->enqueued) b->pub.audioDataByteSize = 0;
        if (wasRunning) {
            core_->events.push_back({Event::Kind::Running, nullptr, false, core_->epoch});
            core_->cv.notify_all();
        }
    }
    // Outside the lock: the source's sink takes it while it runs.
    source.reset();
    std::unique_lock lock(core_->mutex);
    core_->waitIdle(lock);
    return kAudioNoError;
}

int32_t AudioTapQueue::dispose(bool immediate) {
    {
        std::lock_guard lock(core_->mutex);
        if (core_->disposed) return kAudioDisposedError;
    }
    if (stop(immediate) != kAudioNoError) {
        // The server refused to stop; tear the recording down regardless.
        std::unique_ptr<AudioSource> source;
        {
            std::lock_guard lock(core_->mutex);
            source = std::move(core_->source);
            core_->running = false;
        }
        source.reset();
    }
    std::thread thread;
    {
        std::unique_lock lock(core_->mutex);
        core_->waitIdle(lock);
        core_->disposed = true;
        core_->threadExit = true;
        core_->events.clear();
        core_->enqueued.clear();
        core_->buffers.clear();
        core_->listeners.clear();
        core_->cv.notify_all();
        thread = std::move(core_->thread);
    }
    if (thread.joinable()) {
        if (thread.get_id() == std::this_thread::get_id())
            thread.detach();
        else
            thread.join();
    }
    return kAudioNoError;
}

}  // namespace sv
