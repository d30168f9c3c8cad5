// Per-process audio tap queue: records the audio output of one process into
// buffers that the client allocates and enqueues. The queue fills the buffer
// at the head of its queue to its full byte size, stamps it with the host time
// of its first frame and hands it to the input callback; the client then
// enqueues it again (or frees it). With no buffer enqueued, audio is dropped.
//
// Every operation returns an AudioStatus (0 = success).
//
// Threads: the operations may be called from any thread. The input callback
// and the running listeners run on the queue's own thread, one call at a
// time and never concurrently with each other. When stop() or dispose()
// returns, no callback or listener is running or will start (unless called
// from the queue's own thread, where the current call finishes after it).
//
// Ownership: the queue owns its buffers; a buffer handed to the input
// callback belongs to the client until it enqueues or frees it. Destroying
// the last reference disposes of the queue.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>

#include "platform/audio/audio_backend.h"
#include "platform/audio_format.h"

namespace sv {

struct AudioTapQueueBuffer {
    const uint32_t audioDataBytesCapacity;
    void* const audioData;
    uint32_t audioDataByteSize = 0;  // valid bytes
    AudioTapQueueBuffer(uint32_t capacity, void* data)
        : audioDataBytesCapacity(capacity), audioData(data) {}
};

struct AudioTimeStamp {
    double sampleTime = 0;  // frames since the queue started
    uint64_t hostTime = 0;  // host clock ticks of the first frame
};

class AudioTapQueue {
  public:
    // buffer, start time of its first frame, number of packets in it (for
    // linear PCM: frames; no descriptions are passed for linear PCM), packet
    // descriptions (null for linear PCM). Whatever C code would pass as user
    // data, the closure carries.
    using InputCallback = std::function<void(
        AudioTapQueueBuffer* buffer, const AudioTimeStamp& startTime,
        uint32_t numberPacketDescriptions, const AudioStreamPacketDescription* packetDescriptions)>;
    using RunningListener = std::function<void(bool running)>;
    using ListenerToken = uint64_t;

    // An input queue for `format` (16-bit signed linear PCM, 1 or 2 channels,
    // 8000..192000 Hz) on `backend`. Flags are reserved, pass 0.
    static int32_t create(std::shared_ptr<AudioBackend> backend, const AudioStreamFormat& format,
                          InputCallback callback, uint32_t flags,
                          std::shared_ptr<AudioTapQueue>* outQueue);
    ~AudioTapQueue();
    AudioTapQueue(const AudioTapQueue&) = delete;
    AudioTapQueue& operator=(const AudioTapQueue&) = delete;

    // Binds the queue to the process whose output it records; before start().
    int32_t setProcessID(int32_t pid);
    int32_t getStreamFormat(AudioStreamFormat* outFormat) const;
    int32_t getMaximumPacketSize(uint32_t* outSize) const;
    int32_t getIsRunning(bool* outRunning) const;

    int32_t addRunningListener(RunningListener listener, ListenerToken* outToken);
    int32_t removeRunningListener(ListenerToken token);

    int32_t allocateBuffer(uint32_t byteSize, AudioTapQueueBuffer** outBuffer);
    int32_t enqueueBuffer(AudioTapQueueBuffer* buffer);
    // A buffer cannot be freed while the input callback holds it.
    int32_t freeBuffer(AudioTapQueueBuffer* buffer);

    // Starts recording now; the running listeners hear `true` once the
    // backend records.
    int32_t start();
    // Stops at once (a deferred stop, immediate = false, is not offered and
    // behaves the same): buffers being filled or waiting for the callback go
    // back to the enqueued state (with zero valid bytes); listeners hear
    // `false` before it returns. A non-zero status means the server refused
    // and the queue goes on recording.
    int32_t stop(bool immediate);
    // Stops and frees every buffer; every later call fails with kAudioDisposedError.
    int32_t dispose(bool immediate);

    struct Core;

  private:
    explicit AudioTapQueue(std::shared_ptr<Core> core) : core_(std::move(core)) {}
    std::shared_ptr<Core> core_;
};

// Largest buffer the queue accepts (bytes).
constexpr uint32_t kAudioTapQueueMaxBufferBytes = 16u << 20;

}  // namespace sv
