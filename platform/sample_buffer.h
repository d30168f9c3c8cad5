// A timed media sample: one video frame whose pixels live in a SharedSurface,
// or a run of audio samples in a data block with its format. Samples are
// shared through std::shared_ptr; a copy with new timing shares the media
// (the pixels or the data block) instead of copying it.
//
// Thread-safety: timing and format are immutable after creation. The data
// block's bytes may be changed in place (fillBytes) only by the holder that
// is about to hand the sample on; everyone else reads.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "platform/audio_format.h"
#include "platform/media_time.h"
#include "platform/shared_surface.h"

namespace sv {

// duration, presentation time, decode time: 72 bytes as a record.
struct SampleTimingInfo {
    MediaTime duration;
    MediaTime presentationTimeStamp;
    MediaTime decodeTimeStamp;
};
static_assert(sizeof(SampleTimingInfo) == 72, "SampleTimingInfo is a 72-byte record");

// A contiguous block of media bytes, shared by the samples made from it.
class DataBlock {
  public:
    explicit DataBlock(size_t length) : bytes_(length, 0) {}
    explicit DataBlock(std::vector<uint8_t>&& bytes) : bytes_(std::move(bytes)) {}
    static std::shared_ptr<DataBlock> copyOf(const void* bytes, size_t length);

    size_t size() const { return bytes_.size(); }
    uint8_t* data() { return bytes_.data(); }
    const uint8_t* data() const { return bytes_.data(); }
    std::span<const uint8_t> bytes() const { return bytes_; }
    // Fills [offset, offset+length) with `value`; false when out of range.
    bool fill(size_t offset, size_t length, uint8_t value);

  private:
    std::vector<uint8_t> bytes_;
};

class SampleBuffer {
  public:
    enum class MediaType { Video, Audio };

    // A video frame. `timing` holds one or more entries.
    static std::shared_ptr<SampleBuffer> makeVideo(std::shared_ptr<SharedSurface> image,
                                                   std::vector<SampleTimingInfo> timing);
    static std::shared_ptr<SampleBuffer> makeVideo(std::shared_ptr<SharedSurface> image,
                                                   MediaTime presentationTime,
                                                   MediaTime duration = MediaTime::invalid());
    // Audio from a block, a format, a sample count and a presentation time:
    // one timing entry whose duration is numSamples * framesPerPacket /
    // sampleRate. Null when the format is unusable or the block is smaller
    // than the samples need.
    static std::shared_ptr<SampleBuffer> makeAudio(
        std::shared_ptr<DataBlock> block, const AudioStreamFormat& format, int64_t numSamples,
        MediaTime presentationTime, std::vector<AudioStreamPacketDescription> packets = {});
    // Audio with explicit timing entries (and optional per-sample sizes).
    static std::shared_ptr<SampleBuffer> makeAudio(std::shared_ptr<DataBlock> block,
                                                   const AudioStreamFormat& format,
                                                   int64_t numSamples,
                                                   std::vector<SampleTimingInfo> timing,
                                                   std::vector<size_t> sampleSizes = {});
    // Audio from bytes (copied once into a new block), a format and timing.
    static std::shared_ptr<SampleBuffer> makeAudioFromBytes(std::span<const uint8_t> bytes,
                                                            const AudioStreamFormat& format,
                                                            const SampleTimingInfo& timing);

    MediaType mediaType() const { return type_; }
    bool isVideo() const { return type_ == MediaType::Video; }
    bool isAudio() const { return type_ == MediaType::Audio; }

    // Of the first timing entry; invalid when there is none.
    MediaTime presentationTime() const;
    MediaTime decodeTime() const;
    // Sum of the entries' durations; invalid when any is invalid.
    MediaTime duration() const;
    const std::vector<SampleTimingInfo>& timingEntries() const { return timing_; }
    std::optional<SampleTimingInfo> timingEntry(size_t index) const;

    // A new sample with `timing` in place of this one's, sharing the media.
    // Null when `timing` is empty.
    std::shared_ptr<SampleBuffer> copyWithTiming(std::vector<SampleTimingInfo> timing) const;

    // Video.
    const std::shared_ptr<SharedSurface>& imageBuffer() const { return image_; }

    // Audio.
    const std::shared_ptr<DataBlock>& dataBlock() const { return block_; }
    const AudioStreamFormat& audioFormat() const { return format_; }
    int64_t numSamples() const { return numSamples_; }
    const std::vector<AudioStreamPacketDescription>& packetDescriptions() const { return packets_; }
    const std::vector<size_t>& sampleSizes() const { return sampleSizes_; }
    // Fills bytes of the data block in place; false without a block or out of range.
    bool fillBytes(size_t offset, size_t length, uint8_t value);
    size_t dataLength() const { return block_ ? block_->size() : 0; }

    std::string description() const;

  private:
    SampleBuffer() = default;

    MediaType type_ = MediaType::Video;
    std::vector<SampleTimingInfo> timing_;
    std::shared_ptr<SharedSurface> image_;
    std::shared_ptr<DataBlock> block_;
    AudioStreamFormat format_{};
    int64_t numSamples_ = 0;
    std::vector<AudioStreamPacketDescription> packets_;
    std::vector<size_t> sampleSizes_;
};

}  // namespace sv
