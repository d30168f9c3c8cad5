// Untrusted store catalogs (the local JSON catalog that answers store
// lookups): every lookup must deliver exactly one record that carries the
// requested identifier, and the record must turn into a dictionary and into
// movie metadata (down to the container's tags) without crashing, hanging
// or growing without bound.
#include <cstdint>
#include <cstdlib>
#include <memory>
#include <string>

#include "fuzz/fuzz_scratch.h"
#include "movie/movie_writer.h"
#include "platform/dispatch.h"
#include "platform/log.h"
#include "platform/media/ffmpeg_util.h"
#include "platform/system/store_lookup.h"
#include "support/store_manager.h"

namespace {

const char* const kIdentifiers[] = {"com.example.app", "com.example.game", ""};

std::string catalogPath() {
    return sv::fuzz::scratchDirectory() + "/catalog.json";
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    sv::log::setOutputEnabled(false);
    const std::string& scratch = sv::fuzz::scratchDirectory();
    // No local bundles: a missing display name falls back to nothing.
    setenv("SORVEL_BUNDLE_PATH", (scratch + "/bundles").c_str(), 1);
    setenv("XDG_DATA_HOME", (scratch + "/data").c_str(), 1);
    sv::StoreLookupRequest::setCatalogPath(catalogPath());
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    static AVFormatContext* container = [] {
        AVFormatContext* ctx = nullptr;
        if (avformat_alloc_output_context2(&ctx, nullptr, "mp4", nullptr) < 0 || !ctx) std::abort();
        return ctx;
    }();
    sv::fuzz::writeFile(catalogPath(), data, size);

    for (const char* id : kIdentifiers) {
        // Shared with the handler, so that a second answer would be counted
        // (at the next input) rather than touch a finished frame.
        auto answers = std::make_shared<int>(0);
        sv::SVStoreManager::sharedManager()->loadItemDetailsForBundleIdentifier(
            id, [id, answers](std::shared_ptr<sv::SVStoreInfo> info) {
                if (++*answers != 1) std::abort();
                if (!info || info->bundleID != id) std::abort();
                (void)info->description();
                auto writer = sv::SVMovieWriter::initWithWindowSize({64, 64}, "/dev/null", info);
                auto items = writer->assetMetadata();
                if (!items || items->size() != 6) std::abort();
                std::optional<std::string> encoder;
                if (sv::media::applyMetadata(container, *items, &encoder) < 0) std::abort();
                if (encoder != sv::SVMovieWriter::kEncoderName) std::abort();
                av_dict_free(&container->metadata);
                sv::MainRunLoop::stop();
            });
        // The record is handed over on the main queue.
        sv::MainRunLoop::run();
        if (*answers != 1) std::abort();
    }
    return 0;
}
