// The HLS upload extension: publishes a broadcast as a live HLS stream.
//
// The application sets the broadcast up with user info naming where the
// stream goes:
//   {"directory": "/srv/www/live"}       the playlist index.m3u8 and its
//                                        segments are written there
// and receives, after every fragment, service information
//   {"playlist": "<where index.m3u8 is>", "segments": N, "seconds": S,
//    "finished": true|false}
// or {"error": "..."} when a fragment could not be published.
#include <cstdio>
#include <memory>
#include <mutex>
#include <string>

#include <sorvel/upload_extension.h>
#include <nlohmann/json.hpp>

#include "hls_publisher.h"

namespace {

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
            info = {{"playlist", publisher_->playlistLocation()},
                    {"segments", publisher_->segmentCount()},
                    {"seconds", publisher_->publishedSeconds()},
                    {"finished", fragment.finished}};
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
            // An ingest URL takes a Destination that PUTs each file.
            *error = "publishing to an ingest URL is not supported yet; use \"directory\"";
            return nullptr;
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
    HLSUploadExtension extension;
    return sv::SVRunUploadExtension(extension);
}
