// An extension for the tests, started by AppExtension. What it does depends
// on the last component of its identifier:
//   echo   answers each request with the items it got (titles in "titles"),
//          the bytes of each granted file ("content"), whether the file's
//          descriptor could be written to ("writable") and, for each item
//          "probe" naming a path, whether it could open that path ("opened")
//   crash  ends itself when a request arrives
//   mute   never connects
//   config answers a broadcast fragment with a configuration of the clip
//          duration in the user info's "nextClipDuration" and service
//          information {"finished": the flag, "bytes": the fragment's size}
//   sample a processing extension (on the SDK) that reports every call as
//          service information: {"action", "userInfo"}, {"video": seconds
//          of its time, "timescale", "width", "pixel": the first byte, or
//          -1 without an image}, {"audio": the source, "time", "bytes",
//          "samples", "rate"}
//   slow   the same, taking 100 ms over every frame
// Any other: answers every request with no items.
#include <fcntl.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <condition_variable>
#include <cstdlib>
#include <mutex>
#include <string>

#include <sorvel/processing_extension.h>

#include <chrono>
#include <thread>

#include "platform/extension/app_extension.h"
#include "platform/extension/extension_context.h"
#include "protocol/broadcast_configuration.h"
#include "protocol/broadcast_extension.h"

using namespace sv;

namespace {

class Reporter : public SVProcessingExtension {
  public:
    explicit Reporter(bool slow) : slow_(slow) {}
    void broadcastDidReceiveAction(SVBroadcastAction action, const std::string& info) override {
        report({{"action", int(action)}, {"userInfo", Value::parse(info, nullptr, false)}});
    }
    void processVideoFrame(const SVVideoFrame& f) override {
        if (slow_) std::this_thread::sleep_for(std::chrono::milliseconds(100));
        report({{"video", f.timing.presentationTime.seconds()},
                {"timescale", f.timing.presentationTime.timescale},
                {"width", f.width},
                {"pixel", f.pixels ? int(f.pixels[0]) : -1}});
    }
    void processAudioBuffer(const SVAudioBuffer& b) override {
        report({{"audio", int(b.source)},
                {"time", b.timing.presentationTime.seconds()},
                {"bytes", b.size},
                {"samples", b.numSamples},
                {"rate", b.format.sampleRate}});
    }

  private:
    void report(const Value& v) { sendServiceInfo(v.dump()); }
    bool slow_;
};

}  // namespace

int main() {
    const char* idText = std::getenv(kExtensionIdentifierVariable);
    const std::string id = idText ? idText : "";
    const std::string role = id.substr(id.rfind('.') + 1);
    if (role == "sample" || role == "slow") {
        Reporter reporter(role == "slow");
        return SVRunProcessingExtension(reporter);
    }
    if (role == "mute") {
        for (;;) pause();
    }
    std::mutex mutex;
    std::condition_variable cv;
    bool ended = false;
    auto context = ExtensionContext::connectToHost(
        [role](const std::string&, std::vector<ExtensionItem> items,
               std::map<std::string, ipc::FileToken> files, ExtensionContext::Reply reply) {
            if (role == "crash") ::_exit(3);
            std::vector<ExtensionItem> returned;
            if (role == "config") {
                // An upload extension that asks for the clip duration named by
                // the user info's "nextClipDuration" and reports each fragment.
                const ExtensionItem* info =
                    itemTitled(items, kBroadcastExtensionKeyExtensionUserInfo);
                const ExtensionItem* flag =
                    itemTitled(items, kBroadcastExtensionKeyRequestedFinish);
                SVBroadcastConfiguration configuration;
                if (info)
                    configuration.setClipDuration(
                        numberAt(info->attachment, "nextClipDuration").value_or(0));
                returned.push_back(
                    ExtensionItem::itemWithTitle(kBroadcastExtensionKeyBroadcastConfiguration,
                                                 bytesValue(configuration.encodedData())));
                struct stat st {};
                const bool readable =
                    files.size() == 1 && ::fstat(files.begin()->second.fd(), &st) == 0;
                returned.push_back(ExtensionItem::itemWithTitle(
                    kBroadcastExtensionKeyExtensionServiceInfo,
                    Value{{"finished", flag ? flag->attachment : Value()},
                          {"bytes", readable ? int64_t(st.st_size) : -1}}));
            }
            if (role == "echo") {
                Value titles = Value::array();
                for (const auto& item : items) titles.push_back(item.title);
                returned.push_back(ExtensionItem::itemWithTitle("titles", titles));
                for (const auto& item : items)
                    if (!item.object) returned.push_back(item);
                for (const auto& [token, file] : files) {
                    Bytes content;
                    uint8_t buffer[4096];
                    for (off_t at = 0;;) {
                        const ssize_t n = ::pread(file.fd(), buffer, sizeof buffer, at);
                        if (n <= 0) break;
                        content.insert(content.end(), buffer, buffer + n);
                        at += n;
                    }
                    returned.push_back(ExtensionItem::itemWithTitle("token", token));
                    returned.push_back(
                        ExtensionItem::itemWithTitle("content", bytesValue(content)));
                    returned.push_back(ExtensionItem::itemWithTitle(
                        "writable", ::pwrite(file.fd(), "x", 1, 0) == 1));
                }
                // Paths the extension tries to open itself.
                Value opened = Value::array();
                for (const auto& item : items) {
                    if (item.title != "probe" || !item.attachment.is_string()) continue;
                    const int fd = ::open(item.attachment.get<std::string>().c_str(), O_RDONLY);
                    opened.push_back(fd >= 0);
                    if (fd >= 0) ::close(fd);
                }
                returned.push_back(ExtensionItem::itemWithTitle("opened", opened));
            }
            reply(std::move(returned), std::nullopt);
        },
        [&] {
            std::lock_guard lock(mutex);
            ended = true;
            cv.notify_all();
        });
    if (!context) return 2;
    std::unique_lock lock(mutex);
    cv.wait(lock, [&] { return ended; });
    return 0;
}
