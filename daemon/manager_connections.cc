// SVRecordingManager: client connections. Acceptance by peer process, the
// application's bundle, the client proxy, replaced connections, disconnects,
// and SVDaemonProtocol as exported on each accepted connection.
//
// Who keeps an accepted connection alive: the IPC layer, while its socket is
// open. The proxy and the manager's SVClientConnection refer to it weakly, so
// nothing in the daemon prolongs a connection its peer has closed.
#include <cmath>
#include <limits>

#include "daemon/recording_manager.h"
#include "platform/ipc/typed_methods.h"
#include "platform/log.h"
#include "platform/process/process_info.h"
#include "protocol/recording_protocol.h"

namespace sv {
namespace {

// Most layer context identifiers one start request may name.
constexpr size_t kMaxContextIDs = 1024;
// Longest bundle identifier taken from a request.
constexpr size_t kMaxBundleIDBytes = 255;

// A request whose values do not make sense is dropped like a message that
// does not fit the interface: logged, never answered. Errors of the IPC layer
// are never sent on the wire, and a recording error would claim the request
// was considered.
void logMalformed(const ipc::Invocation& inv, const std::string& why) {
    static log::RateLimit limit;
    log::error(limit, "SVRecordingManager: malformed %@ from pid %i dropped: %@", inv.method(),
               inv.connection() ? int32_t(inv.connection()->processIdentifier()) : 0, why);
}

Value errorValue(const OptionalError& e) {
    return e ? e->toValue() : Value(nullptr);
}

Value urlValue(const std::optional<URL>& url) {
    return url ? Value(url->absoluteString()) : Value(nullptr);
}

// Values of a request that do not make sense: rejected like a message that
// does not fit the interface.
Error malformed(const std::string& why) {
    return Error::make(ipc::kIPCErrorDomain, ipc::kErrorMessageRejected, why);
}

Result<std::vector<uint32_t>> contextIDsOf(const Value& v) {
    if (!v.is_array() || v.size() > kMaxContextIDs)
        return malformed("layer context identifiers are a list of at most 1024 entries");
    std::vector<uint32_t> ids;
    ids.reserve(v.size());
    for (const auto& id : v) {
        auto n = integerOf<uint32_t>(id);
        if (!n) return malformed("a layer context identifier is an integer from 0 to 4294967295");
        ids.push_back(*n);
    }
    return ids;
}

// Sides that are no finite positive numbers are left to the session, which
// records the display's size instead; only the form is checked here.
Result<WindowSize> windowSizeOf(const Value& v) {
    auto width = numberAt(v, "width");
    auto height = numberAt(v, "height");
    if (!width || !height)
        return malformed("a window size is {\"width\": number, \"height\": number}");
    auto toFloat = [](double d) {
        if (std::isnan(d)) return std::numeric_limits<float>::quiet_NaN();
        if (d > std::numeric_limits<float>::max()) return std::numeric_limits<float>::infinity();
        if (d < -std::numeric_limits<float>::max()) return -std::numeric_limits<float>::infinity();
        return float(d);
    };
    return WindowSize{toFloat(*width), toFloat(*height)};
}

Result<std::string> bundleIDOf(const Value& v) {
    if (!v.is_string() || v.get_ref<const std::string&>().size() > kMaxBundleIDBytes)
        return malformed("a bundle identifier of at most 255 bytes");
    return v.get<std::string>();
}

// The interface already checked the type of flags; anything else is
// refused all the same.
Result<bool> flagOf(const Value& v) {
    if (!v.is_boolean()) return malformed("a flag is true or false");
    return v.get<bool>();
}

Result<double> clipDurationOf(const Value& v) {
    if (!v.is_number() || !std::isfinite(v.get<double>()))
        return malformed("clip durations are finite numbers");
    return v.get<double>();
}

Result<uint32_t> contextIDOf(const Value& v) {
    if (auto id = integerOf<uint32_t>(v)) return *id;
    return malformed("a layer context identifier is an unsigned integer");
}

// Optional arguments: anything but what they should be counts as absent.
Result<std::optional<Bytes>> optionalBytesOf(const Value& v) {
    if (const Bytes* data = bytesOf(v)) return std::optional<Bytes>(*data);
    return std::optional<Bytes>();
}

Result<std::optional<Value>> optionalObjectOf(const Value& v) {
    if (v.is_object()) return std::optional<Value>(v);
    return std::optional<Value>();
}

}  // namespace

std::shared_ptr<Bundle> SVRecordingManager::bundleWithPID(pid_t pid) {
    char path[kMaxProcessPathBytes];
    int length = processExecutablePath(pid, path, sizeof path);
    if (length <= 0) return nullptr;
    URL executable = URL::fileURLWithPath(std::string(path, size_t(length)));
    auto bundleURL = enclosingBundleURL(executable);
    if (!bundleURL) return nullptr;
    return Bundle::bundleWithPath(bundleURL->path);
}

std::pair<std::string, bool> SVRecordingManager::identityOfProcess(pid_t pid, int pidfd) const {
    const auto& trust = options_.trust;
    if (!trust) {
        auto bundle = bundleWithPID(pid);
        return {bundle ? bundle->bundleIdentifier().value_or("") : "", false};
    }
    auto identity = SVProcessIdentity::ofProcess(pid, pidfd);
    if (!identity) {
        static log::RateLimit limit;
        log::error(limit,
                   "SVRecordingManager: the executable of pid %i cannot be read; taken as no "
                   "application",
                   int32_t(pid));
        return {"", false};
    }
    return {trust->bundleIdentityForExecutable(identity->executable), trust->isTrusted(*identity)};
}

bool SVRecordingManager::listenerShouldAcceptNewConnection(
    ipc::Listener&, const std::shared_ptr<ipc::Connection>& connection) {
    log::info("SVRecordingManager: shouldAcceptNewConnection:");
    auto client = identifyClient(connection);
    if (!client) return false;
    log::info("accepted client connection PID: %d", int32_t(client->pid));
    bool accepted = false;
    queue_->sync([&] {
        accepted = true;
        exportDaemonProtocol(client, connection);
        auto session = recordingSessionForBundleID(client->bundleID);
        if (session) attachClientToSession(client, connection, session);
        setCurrentRecordingSession(session);
        platform_->applicationConnected(client->bundleID, client->pid);
        connection->resume();
        expireAcknowledgementExemptionsForBundleID(client->bundleID);
    });
    return accepted;
}

std::shared_ptr<SVClientConnection> SVRecordingManager::identifyClient(
    const std::shared_ptr<ipc::Connection>& connection) const {
    const pid_t pid = connection->processIdentifier();
    if (pid == 0) return nullptr;
    // The identity is the process that connected, read through its process
    // descriptor, never a later holder of its number.
    UniqueFd pidfd = connection->peerProcessDescriptor();
    auto identity = identityOfProcess(pid, pidfd.get());
    auto client = std::make_shared<SVClientConnection>();
    client->connection = connection;
    client->pid = pid;
    client->bundleID = std::move(identity.first);
    client->trusted = identity.second;
    if (client->bundleID.size() > kMaxBundleIDBytes) {
        log::error("SVRecordingManager: pid %i has a bundle identifier of %lu bytes; taken as none",
                   int32_t(pid), client->bundleID.size());
        client->bundleID.clear();
    }
    return client;
}

void SVRecordingManager::exportDaemonProtocol(const std::shared_ptr<SVClientConnection>& client,
                                              const std::shared_ptr<ipc::Connection>& connection) {
    connection->setExportedObject(makeExportedObject(client));
    connection->setExportedInterface(daemonProtocolInterface());
    connection->setRemoteObjectInterface(clientProtocolInterface());
    std::weak_ptr<SVRecordingManager> weak = weak_from_this();
    auto disconnected = [weak, client] {
        if (auto self = weak.lock())
            self->queue_->async(
                [self, client] { self->applicationDisconnectedWithBundleID(client); });
    };
    connection->setInterruptionHandler([disconnected] {
        log::info("connection INTERRUPTED");
        disconnected();
    });
    connection->setInvalidationHandler([disconnected] {
        log::info("connection INVALID");
        disconnected();
    });
}

void SVRecordingManager::attachClientToSession(const std::shared_ptr<SVClientConnection>& client,
                                               const std::shared_ptr<ipc::Connection>& connection,
                                               const std::shared_ptr<SVRecordingSession>& session) {
    const std::string& bundleID = client->bundleID;
    session->setBundleID(bundleID);
    if (auto previous = session->clientProxy()) {
        if (auto old = previous->connection()) {
            old->setInvalidationHandler(nullptr);
            old->setInterruptionHandler(nullptr);
            old->invalidate();
        }
    }
    if (auto older = clientOfBundle(bundleID); older && older != client) {
        older->ended = true;
        older->heldRequests.clear();
        if (auto alert = std::exchange(older->pendingAlert, nullptr)) alert->cancel();
    }
    clients_[bundleID] = client;
    session->setClientProxy(SVClientProxy::initWithBundleIdentifier(bundleID, connection));
}

void SVRecordingManager::applicationDisconnectedWithBundleID(
    const std::shared_ptr<SVClientConnection>& client) {
    // A connection replaced by a newer one is not a disconnect; its handlers
    // were removed, but one may have been on its way already.
    if (client->ended) return;
    client->ended = true;
    client->heldRequests.clear();
    if (auto alert = std::exchange(client->pendingAlert, nullptr)) alert->cancel();
    log::info("SVRecordingManager: applicationDisconnected");
    const std::string& bundleID = client->bundleID;
    if (bundleID.empty()) return;  // no session was attached
    if (clientOfBundle(bundleID) == client) clients_.erase(bundleID);
    // The application's own recording ends, thrown away; another
    // application's recording is none of its business.
    auto it = bundleIDToRecordingSessionLookup_.find(bundleID);
    if (it != bundleIDToRecordingSessionLookup_.end())
        stopRecordingWithHandler(it->second, StopHandler());
    removeSessionForBundleID(bundleID);
    platform_->applicationDisconnected(bundleID, client->pid);
}

namespace {

// Runs a request on the manager's queue, in the order of its connection's
// requests (see makeExportedObject).
using Submit = std::function<void(std::function<void(SVRecordingManager&)>)>;
using Client = std::shared_ptr<SVClientConnection>;
using Reply = const ipc::ReplyHandler&;
using StartHandler = SVRecordingManager::StartHandler;
using SetupHandler = SVRecordingManager::SetupHandler;
using StopHandler = SVRecordingManager::StopHandler;
using DiscardHandler = SVRecordingManager::DiscardHandler;

// Set-up, start, stop, pause, resume and discard: the recording's requests.
void addRecordingMethods(ipc::TypedMethods& methods, const Submit& run, const Client& client) {
    methods.on(
        method::kStartRecording,
        [run, client](Reply reply, std::vector<uint32_t> ids, WindowSize size, bool mic,
                      bool camera, bool broadcast, bool system) {
            StartHandler handler = [reply](OptionalError error, bool m, bool c) {
                reply(ipc::Arguments().add(errorValue(error)).add(Value(m)).add(Value(c)));
            };
            run([=, ids = std::move(ids)](SVRecordingManager& m) {
                m.startRecordingWindowLayerContextIDs(client, ids, size, mic, camera, broadcast,
                                                      system, handler);
            });
        },
        contextIDsOf, windowSizeOf, flagOf, flagOf, flagOf, flagOf);
    methods.on(
        method::kSetupBroadcast,
        [run, client](Reply reply, std::string host, std::string extension,
                      std::optional<Bytes> configuration, std::optional<Value> userInfo) {
            SetupHandler handler = [reply](OptionalError error) {
                reply(ipc::Arguments().add(errorValue(error)));
            };
            run([=](SVRecordingManager& m) {
                m.setupBroadcastWithHostBundleID(client, host, extension, configuration, userInfo,
                                                 handler);
            });
        },
        bundleIDOf, bundleIDOf, optionalBytesOf, optionalObjectOf);
    auto stopHandler = [](const ipc::ReplyHandler& reply) -> StopHandler {
        if (!reply) return nullptr;
        return [reply](std::optional<URL> movie, OptionalError error) {
            reply(ipc::Arguments().add(urlValue(movie)).add(errorValue(error)));
        };
    };
    methods.on(method::kStopRecording, [run, client, stopHandler](Reply reply) {
        run([client, handler = stopHandler(reply)](SVRecordingManager& m) {
            m.stopRecordingWithHandler(client, handler);
        });
    });
    methods.on(
        method::kStopRecordingWithClip,
        [run, client, stopHandler](Reply reply, double start, double end) {
            run([=, handler = stopHandler(reply)](SVRecordingManager& m) {
                m.stopRecordingWithStartClipDuration(client, start, end, handler);
            });
        },
        clipDurationOf, clipDurationOf);
    methods.on(method::kPauseRecording, [run, client](Reply) {
        run([=](SVRecordingManager& m) { m.pauseRecording(client); });
    });
    methods.on(
        method::kResumeRecording,
        [run, client](Reply, uint32_t id) {
            run([=](SVRecordingManager& m) {
                m.resumeRecordingWithWindowLayerContextID(client, id);
            });
        },
        contextIDOf);
}

// What the application tells of itself: microphone, warnings, desktop
// audio, whether it is active.
void addSettingMethods(ipc::TypedMethods& methods, const Submit& run, const Client& client) {
    methods.on(
        method::kSetMicrophoneEnabled,
        [run, client](Reply, bool enabled) {
            run([=](SVRecordingManager& m) { m.setMicrophoneEnabled(client, enabled); });
        },
        flagOf);
    methods.on(method::kDiscardRecording, [run, client](Reply reply) {
        DiscardHandler handler;
        if (reply) handler = [reply] { reply(); };
        run([=](SVRecordingManager& m) { m.discardRecordingWithHandler(client, handler); });
    });
    methods.on(method::kEnableRecordingWarnings, [run, client](Reply) {
        run([client](SVRecordingManager&) { client->acceptsWarnings = true; });
    });
    methods.on(
        method::kSetSystemRecordingDesktopAudio,
        [run, client](Reply, bool desktop) {
            run([client, desktop](SVRecordingManager&) { client->desktopAudio = desktop; });
        },
        flagOf);
    for (const char* name : {method::kClientDidBecomeActive, method::kClientDidResignActive}) {
        const bool active = name == method::kClientDidBecomeActive;
        methods.on(
            name,
            [run, client, active](Reply, std::string bundleID) {
                run([=](SVRecordingManager& m) {
                    if (active)
                        m.clientDidBecomeActiveWithBundleID(client, bundleID);
                    else
                        m.clientDidResignActiveWithBundleID(client, bundleID);
                });
            },
            bundleIDOf);
    }
}

}  // namespace

std::shared_ptr<ipc::ExportedObject> SVRecordingManager::makeExportedObject(
    const std::shared_ptr<SVClientConnection>& client) {
    std::weak_ptr<SVRecordingManager> weak = weak_from_this();
    // Each method reads its arguments on the connection's queue, then waits
    // for the manager's queue, so a client that floods requests is held
    // back by its own connection.
    Submit run = [weak, client](std::function<void(SVRecordingManager&)> request) {
        auto self = weak.lock();
        if (!self) return;
        self->queue_->sync([&] {
            self->submit(client, [self, request = std::move(request)] { request(*self); });
        });
    };
    auto table = std::make_shared<ipc::MethodTable>();
    ipc::TypedMethods methods(table, logMalformed);
    addRecordingMethods(methods, run, client);
    addSettingMethods(methods, run, client);
    return table;
}

}  // namespace sv
