// Core runtime costs on the frame and audio paths.
#include <cstring>

#include "bench/bench_util.h"
#include "platform/sample_buffer.h"
#include "platform/value.h"

using namespace sv;

int main() {
    {
        SurfacePool pool(1600, 900);
        bench::report("surface_pool_acquire_release_1600x900",
                      bench::nsPerCall([&] { auto s = pool.acquire().value(); }), "ns");
        bench::report(
            "surface_create_destroy_1600x900",
            bench::nsPerCall([] { auto s = SharedSurface::create(1600, 900).value(); }, 0.3), "ns");
    }
    {
        auto surface = SharedSurface::create(1600, 900).value();
        auto frame =
            SampleBuffer::makeVideo(surface, MediaTime::make(600, 60), MediaTime::make(1, 60));
        bench::report("sample_timing_copy", bench::nsPerCall([&] {
                          auto entries = frame->timingEntries();
                          entries[0].presentationTimeStamp = MediaTime::make(500, 60);
                          entries[0].decodeTimeStamp = MediaTime::invalid();
                          auto copy = frame->copyWithTiming(std::move(entries));
                      }),
                      "ns");
    }
    {
        Bytes audio(57344);
        for (size_t i = 0; i < audio.size(); ++i) audio[i] = static_cast<uint8_t>(i * 31);
        Value payload = {{"SVBroadcastProcessExtensionPayloadKeySampleType", 2},
                         {"SVBroadcastProcessExtensionPayloadKeyNumSamples", 28672}};
        payload["SVBroadcastProcessExtensionPayloadKeyAudioBufferList"] = bytesValue(audio);
        payload["SVBroadcastProcessExtensionPayloadKeyTimingInfo"] = bytesValue(Bytes(72, 1));
        Bytes encoded;
        double enc = bench::nsPerCall([&] { encoded = encodeCbor(payload); });
        double dec = bench::nsPerCall([&] { auto v = decodeCbor(encoded); });
        bench::report("cbor_encode_audio_payload_57344", enc, "ns");
        bench::report("cbor_decode_audio_payload_57344", dec, "ns");
        bench::report("cbor_decode_throughput", double(encoded.size()) / dec * 1e9 / (1 << 20),
                      "MiB/s");
    }
    return 0;
}
