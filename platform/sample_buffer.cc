#include "platform/sample_buffer.h"

#include <cmath>
#include <cstring>
#include <limits>

namespace sv {

std::shared_ptr<DataBlock> DataBlock::copyOf(const void* bytes, size_t length) {
    auto b = std::make_shared<DataBlock>(length);
    if (length) std::memcpy(b->data(), bytes, length);
    return b;
}

bool DataBlock::fill(size_t offset, size_t length, uint8_t value) {
    if (offset > bytes_.size() || length > bytes_.size() - offset) return false;
    std::memset(bytes_.data() + offset, value, length);
    return true;
}

std::shared_ptr<SampleBuffer> SampleBuffer::makeVideo(std::shared_ptr<SharedSurface> image,
                                                      std::vector<SampleTimingInfo> timing) {
    if (!image || timing.empty()) return nullptr;
    std::shared_ptr<SampleBuffer> s(new SampleBuffer);
    s->type_ = MediaType::Video;
    s->image_ = std::move(image);
    s->timing_ = std::move(timing);
    return s;
}

std::shared_ptr<SampleBuffer> SampleBuffer::makeVideo(std::shared_ptr<SharedSurface> image,
                                                      MediaTime presentationTime,
                                                      MediaTime duration) {
    return makeVideo(std::move(image), {{duration, presentationTime, MediaTime::invalid()}});
}

namespace {
bool usableFormat(const AudioStreamFormat& f) {
    return std::isfinite(f.sampleRate) && f.sampleRate > 0 && f.sampleRate <= 1e6 &&
           f.channelsPerFrame > 0;
}
}  // namespace

std::shared_ptr<SampleBuffer> SampleBuffer::makeAudio(
    std::shared_ptr<DataBlock> block, const AudioStreamFormat& format, int64_t numSamples,
    MediaTime presentationTime, std::vector<AudioStreamPacketDescription> packets) {
    if (!usableFormat(format) || numSamples < 0) return nullptr;
    int64_t frames = numSamples * std::max<int64_t>(1, format.framesPerPacket);
    int32_t ts = static_cast<int32_t>(std::lround(format.sampleRate));
    MediaTime duration =
        ts > 0 && std::abs(format.sampleRate - ts) < 1e-9
            ? MediaTime::make(frames, ts)
            : MediaTime::makeWithSeconds(double(frames) / format.sampleRate, 1000000);
    auto s = makeAudio(
        std::move(block), format, numSamples,
        std::vector<SampleTimingInfo>{{duration, presentationTime, MediaTime::invalid()}});
    if (s) s->packets_ = std::move(packets);
    return s;
}

std::shared_ptr<SampleBuffer> SampleBuffer::makeAudio(std::shared_ptr<DataBlock> block,
                                                      const AudioStreamFormat& format,
                                                      int64_t numSamples,
                                                      std::vector<SampleTimingInfo> timing,
                                                      std::vector<size_t> sampleSizes) {
    if (!block || !usableFormat(format) || numSamples < 0 || timing.empty()) return nullptr;
    if (format.bytesPerPacket > 0 &&
        uint64_t(numSamples) >
            block->size() / format.bytesPerPacket + (block->size() % format.bytesPerPacket ? 1 : 0))
        return nullptr;
    std::shared_ptr<SampleBuffer> s(new SampleBuffer);
    s->type_ = MediaType::Audio;
    s->block_ = std::move(block);
    s->format_ = format;
    s->numSamples_ = numSamples;
    s->timing_ = std::move(timing);
    s->sampleSizes_ = std::move(sampleSizes);
    return s;
}

std::shared_ptr<SampleBuffer> SampleBuffer::makeAudioFromBytes(std::span<const uint8_t> bytes,
                                                               const AudioStreamFormat& format,
                                                               const SampleTimingInfo& timing) {
    if (format.bytesPerPacket == 0) return nullptr;
    int64_t n = static_cast<int64_t>(bytes.size() / format.bytesPerPacket);
    return makeAudio(DataBlock::copyOf(bytes.data(), bytes.size()), format, n,
                     std::vector<SampleTimingInfo>{timing});
}

MediaTime SampleBuffer::presentationTime() const {
    return timing_.empty() ? MediaTime::invalid() : timing_.front().presentationTimeStamp;
}

MediaTime SampleBuffer::decodeTime() const {
    return timing_.empty() ? MediaTime::invalid() : timing_.front().decodeTimeStamp;
}

MediaTime SampleBuffer::duration() const {
    if (timing_.empty()) return MediaTime::invalid();
    MediaTime total = timing_.front().duration;
    for (size_t i = 1; i < timing_.size() && total.isValid(); ++i)
        total = add(total, timing_[i].duration);
    return total;
}

std::optional<SampleTimingInfo> SampleBuffer::timingEntry(size_t index) const {
    if (index >= timing_.size()) return std::nullopt;
    return timing_[index];
}

std::shared_ptr<SampleBuffer> SampleBuffer::copyWithTiming(
    std::vector<SampleTimingInfo> timing) const {
    if (timing.empty()) return nullptr;
    std::shared_ptr<SampleBuffer> s(new SampleBuffer(*this));
    s->timing_ = std::move(timing);
    return s;
}

bool SampleBuffer::fillBytes(size_t offset, size_t length, uint8_t value) {
    return block_ && block_->fill(offset, length, value);
}

std::string SampleBuffer::description() const {
    std::string s = isVideo() ? "<SampleBuffer video " : "<SampleBuffer audio ";
    s += "pts=" + presentationTime().description() + " dur=" + duration().description();
    if (isVideo() && image_) s += " " + image_->description();
    if (isAudio())
        s += " samples=" + std::to_string(numSamples_) + " bytes=" + std::to_string(dataLength());
    return s + ">";
}

}  // namespace sv
