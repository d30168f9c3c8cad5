#include "platform/audio/capture_session.h"

#include <algorithm>
#include <cstring>

#include "platform/host_clock.h"
#include "platform/log.h"

namespace sv {

std::shared_ptr<CaptureDevice> defaultCaptureDeviceForAudio(
    const std::shared_ptr<AudioBackend>& backend) {
    return backend ? backend->defaultAudioDevice() : nullptr;
}

std::shared_ptr<CaptureDeviceInput> CaptureDeviceInput::make(
    std::shared_ptr<CaptureDevice> device) {
    if (!device || !device->hasMediaTypeAudio) return nullptr;
    return std::make_shared<CaptureDeviceInput>(std::move(device));
}

void CaptureOutput::setSampleBufferDelegate(
    std::weak_ptr<CaptureDataOutputSampleBufferDelegate> delegate,
    std::shared_ptr<DispatchQueue> queue) {
    std::lock_guard lock(mutex_);
    delegate_ = std::move(delegate);
    queue_ = std::move(queue);
}

void CaptureOutput::deliver(std::shared_ptr<SampleBuffer> sample,
                            std::shared_ptr<CaptureConnection> connection) {
    std::shared_ptr<DispatchQueue> queue;
    {
        std::lock_guard lock(mutex_);
        queue = queue_;
    }
    if (!queue) return;
    std::weak_ptr<CaptureOutput> weakSelf = weak_from_this();
    queue->async([weakSelf, sample = std::move(sample), connection = std::move(connection)] {
        auto self = weakSelf.lock();
        if (!self) return;
        std::shared_ptr<CaptureDataOutputSampleBufferDelegate> delegate;
        {
            std::lock_guard lock(self->mutex_);
            delegate = self->delegate_.lock();
        }
        if (delegate) delegate->captureOutputDidOutputSampleBuffer(self, sample, connection);
    });
}

// One open device recording. The accumulator is touched only by the
// backend's sink thread.
struct CaptureSession::DeviceStream {
    std::shared_ptr<CaptureDeviceInput> input;
    std::vector<uint8_t> pending;
    uint64_t pendingHostTime = 0;
    // Last, so that it is destroyed (and its sink silenced) first.
    std::unique_ptr<AudioSource> source;
};

std::shared_ptr<CaptureSession> CaptureSession::make(std::shared_ptr<AudioBackend> backend) {
    return std::make_shared<CaptureSession>(std::move(backend));
}

CaptureSession::CaptureSession(std::shared_ptr<AudioBackend> backend)
    : backend_(std::move(backend)) {}

CaptureSession::~CaptureSession() {
    closeStreams();
}

bool CaptureSession::canAddInput(const std::shared_ptr<CaptureInput>& input) const {
    auto deviceInput = std::dynamic_pointer_cast<CaptureDeviceInput>(input);
    if (!deviceInput || !deviceInput->device()) return false;
    std::lock_guard lock(mutex_);
    for (auto& i : inputs_) {
        if (i == input) return false;
        auto other = std::static_pointer_cast<CaptureDeviceInput>(i);
        if (other->device()->uniqueID == deviceInput->device()->uniqueID) return false;
    }
    return true;
}

void CaptureSession::addInput(const std::shared_ptr<CaptureInput>& input) {
    if (!canAddInput(input)) {
        log::error("CaptureSession: cannot add input %@", input ? "(input)" : "(null)");
        return;
    }
    {
        std::lock_guard lock(mutex_);
        inputs_.push_back(input);
    }
    if (running_) openStreams();
}

void CaptureSession::removeInput(const std::shared_ptr<CaptureInput>& input) {
    std::shared_ptr<DeviceStream> closing;
    {
        std::lock_guard lock(mutex_);
        std::erase(inputs_, input);
        for (auto it = streams_.begin(); it != streams_.end(); ++it) {
            if ((*it)->input == input) {
                closing = *it;
                streams_.erase(it);
                break;
            }
        }
    }
    // Outside the lock: the source's sink takes it.
    if (closing) closing->source.reset();
}

bool CaptureSession::canAddOutput(const std::shared_ptr<CaptureOutput>& output) const {
    if (!output || !output->isAudio()) return false;
    std::lock_guard lock(mutex_);
    return std::find(outputs_.begin(), outputs_.end(), output) == outputs_.end();
}

void CaptureSession::addOutput(const std::shared_ptr<CaptureOutput>& output) {
    if (!canAddOutput(output)) {
        log::error("CaptureSession: cannot add output");
        return;
    }
    std::lock_guard lock(mutex_);
    outputs_.push_back(output);
}

void CaptureSession::removeOutput(const std::shared_ptr<CaptureOutput>& output) {
    std::lock_guard lock(mutex_);
    std::erase(outputs_, output);
}

bool CaptureSession::openStreams() {
    // The backend is called without the session lock: its sinks take that
    // lock on the backend's thread while holding the backend's own.
    std::vector<std::shared_ptr<CaptureDeviceInput>> missing;
    {
        std::lock_guard lock(mutex_);
        for (auto& i : inputs_) {
            auto input = std::static_pointer_cast<CaptureDeviceInput>(i);
            if (std::none_of(streams_.begin(), streams_.end(),
                             [&](auto& s) { return s->input == input; }))
                missing.push_back(input);
        }
    }
    bool serverAnswered = missing.empty();
    for (auto& input : missing) {
        auto stream = std::make_shared<DeviceStream>();
        stream->input = input;
        std::weak_ptr<CaptureSession> weakSelf = weak_from_this();
        int32_t status = kAudioNoError;
        // The sink runs on a backend thread; `stream` outlives every call
        // because its source is destroyed (which ends the calls) before it.
        DeviceStream* raw = stream.get();
        stream->source = backend_->openDevice(
            *input->device(), AudioDataOutput::kFormat,
            [weakSelf, raw](std::span<const uint8_t> bytes, uint64_t hostTime) {
                if (auto self = weakSelf.lock()) self->accumulate(*raw, bytes, hostTime);
            },
            [weakSelf](int32_t failure) {
                log::error("CaptureSession: device recording ended: %i", failure);
                // Report off the backend thread: observers may call back into the session.
                DispatchQueue::global()->async([weakSelf] {
                    if (auto self = weakSelf.lock()) {
                        self->closeStreams();
                        self->setRunning(false);
                    }
                });
            },
            &status);
        if (status != kAudioServerUnavailableError) serverAnswered = true;
        if (!stream->source) {
            log::error("CaptureSession: cannot record %@: %i", input->device()->description(),
                       status);
            continue;
        }
        std::lock_guard lock(mutex_);
        streams_.push_back(std::move(stream));
    }
    return serverAnswered;
}

void CaptureSession::closeStreams() {
    std::vector<std::shared_ptr<DeviceStream>> streams;
    {
        std::lock_guard lock(mutex_);
        streams.swap(streams_);
    }
    for (auto& s : streams) s->source.reset();
}

// On the backend's thread: cut the recording into samples of
// kFramesPerSample frames, each stamped with its first frame's host time.
void CaptureSession::accumulate(DeviceStream& stream, std::span<const uint8_t> bytes,
                                uint64_t hostTime) {
    const auto& format = AudioDataOutput::kFormat;
    const size_t sampleBytes = AudioDataOutput::kFramesPerSample * format.bytesPerFrame;
    size_t offset = 0;
    while (offset < bytes.size()) {
        if (stream.pending.empty())
            stream.pendingHostTime =
                hostTime +
                HostClock::ticksForFrames(offset / format.bytesPerFrame, format.sampleRate);
        size_t n = std::min(sampleBytes - stream.pending.size(), bytes.size() - offset);
        stream.pending.insert(stream.pending.end(), bytes.begin() + long(offset),
                              bytes.begin() + long(offset + n));
        offset += n;
        if (stream.pending.size() == sampleBytes) {
            deliverChunk(stream.input, stream.pending, stream.pendingHostTime);
            stream.pending.clear();
        }
    }
}

void CaptureSession::deliverChunk(const std::shared_ptr<CaptureDeviceInput>& input,
                                  std::span<const uint8_t> bytes, uint64_t hostTime) {
    std::vector<std::shared_ptr<CaptureOutput>> outputs;
    {
        std::lock_guard lock(mutex_);
        outputs = outputs_;
    }
    if (outputs.empty()) return;
    const auto& format = AudioDataOutput::kFormat;
    auto sample = SampleBuffer::makeAudio(DataBlock::copyOf(bytes.data(), bytes.size()), format,
                                          int64_t(bytes.size() / format.bytesPerPacket),
                                          HostClock::toMediaTime(hostTime));
    if (!sample) return;
    for (auto& o : outputs)
        o->deliver(sample, std::make_shared<CaptureConnection>(CaptureConnection{input, o}));
}

void CaptureSession::setRunning(bool running) {
    bool was = running_.exchange(running);
    if (was != running) didChangeValueForKey(kRunningKey, Value(was), Value(running));
}

void CaptureSession::startRunning() {
    if (running_) return;
    if (!openStreams()) {
        log::error("CaptureSession: the audio server does not answer; not running");
        return;
    }
    setRunning(true);
}

void CaptureSession::stopRunning() {
    closeStreams();
    setRunning(false);
}

AudioSession& AudioSession::sharedInstance() {
    static AudioSession* session = new AudioSession;
    return *session;
}

Result<void> AudioSession::setCategory(AudioSessionCategory category, uint32_t options) {
    static const char* names[] = {"ambient", "playback", "record", "play-and-record"};
    {
        std::lock_guard lock(mutex_);
        category_ = category;
        options_ = options;
    }
    log::debug("AudioSession: category %@ options %u (no audio policy on this platform)",
               names[int(category)], options);
    return {};
}

AudioSessionCategory AudioSession::category() const {
    std::lock_guard lock(mutex_);
    return category_;
}

uint32_t AudioSession::categoryOptions() const {
    std::lock_guard lock(mutex_);
    return options_;
}

}  // namespace sv
