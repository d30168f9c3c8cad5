// Description of a linear audio stream, exchanged as a 40-byte record.
#pragma once

#include <cstdint>

namespace sv {

constexpr uint32_t fourCC(char a, char b, char c, char d) {
    return (uint32_t(uint8_t(a)) << 24) | (uint32_t(uint8_t(b)) << 16) |
           (uint32_t(uint8_t(c)) << 8) | uint32_t(uint8_t(d));
}

struct AudioStreamFormat {
    static constexpr uint32_t kFormatLinearPCM = fourCC('l', 'p', 'c', 'm');
    static constexpr uint32_t kFlagIsFloat = 1;
    static constexpr uint32_t kFlagIsBigEndian = 2;
    static constexpr uint32_t kFlagIsSignedInteger = 4;
    static constexpr uint32_t kFlagIsPacked = 8;
    static constexpr uint32_t kFlagIsNonInterleaved = 32;

    double sampleRate = 0;
    uint32_t formatID = 0;
    uint32_t formatFlags = 0;
    uint32_t bytesPerPacket = 0;
    uint32_t framesPerPacket = 0;
    uint32_t bytesPerFrame = 0;
    uint32_t channelsPerFrame = 0;
    uint32_t bitsPerChannel = 0;
    uint32_t reserved = 0;

    // Packed interleaved signed 16-bit PCM.
    static constexpr AudioStreamFormat pcm16(double rate, uint32_t channels, bool bigEndian) {
        return {rate,
                kFormatLinearPCM,
                kFlagIsSignedInteger | kFlagIsPacked | (bigEndian ? kFlagIsBigEndian : 0u),
                2 * channels,
                1,
                2 * channels,
                channels,
                16,
                0};
    }
    // Packed interleaved 32-bit float PCM, native (little) endian.
    static constexpr AudioStreamFormat float32(double rate, uint32_t channels) {
        return {rate,
                kFormatLinearPCM,
                kFlagIsFloat | kFlagIsPacked,
                4 * channels,
                1,
                4 * channels,
                channels,
                32,
                0};
    }

    bool isLinearPCM() const { return formatID == kFormatLinearPCM; }
    friend bool operator==(const AudioStreamFormat&, const AudioStreamFormat&) = default;
};
static_assert(sizeof(AudioStreamFormat) == 40, "AudioStreamFormat is a 40-byte record");

struct AudioStreamPacketDescription {
    int64_t startOffset = 0;
    uint32_t variableFramesInPacket = 0;
    uint32_t dataByteSize = 0;
    friend bool operator==(const AudioStreamPacketDescription&,
                           const AudioStreamPacketDescription&) = default;
};

}  // namespace sv
