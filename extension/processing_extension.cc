// The SDK's side of the live link: connects to the endpoint that the
// service's request carries, turns each payload into a callback of the
// extension and acknowledges it once the callback has returned.
#include "sorvel/processing_extension.h"

#include <condition_variable>
#include <mutex>

#include "broadcast/broadcast_payload.h"
#include "platform/extension/extension_context.h"
#include "platform/log.h"
#include "protocol/broadcast_extension.h"

namespace sv {

struct SVProcessingLink {
    std::mutex mutex;
    std::condition_variable cv;
    std::shared_ptr<ipc::Connection> connection;  // to the service's listener
    bool ended = false;
};

namespace {

SVMediaTime toSDK(const MediaTime& t) {
    return {t.value, t.timescale, t.flags, t.epoch};
}

SVSampleTiming timingOf(const Value& payload) {
    auto it = payload.find(kPayloadKeyTimingInfo);
    const Bytes* bytes = it == payload.end() ? nullptr : bytesOf(*it);
    auto timing = bytes ? timingFromRecordBytes(*bytes) : std::nullopt;
    if (!timing) return {};
    return {toSDK(timing->duration), toSDK(timing->presentationTimeStamp),
            toSDK(timing->decodeTimeStamp)};
}

std::string json(const Value& v) {
    return v.dump(-1, ' ', false, Value::error_handler_t::replace);
}

// One payload to the extension's callback (on the link's queue).
void deliver(SVProcessingExtension& extension, const Value& payload, const ipc::Received& coder) {
    static log::RateLimit limit;
    if (!payload.is_object()) return;
    if (auto action = intAt(payload, kPayloadKeyActionType)) {
        if (*action < 1 || *action > 4) {
            log::error(limit, "SVProcessingExtension: unknown action %li ignored", long(*action));
            return;
        }
        auto info = payload.find(kBroadcastExtensionKeyExtensionUserInfo);
        extension.broadcastDidReceiveAction(
            SVBroadcastAction(*action),
            info != payload.end() && info->is_object() ? json(*info) : std::string("{}"));
        return;
    }
    const auto type = intAt(payload, kPayloadKeySampleType).value_or(0);
    if (type == 1) {
        SVVideoFrame frame;
        frame.timing = timingOf(payload);
        // The mapping lives in `object` until the callback has returned.
        SVSharedSurfaceObject object;
        if (auto it = payload.find(kPayloadKeySharedSurface); it != payload.end())
            object = SVSharedSurfaceObject::initWithCoder(*it, &coder);
        if (const auto& surface = object.sharedSurface()) {
            frame.pixels = surface->data();
            frame.width = surface->width();
            frame.height = surface->height();
            frame.bytesPerRow = surface->bytesPerRow();
            frame.pixelFormat = uint32_t(surface->pixelFormat());
        }
        extension.processVideoFrame(frame);
    } else if (type == 2 || type == 3) {
        auto dataIt = payload.find(kPayloadKeyAudioBufferList);
        const Bytes* data = dataIt == payload.end() ? nullptr : bytesOf(*dataIt);
        auto formatIt = payload.find(kPayloadKeyFormatDesc);
        auto format = formatIt == payload.end() ? std::nullopt : audioFormatFromValue(*formatIt);
        if (!data || !format) {
            log::error(limit, "SVProcessingExtension: audio payload without bytes or format");
            return;
        }
        SVAudioBuffer buffer;
        buffer.source = SVAudioSource(type);
        buffer.data = data->data();
        buffer.size = data->size();
        buffer.numSamples = int32_t(intAt(payload, kPayloadKeyNumSamples).value_or(0));
        buffer.format = {format->sampleRate,       format->formatID,        format->formatFlags,
                         format->bytesPerPacket,   format->framesPerPacket, format->bytesPerFrame,
                         format->channelsPerFrame, format->bitsPerChannel};
        buffer.timing = timingOf(payload);
        extension.processAudioBuffer(buffer);
    } else {
        log::error(limit, "SVProcessingExtension: payload of unknown type %li ignored", long(type));
    }
}

}  // namespace

SVProcessingExtension::~SVProcessingExtension() = default;

bool SVProcessingExtension::sendServiceInfo(const std::string& text) {
    auto link = link_;
    if (!link) return false;
    Value info = Value::parse(text, nullptr, false);
    if (!info.is_object()) {
        log::error("SVProcessingExtension: service information is no JSON object; not sent");
        return false;
    }
    std::shared_ptr<ipc::Connection> connection;
    {
        std::lock_guard lock(link->mutex);
        connection = link->connection;
    }
    if (!connection) return false;
    connection
        ->remoteObjectProxyWithErrorHandler([](const Error& e) {
            static log::RateLimit limit;
            log::error(limit, "SVProcessingExtension: service information not sent: %@",
                       e.description());
        })
        .call(kBroadcastUpdateServiceInfoMethod, ipc::Arguments().add(std::move(info)));
    return true;
}

int SVRunProcessingExtension(SVProcessingExtension& extension) {
    auto link = std::make_shared<SVProcessingLink>();
    extension.link_ = link;
    // Either connection's end (the request's or the link's) ends the run;
    // the extension hears of it once.
    auto end = [link, &extension] {
        {
            std::lock_guard lock(link->mutex);
            if (link->ended) return;
            link->ended = true;
        }
        extension.serviceDidGoAway();
        std::lock_guard lock(link->mutex);
        link->cv.notify_all();
    };
    auto handler = [link, &extension, end](const std::string&, std::vector<ExtensionItem> items,
                                           std::map<std::string, ipc::FileToken>,
                                           ExtensionContext::Reply reply) {
        const ExtensionItem* item = itemTitled(items, kBroadcastProcessExtensionListenerEndpoint);
        const ipc::Endpoint* endpoint =
            item && item->object ? std::get_if<ipc::Endpoint>(&*item->object) : nullptr;
        if (!endpoint || !endpoint->valid()) {
            log::error("SVProcessingExtension: the request carries no listener endpoint");
            reply({}, Error::make("org.sorvel.SVProcessingExtensionErrorDomain", 1,
                                  "the request carries no listener endpoint"));
            return;
        }
        {
            std::lock_guard lock(link->mutex);
            if (link->connection) {
                reply({}, std::nullopt);  // linked already
                return;
            }
        }
        auto connection = ipc::Connection::toEndpoint(*endpoint);
        auto table = std::make_shared<ipc::MethodTable>();
        table->on(kBroadcastProcessPayloadMethod, [&extension](ipc::Invocation& inv) {
            deliver(extension, inv.at(0), inv);
            if (inv.handler()) inv.handler()();
        });
        connection->setExportedInterface(broadcastExtensionProtocolInterface());
        connection->setExportedObject(table);
        connection->setRemoteObjectInterface(broadcastDaemonProtocolInterface());
        connection->setInvalidationHandler(end);
        {
            std::lock_guard lock(link->mutex);
            link->connection = connection;
        }
        connection->resume();
        // Ready for payloads.
        connection
            ->remoteObjectProxyWithErrorHandler([](const Error& e) {
                log::error("SVProcessingExtension: ping not sent: %@", e.description());
            })
            .call(kBroadcastPingMethod);
        reply({}, std::nullopt);
    };
    auto context = ExtensionContext::connectToHost(handler, end);
    if (!context) {
        log::error("SVProcessingExtension: %@", context.error().description());
        extension.link_.reset();
        return 2;
    }
    {
        std::unique_lock lock(link->mutex);
        link->cv.wait(lock, [&] { return link->ended; });
    }
    std::shared_ptr<ipc::Connection> connection;
    {
        std::lock_guard lock(link->mutex);
        connection.swap(link->connection);
    }
    if (connection) connection->invalidate();
    (*context)->invalidate();
    extension.link_.reset();
    return 0;
}

}  // namespace sv
