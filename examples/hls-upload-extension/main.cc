// The HLS upload extension: publishes a broadcast as a live HLS stream.
//
// The application sets the broadcast up with user info naming where the
// stream goes:
//   {"directory": "/srv/www/live"}       the playlist index.m3u8 and its
//                                        segments are written there
//   {"url": "https://ingest.example/live"}  they are uploaded by PUT below
//                                        that URL (http:// or https://)
// and receives, after every fragment, service information
//   {"playlist": "<where index.m3u8 is>", "segments": N, "seconds": S,
//    "finished": true|false, "retries": R, "dropped": D, "pending": P,
//    "droppedSegments": [...]}
// (retries, files given up and files not out yet, all 0 for a directory;
// an upload never holds up the broadcast, see http_destination.h), or
// {"error": "..."} when a fragment could not be published.
#include <chrono>
#include <cstdio>
#include <memory>
#include <mutex>
#include <string>

#include <curl/curl.h>
#include <sorvel/upload_extension.h>
#include <nlohmann/json.hpp>

#include "hls_publisher.h"
#include "http_destination.h"

namespace {

// How long the answer to the last fragment waits for uploads still queued.
constexpr std::chrono::seconds kFinalUploadWait{10};

class HLSUploadExtension : public sv::SVUploadExtension {
  public:
    void processFragment(sv::SVBroadcastFragment fragment,
                         sv::SVUploadCompletion completion) override {
        sv::SVUploadResult result;
        std::string error;
        if (!publisher_) publisher_ = makePublisher(fragment.userInfoJSON, &error);
        if (publisher_) {
            if (auto failed = publisher_->addFragment(fragment.fileDescriptor, fragment.finished))
                error = *failed;
        }
        nlohmann::json info;
        if (!error.empty()) {
            std::fprintf(stderr, "hls-upload-extension: %s\n", error.c_str());
            info = {{"error", error}};
            result.errorMessage = error;
        } else {
            // The last fragment: what is still being uploaded gets a while
            // to go out before the service ends this process.
            if (fragment.finished) publisher_->destination().flush(kFinalUploadWait);
            const auto stats = publisher_->destination().stats();
            info = {{"playlist", publisher_->playlistLocation()},
                    {"segments", publisher_->segmentCount()},
                    {"seconds", publisher_->publishedSeconds()},
                    {"finished", fragment.finished},
                    {"retries", stats.retries},
                    {"dropped", stats.dropped},
                    {"pending", stats.pending}};
            if (!stats.droppedNames.empty()) info["droppedSegments"] = stats.droppedNames;
        }
        result.serviceInfoJSON = info.dump();
        completion(std::move(result));
    }

  private:
    // The destination named by the user info.
    static std::unique_ptr<hls::Publisher> makePublisher(const std::string& userInfoJSON,
                                                         std::string* error) {
        auto userInfo = nlohmann::json::parse(userInfoJSON, nullptr, false);
        if (!userInfo.is_object()) {
            *error = "the user info is no JSON object";
            return nullptr;
        }
        if (auto url = userInfo.find("url"); url != userInfo.end()) {
            if (!url->is_string() || !hls::isHttpUrl(url->get<std::string>())) {
                *error = "the \"url\" of the user info is no http:// or https:// URL";
                return nullptr;
            }
            return std::make_unique<hls::Publisher>(
                hls::makeHttpDestination(url->get<std::string>()));
        }
        auto directory = userInfo.find("directory");
        if (directory == userInfo.end() || !directory->is_string() ||
            directory->get<std::string>().empty()) {
            *error = "the user info names no \"directory\" for the stream";
            return nullptr;
        }
        auto destination = hls::makeDirectoryDestination(directory->get<std::string>(), error);
        if (!destination) return nullptr;
        return std::make_unique<hls::Publisher>(std::move(destination));
    }

    std::unique_ptr<hls::Publisher> publisher_;
};

}  // namespace

int main() {
    // Before any thread: libcurl's global set-up is not thread-safe.
    if (curl_global_init(CURL_GLOBAL_DEFAULT) != CURLE_OK) {
        std::fprintf(stderr, "hls-upload-extension: libcurl cannot start\n");
        return 1;
    }
    int status = 0;
    {
        HLSUploadExtension extension;
        status = sv::SVRunUploadExtension(extension);
    }
    curl_global_cleanup();
    return status;
}
