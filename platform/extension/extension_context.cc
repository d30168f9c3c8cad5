#include "platform/extension/extension_context.h"

#include <cstdlib>

#include "platform/extension/app_extension.h"
#include "platform/log.h"

namespace sv {

std::shared_ptr<const ipc::Interface> extensionProtocolInterface() {
    using K = ipc::ArgKind;
    using ipc::orNull;
    static auto i = std::make_shared<const ipc::Interface>(
        "SVExtensionProtocol", std::vector<ipc::MethodSpec>{
                                   {kBeginExtensionRequestMethod,
                                    {{K::String}, {K::Array}, {K::Dictionary}, {K::Handler}},
                                    {orNull(K::Array), orNull(K::Dictionary)}},
                               });
    return i;
}

namespace {

class RequestTable : public ipc::ExportedObject {
  public:
    explicit RequestTable(ExtensionContext::RequestHandler handler)
        : handler_(std::move(handler)) {}
    void invoke(ipc::Invocation& inv) override {
        if (inv.method() != kBeginExtensionRequestMethod) return;
        const std::string id = inv.at(0).get<std::string>();
        auto items = ExtensionItem::decodeAll(inv.at(1), inv);
        std::map<std::string, ipc::FileToken> files;
        for (const auto& [token, reference] : inv.at(2).items())
            if (auto file = inv.fileToken(reference)) files.emplace(token, *file);
        ipc::ReplyHandler reply = inv.handler();
        ExtensionContext::Reply answer = [reply](std::vector<ExtensionItem> returned,
                                                 OptionalError error) {
            ipc::Arguments args;
            Value array = Value::array();
            for (const auto& item : returned) array.push_back(item.encode(args));
            args.add(std::move(array));
            args.add(error ? error->toValue() : Value(nullptr));
            reply(args);
        };
        if (handler_)
            handler_(id, std::move(items), std::move(files), std::move(answer));
        else
            answer({}, std::nullopt);
    }

  private:
    ExtensionContext::RequestHandler handler_;
};

}  // namespace

Result<std::shared_ptr<ExtensionContext>> ExtensionContext::connectToHost(
    RequestHandler handler, std::function<void()> invalidationHandler) {
    const char* fdText = std::getenv(kExtensionEndpointFdVariable);
    char* end = nullptr;
    const long fd = fdText ? std::strtol(fdText, &end, 10) : -1;
    if (!fdText || *end != '\0' || fd < 0 || fd > 1024)
        return Error::make(
            kExtensionErrorDomain, kExtensionErrorNotConnected,
            std::string("not started as an extension: no ") + kExtensionEndpointFdVariable);
    auto context = std::shared_ptr<ExtensionContext>(new ExtensionContext());
    context->connection_ = ipc::Connection::toEndpoint(ipc::Endpoint::adopt(int(fd)));
    context->connection_->setExportedInterface(extensionProtocolInterface());
    context->connection_->setExportedObject(std::make_shared<RequestTable>(std::move(handler)));
    context->connection_->setInvalidationHandler(std::move(invalidationHandler));
    context->connection_->resume();
    return context;
}

ExtensionContext::~ExtensionContext() {
    invalidate();
}

void ExtensionContext::invalidate() {
    if (connection_) connection_->invalidate();
}

}  // namespace sv
