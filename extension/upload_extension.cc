// The SDK's side of upload requests: turns each request of the service into
// an SVBroadcastFragment and the extension's SVUploadResult into returned
// items.
#include "sorvel/upload_extension.h"

#include <atomic>
#include <condition_variable>
#include <mutex>

#include "platform/extension/extension_context.h"
#include "platform/log.h"
#include "protocol/broadcast_configuration.h"
#include "protocol/broadcast_extension.h"

namespace sv {
namespace {

std::string json(const Value& v) {
    return v.dump(-1, ' ', false, Value::error_handler_t::replace);
}

// The returned items of `result`; a JSON text that does not parse is logged
// and left out.
std::vector<ExtensionItem> returnedItems(const SVUploadResult& result) {
    std::vector<ExtensionItem> items;
    if (result.clipDuration || result.videoCompressionPropertiesJSON) {
        SVBroadcastConfiguration configuration;
        if (result.clipDuration) configuration.setClipDuration(*result.clipDuration);
        if (result.videoCompressionPropertiesJSON) {
            Value properties = Value::parse(*result.videoCompressionPropertiesJSON, nullptr, false);
            if (properties.is_object())
                configuration.setVideoCompressionProperties(std::move(properties));
            else
                log::error("SVUploadExtension: videoCompressionPropertiesJSON is no JSON object");
        }
        items.push_back(ExtensionItem::itemWithTitle(kBroadcastExtensionKeyBroadcastConfiguration,
                                                     bytesValue(configuration.encodedData())));
    }
    if (result.serviceInfoJSON) {
        Value info = Value::parse(*result.serviceInfoJSON, nullptr, false);
        if (info.is_object())
            items.push_back(
                ExtensionItem::itemWithTitle(kBroadcastExtensionKeyExtensionServiceInfo, info));
        else
            log::error("SVUploadExtension: serviceInfoJSON is no JSON object; not sent");
    }
    return items;
}

}  // namespace

int SVRunUploadExtension(SVUploadExtension& extension) {
    std::mutex mutex;
    std::condition_variable cv;
    bool ended = false;
    auto handler = [&extension](const std::string& id, std::vector<ExtensionItem> items,
                                std::map<std::string, ipc::FileToken> files,
                                ExtensionContext::Reply reply) {
        const ExtensionItem* token = itemTitled(items, kBroadcastExtensionKeyExtensionSandboxToken);
        auto file = token && token->attachment.is_string()
                        ? files.find(token->attachment.get<std::string>())
                        : files.end();
        if (file == files.end()) {
            log::error("SVUploadExtension: request %@ grants no fragment file; ignored", id);
            reply({}, Error::make("org.sorvel.SVUploadExtensionErrorDomain", 1,
                                  "the request grants no fragment file"));
            return;
        }
        SVBroadcastFragment fragment;
        fragment.fileDescriptor = file->second.fd();
        if (auto* url = itemTitled(items, kBroadcastExtensionKeyMovieClipURL);
            url && url->attachment.is_string())
            fragment.movieClipURL = url->attachment.get<std::string>();
        if (auto* flag = itemTitled(items, kBroadcastExtensionKeyRequestedFinish))
            fragment.finished = flag->attachment == "1";
        if (auto* info = itemTitled(items, kBroadcastExtensionKeyExtensionUserInfo);
            info && info->attachment.is_object())
            fragment.userInfoJSON = json(info->attachment);
        // The descriptor lives as long as the completion (which holds it).
        auto once = std::make_shared<std::atomic<bool>>(false);
        SVUploadCompletion completion = [reply, once, keep = file->second](SVUploadResult result) {
            if (once->exchange(true)) return;
            OptionalError error;
            if (result.errorMessage)
                error =
                    Error::make("org.sorvel.SVUploadExtensionErrorDomain", 2, *result.errorMessage);
            reply(returnedItems(result), error);
        };
        extension.processFragment(std::move(fragment), std::move(completion));
    };
    auto context = ExtensionContext::connectToHost(handler, [&] {
        extension.serviceDidGoAway();
        std::lock_guard lock(mutex);
        ended = true;
        cv.notify_all();
    });
    if (!context) {
        log::error("SVUploadExtension: %@", context.error().description());
        return 2;
    }
    std::unique_lock lock(mutex);
    cv.wait(lock, [&] { return ended; });
    return 0;
}

}  // namespace sv
