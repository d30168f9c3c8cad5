// The extension SDK: writing a broadcast processing extension for sorveld.
//
// A processing extension is a program in a bundle whose bundle.json declares
// the broadcast-services extension point with the attribute
// "SVBroadcastProcessMode": "SVBroadcastProcessModeSampleBuffer"
// (docs/extension-sdk.md). The service starts it when an application
// broadcasts and, over a live link, hands it the broadcast's actions (start,
// pause, resume, finish), every video frame as a read-only mapped image and
// every audio buffer with its format, each with its original times (the
// capture's clock: CLOCK_MONOTONIC in nanoseconds). The extension may send
// service information, a JSON object that the service passes on to the
// application.
//
//   class Measure : public sv::SVProcessingExtension {
//       void processVideoFrame(const sv::SVVideoFrame& frame) override {
//           ++frames;  // frame.pixels: frame.height rows of frame.bytesPerRow
//           if (frames % 60 == 0) sendServiceInfo(R"({"frames": )" + std::to_string(frames) + "}");
//       }
//       int frames = 0;
//   };
//   int main() { Measure m; return sv::SVRunProcessingExtension(m); }
//
// Threads: every callback runs on the SDK's link thread, one at a time, in
// the order the service sent them. Frames are not queued for an extension:
// while callbacks take longer than frames come, the service drops frames (it
// counts them). A frame's pixels and an audio buffer's bytes are valid only
// during the call; keep a copy to use them later. sendServiceInfo may be
// called from any thread. SVRunProcessingExtension blocks the calling thread
// until the service goes away.
//
// No dependency beyond the C++20 standard library in this header.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>

namespace sv {

// A rational time: value / timescale seconds; valid when bit 0 of flags is set.
struct SVMediaTime {
    int64_t value = 0;
    int32_t timescale = 0;
    uint32_t flags = 0;
    int64_t epoch = 0;
    bool isValid() const { return (flags & 1u) != 0 && timescale > 0; }
    double seconds() const { return isValid() ? double(value) / double(timescale) : 0.0; }
};

// A sample's timing as the capture gave it (pauses are not cut out).
struct SVSampleTiming {
    SVMediaTime duration;
    SVMediaTime presentationTime;
    SVMediaTime decodeTime;
};

enum class SVBroadcastAction : int32_t { Start = 1, Pause = 2, Resume = 3, Finish = 4 };

// One screen frame, mapped read-only from the service's own image (no copy).
struct SVVideoFrame {
    // Null when the frame came without an image (the service could not
    // share it, or it could not be mapped); the timing is still valid.
    const uint8_t* pixels = nullptr;
    int32_t width = 0;
    int32_t height = 0;
    uint32_t bytesPerRow = 0;
    // 'BGRA' (bytes B, G, R, A in memory) as a four-character code.
    uint32_t pixelFormat = 0;
    SVSampleTiming timing;
};

enum class SVAudioSource : int32_t { Application = 2, Microphone = 3 };

// Linear audio: the fields of the usual stream description.
struct SVAudioFormat {
    double sampleRate = 0;
    uint32_t formatID = 0;     // 'lpcm'
    uint32_t formatFlags = 0;  // 1 float, 2 big-endian, 4 signed integer, 8 packed
    uint32_t bytesPerPacket = 0;
    uint32_t framesPerPacket = 0;
    uint32_t bytesPerFrame = 0;
    uint32_t channelsPerFrame = 0;
    uint32_t bitsPerChannel = 0;
};

// One buffer of interleaved audio.
struct SVAudioBuffer {
    SVAudioSource source = SVAudioSource::Application;
    const uint8_t* data = nullptr;
    size_t size = 0;
    int32_t numSamples = 0;  // frames (one per channel set)
    SVAudioFormat format;
    SVSampleTiming timing;
};

struct SVProcessingLink;

class SVProcessingExtension {
  public:
    virtual ~SVProcessingExtension();
    // Start, pause, resume, finish, with the application's user info (a JSON
    // object, "{}" when it sent none). Finish is the last call of a
    // broadcast; the service ends the process afterwards.
    virtual void broadcastDidReceiveAction(SVBroadcastAction action,
                                           const std::string& userInfoJSON) {
        (void)action;
        (void)userInfoJSON;
    }
    virtual void processVideoFrame(const SVVideoFrame& frame) { (void)frame; }
    virtual void processAudioBuffer(const SVAudioBuffer& buffer) { (void)buffer; }
    // Once, when the service has gone away; the process should end soon.
    virtual void serviceDidGoAway() {}

    // Service information for the application, a JSON object. Any thread,
    // while SVRunProcessingExtension runs; false when the link is not up or
    // the text is no JSON object (nothing is sent then).
    bool sendServiceInfo(const std::string& json);

  private:
    friend int SVRunProcessingExtension(SVProcessingExtension& extension);
    std::shared_ptr<SVProcessingLink> link_;
};

// Connects to the service that started this process and calls `extension`
// until the service goes away. Returns 0 then, and 2 at once when this
// process was not started by the service as an extension.
int SVRunProcessingExtension(SVProcessingExtension& extension);

}  // namespace sv
