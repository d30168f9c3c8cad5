#include "daemon/shell_service.h"

#include <optional>

#include "platform/log.h"
#include "platform/process/notification_center.h"
#include "platform/process/purgeable_space.h"
#include "protocol/recording_protocol.h"
#include "protocol/shell_protocol.h"

namespace sv {
namespace {

// Integer arguments as the daemon uses them: urgency is 32-bit, amounts are
// 64-bit. The interface admits only such values; one that still does not
// fit (an object exported under a looser interface) is refused and logged,
// never clamped, and the call gets no answer.
template <typename T>
std::optional<T> integerArgument(const ipc::Invocation& inv, size_t i, const char* name) {
    auto v = inv.integerAt<T>(i);
    if (!v) {
        static log::RateLimit limit;
        log::error(limit, "shell: %@ refused: %@ out of range", inv.method(), name);
    }
    return v;
}

// The purgeable-space calls with their (amount and) urgency read, or
// nothing when one is out of range.
template <typename F>
ipc::MethodTable::Method withUrgency(size_t index, F&& body) {
    return [index, body = std::forward<F>(body)](ipc::Invocation& inv) {
        if (auto urgency = integerArgument<int32_t>(inv, index, "urgency")) body(inv, *urgency);
    };
}

template <typename F>
ipc::MethodTable::Method withAmountAndUrgency(F&& body) {
    return [body = std::forward<F>(body)](ipc::Invocation& inv) {
        auto amount = integerArgument<int64_t>(inv, 0, "amount");
        auto urgency = amount ? integerArgument<int32_t>(inv, 1, "urgency") : std::nullopt;
        if (amount && urgency) body(inv, *amount, *urgency);
    };
}

void replyBytes(const ipc::Invocation& inv, std::optional<int64_t> bytes) {
    inv.handler()(ipc::Arguments().add(bytes.value_or(0)));
}

}  // namespace

std::shared_ptr<const ipc::Interface> SVShellService::exportedInterface() {
    static auto i = [] {
        std::vector<ipc::MethodSpec> methods = shellProtocolMethods();
        for (auto& m : recordingShellMethods()) methods.push_back(std::move(m));
        return std::make_shared<const ipc::Interface>("SVShellProtocol", std::move(methods));
    }();
    return i;
}

Result<std::shared_ptr<SVShellService>> SVShellService::create(
    std::shared_ptr<SVRecordingManager> manager, std::shared_ptr<SVConsentAgentRegistry> agents) {
    auto s = std::make_shared<SVShellService>();
    s->manager_ = std::move(manager);
    s->agents_ = std::move(agents);
    auto listener = ipc::Listener::named(kShellServiceName);
    if (!listener) return listener.error();
    s->listener_ = std::move(*listener);
    s->listener_->setDelegate(s);
    auto& purgeable = PurgeableSpaceService::shared();
    s->object_ = std::make_shared<ipc::MethodTable>();
    s->object_
        ->on("lockButtonPressedWithHandler:",
             [](ipc::Invocation& inv) {
                 NotificationCenter::defaultCenter().post(kLockButtonPressedNotification);
                 inv.handler()();
             })
        .on("purgeableSpaceWithUrgency:handler:",
            withUrgency(0,
                        [&purgeable](ipc::Invocation& inv, int32_t urgency) {
                            replyBytes(inv, purgeable.purgeableSpace(urgency));
                        }))
        .on("purgeWithAmount:urgency:handler:",
            withAmountAndUrgency(
                [&purgeable](ipc::Invocation& inv, int64_t amount, int32_t urgency) {
                    replyBytes(inv, purgeable.purge(amount, urgency));
                }))
        .on("cancelPurgeWithHandler:",
            [&purgeable](ipc::Invocation& inv) {
                purgeable.cancelPurge();
                inv.handler()();
            })
        .on("periodicWithAmount:urgency:handler:",
            withAmountAndUrgency(
                [&purgeable](ipc::Invocation& inv, int64_t amount, int32_t urgency) {
                    replyBytes(inv, purgeable.periodic(amount, urgency));
                }));
    s->addRecordingMethods(*s->object_);
    return s;
}

void SVShellService::resume() {
    listener_->resume();
}

void SVShellService::invalidate() {
    listener_->invalidate();
}

bool SVShellService::listenerShouldAcceptNewConnection(
    ipc::Listener&, const std::shared_ptr<ipc::Connection>& connection) {
    static log::RateLimit limit;
    log::debug(limit, "shell connection from pid %i", int(connection->processIdentifier()));
    connection->setExportedInterface(exportedInterface());
    connection->setExportedObject(object_);
    // A shell connection of a trusted executable may register as the
    // consent agent, which exports SVConsentAgentProtocol on it. Whether it
    // is trusted is decided now, by the process that connected.
    connection->setRemoteObjectInterface(consentAgentProtocolInterface());
    const ipc::Connection* key = connection.get();
    if (auto trust = manager_ ? manager_->trust() : nullptr) {
        UniqueFd pidfd = connection->peerProcessDescriptor();
        auto identity = SVProcessIdentity::ofProcess(connection->processIdentifier(), pidfd.get());
        if (identity && trust->isTrusted(*identity)) {
            std::lock_guard lock(*trustedMutex_);
            trusted_->insert(key);
        }
    }
    std::weak_ptr<SVConsentAgentRegistry> agents = agents_;
    auto trustedMutex = trustedMutex_;
    auto trusted = trusted_;
    connection->setInvalidationHandler([agents, key, trustedMutex, trusted] {
        if (auto a = agents.lock()) a->connectionEnded(key);
        std::lock_guard lock(*trustedMutex);
        trusted->erase(key);
    });
    connection->resume();
    return true;
}

void SVShellService::addRecordingMethods(ipc::MethodTable& table) {
    std::weak_ptr<SVRecordingManager> weakManager = manager_;
    std::weak_ptr<SVConsentAgentRegistry> weakAgents = agents_;
    auto platform = manager_ ? manager_->platform() : nullptr;
    auto errorValue = [](const OptionalError& e) { return e ? e->toValue() : Value(nullptr); };
    auto answerError = [errorValue](const ipc::Invocation& inv, const OptionalError& e) {
        inv.handler()(ipc::Arguments().add(errorValue(e)));
    };
    auto invalid = [](const ipc::Invocation& inv, const std::string& why) {
        static log::RateLimit limit;
        log::error(limit, "shell: %@ refused: %@", inv.method(), why);
        return shellError(kSVShellErrorInvalidArgument, why);
    };

    auto trustedMutex = trustedMutex_;
    auto trusted = trusted_;
    table.on("registerConsentAgentWithPreferredLanguages:handler:",
             [weakAgents, answerError, trustedMutex, trusted](ipc::Invocation& inv) {
                 auto agents = weakAgents.lock();
                 if (!agents || !inv.connection()) {
                     answerError(inv, shellError(kSVShellErrorNotAllowed,
                                                 "This daemon takes no consent agents."));
                     return;
                 }
                 bool isTrusted = false;
                 {
                     std::lock_guard lock(*trustedMutex);
                     isTrusted = trusted->count(inv.connection().get()) > 0;
                 }
                 if (!isTrusted) {
                     static log::RateLimit limit;
                     log::error(limit,
                                "shell: pid %i is no trusted consent agent; registration refused",
                                int32_t(inv.connection()->processIdentifier()));
                     answerError(inv, shellError(kSVShellErrorNotAllowed,
                                                 "Only a trusted consent agent may register: the "
                                                 "service's own, or one listed in " +
                                                     std::string(kTrustedAgentsFile) + "."));
                     return;
                 }
                 std::vector<std::string> languages;
                 for (const auto& l : inv.at(0))
                     if (l.is_string()) languages.push_back(l.get<std::string>());
                 agents->registerAgent(inv.connection(), languages);
                 answerError(inv, std::nullopt);
             });
    table.on(method::kEnableAlertWithdrawal, [weakAgents](ipc::Invocation& inv) {
        if (auto agents = weakAgents.lock(); agents && inv.connection())
            agents->enableWithdrawal(inv.connection());
    });
    table.on("layerContextIDsForCallerWithHandler:", [platform, errorValue](ipc::Invocation& inv) {
        OptionalError error;
        std::optional<std::vector<uint32_t>> layers;
        if (!platform) {
            error = shellError(kSVShellErrorNotSynthetic, "No recording service runs here.");
        } else if (inv.connection()) {
            auto found = platform->layerContextIDsForProcess(inv.connection()->processIdentifier());
            if (found)
                layers = std::move(*found);
            else
                error = found.error();
        }
        Value list = Value(nullptr);
        if (layers) {
            list = Value::array();
            for (uint32_t id : *layers) list.push_back(id);
        }
        inv.handler()(ipc::Arguments().add(std::move(list)).add(errorValue(error)));
    });
    table.on("setApplicationState:foreground:processIdentifier:handler:",
             [platform, answerError](ipc::Invocation& inv) {
                 auto pid = inv.integerAt<int32_t>(2);
                 const std::string bundleID = inv.at(0).get<std::string>();
                 answerError(inv, platform ? platform->setApplicationState(
                                                 bundleID, inv.at(1).get<bool>(), pid.value_or(-1))
                                           : OptionalError(shellError(kSVShellErrorNotSynthetic,
                                                                      "No platform.")));
             });
    table.on("setDisplayLayoutLevels:handler:", [platform, answerError,
                                                 invalid](ipc::Invocation& inv) {
        std::optional<std::vector<int32_t>> levels;
        if (!inv.at(0).is_null()) {
            levels.emplace();
            for (const auto& l : inv.at(0)) {
                auto level = integerOf<int32_t>(l);
                if (!level) return answerError(inv, invalid(inv, "levels are 32-bit integers"));
                levels->push_back(*level);
            }
        }
        answerError(
            inv, platform ? platform->setDisplayLayoutLevels(levels)
                          : OptionalError(shellError(kSVShellErrorNotSynthetic, "No platform.")));
    });
    table.on("setDisplayTransformFlags:handler:", [platform, answerError,
                                                   invalid](ipc::Invocation& inv) {
        auto flags = inv.integerAt<uint32_t>(0);
        if (!flags) return answerError(inv, invalid(inv, "transform flags are 1, 2 and 4"));
        answerError(
            inv, platform ? platform->setDisplayTransformFlags(*flags)
                          : OptionalError(shellError(kSVShellErrorNotSynthetic, "No platform.")));
    });
    table.on("injectScreenCaptureFailure:handler:", [platform, answerError](ipc::Invocation& inv) {
        answerError(
            inv, platform ? platform->injectScreenCaptureFailure(inv.at(0).get<std::string>())
                          : OptionalError(shellError(kSVShellErrorNotSynthetic, "No platform.")));
    });
    table.on("recordingStatusForCallerWithHandler:", [weakManager](ipc::Invocation& inv) {
        auto manager = weakManager.lock();
        Value status = Value(nullptr);
        if (manager && inv.connection())
            status = manager->recordingStatusForProcess(inv.connection()->processIdentifier());
        inv.handler()(ipc::Arguments().add(std::move(status)));
    });
    table.on("advanceClockBy:handler:", [weakManager, answerError](ipc::Invocation& inv) {
        auto manager = weakManager.lock();
        answerError(inv, manager ? manager->advanceClockBy(inv.at(0).get<double>())
                                 : OptionalError(shellError(kSVShellErrorNotAllowed,
                                                            "No recording service runs here.")));
    });
}

}  // namespace sv
