// The recorder client library: SVDaemonProtocol requests with their
// completion handlers, SVClientProtocol callbacks, reconnection and the
// mapping of IPC failures to the library's own errors.
//
// Threads: requests are sent on the caller's thread; replies, IPC error
// handlers, incoming calls and the interruption handler run on the
// connection's serial queue, which decodes them and hands the application's
// handlers to the executor. `mutex` guards the state shared between them;
// no handler of the application runs while it is held.
#include <unistd.h>

#include <atomic>
#include <cmath>
#include <map>
#include <mutex>
#include <utility>

#include "client/recorder_internal.h"
#include "platform/dispatch.h"
#include "platform/ipc/ipc.h"
#include "platform/log.h"
#include "platform/process/process_info.h"
#include "platform/system/bundle.h"
#include "platform/url.h"
#include "protocol/recording_protocol.h"
#include "protocol/service_names.h"
#include "sorvel/recorder_client.h"

namespace sv {
namespace {

using client::publicError;

// The daemon's interface as this library calls it: the same methods and
// arguments, but replies of any shape reach the library, which checks them
// itself so that a malformed answer completes its handler with an error
// instead of leaving it waiting.
std::shared_ptr<const ipc::Interface> daemonInterfaceForClient() {
    static auto relaxed = [] {
        auto base = daemonProtocolInterface();
        std::vector<ipc::MethodSpec> methods = base->methods();
        for (auto& m : methods)
            for (auto& a : m.replyArguments) a = ipc::ArgSpec{ipc::ArgKind::Any, true};
        return std::make_shared<const ipc::Interface>(base->name(), std::move(methods));
    }();
    return relaxed;
}

// Reply values: nullopt when malformed.
std::optional<std::optional<SVRecorderError>> optionalError(const Value& v) {
    if (v.is_null()) return std::optional<SVRecorderError>();
    auto e = v.is_object() ? Error::fromValue(v) : std::nullopt;
    if (!e) return std::nullopt;
    return std::optional<SVRecorderError>(publicError(*e));
}

std::optional<std::optional<std::string>> optionalMovie(const Value& v) {
    if (v.is_null()) return std::optional<std::string>();
    if (!v.is_string()) return std::nullopt;
    auto url = URL::parse(v.get<std::string>());
    if (!url || url->path.find('\0') != std::string::npos) return std::nullopt;
    return std::optional<std::string>(url->path);
}

SVRecorderError clientError(SVRecorderError::ClientCode code) {
    return SVRecorderError::clientError(code);
}

SVRecorderError::ClientCode codeForIPCError(const Error& e) {
    if (e.domain != ipc::kIPCErrorDomain) return SVRecorderError::kClientRequestRejected;
    switch (e.code) {
        case ipc::kErrorConnectionInterrupted:
            return SVRecorderError::kClientConnectionInterrupted;
        case ipc::kErrorConnectionInvalid:
            return SVRecorderError::kClientInvalidated;
        case ipc::kErrorSendQueueFull:
        case ipc::kErrorTooManyPendingReplies:
            return SVRecorderError::kClientRequestQueueFull;
        default:
            return SVRecorderError::kClientRequestRejected;
    }
}

bool isUsableSize(float v) {
    return v >= 0 && v <= 1e9f;  // false for NaN as well
}

}  // namespace

namespace client {

std::string jsonText(const Value& value) {
    // Byte strings have no JSON form: base64 text stands in for them.
    auto convert = [](auto& self, const Value& v) -> Value {
        if (v.is_binary()) {
            static const char* alphabet =
                "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
            const auto& b = v.get_binary();
            std::string out;
            for (size_t i = 0; i < b.size(); i += 3) {
                uint32_t n = uint32_t(b[i]) << 16;
                if (i + 1 < b.size()) n |= uint32_t(b[i + 1]) << 8;
                if (i + 2 < b.size()) n |= b[i + 2];
                out += alphabet[(n >> 18) & 63];
                out += alphabet[(n >> 12) & 63];
                out += i + 1 < b.size() ? alphabet[(n >> 6) & 63] : '=';
                out += i + 2 < b.size() ? alphabet[n & 63] : '=';
            }
            return out;
        }
        if (v.is_object()) {
            Value o = Value::object();
            for (auto it = v.begin(); it != v.end(); ++it) o[it.key()] = self(self, it.value());
            return o;
        }
        if (v.is_array()) {
            Value a = Value::array();
            for (const auto& e : v) a.push_back(self(self, e));
            return a;
        }
        return v;
    };
    return convert(convert, value).dump(-1, ' ', false, Value::error_handler_t::replace);
}

}  // namespace client

namespace {

// The client's state; in an unnamed namespace so that none of it is
// exported from the shared library.
struct ClientCore : std::enable_shared_from_this<ClientCore> {
    using Executor = SVRecorderClient::Executor;
    using Fail = std::function<void(const SVRecorderError&)>;
    // Turns a reply into the task that calls the application's handler.
    using Decode = std::function<std::function<void()>(const ipc::Received&)>;

    struct Activity {
        std::string method, bundleID;
    };

    Executor executor;
    std::shared_ptr<ipc::Connection> connection;

    std::mutex mutex;
    std::weak_ptr<SVRecorderClientDelegate> delegate;
    bool invalidated = false;
    bool recording = false;       // a start succeeded and nothing ended it since
    uint64_t interruptions = 0;   // of the connection, counted by its handler
    bool replayActivity = false;  // repeat lastActivity before the next request
    // Something came from the service since the connection (re)connected.
    // A call that fails as interrupted over a proven link was cut off by a
    // break; over an unproven one the service most likely was not there.
    bool linkProven = false;
    // A break already acted on by the error handler of a call it cut off:
    // the interruption handler queued behind it must not repeat the report
    // a second time.
    bool breakHandled = false;
    std::optional<Activity> lastActivity;
    SVRecorderClient::WarningHandler warningHandler;
    bool warningsAsked = false;  // on the current connection
    // setSystemRecordingDesktopAudio: nullopt until the application chose,
    // so a daemon that predates the method is never sent it.
    std::optional<bool> desktopAudio;
    uint64_t nextPendingId = 1;
    std::map<uint64_t, Fail> pending;  // requests whose handler has not been called

    // Held while sending, so that a repeated activity report goes out just
    // before the request that reconnects.
    std::mutex sendMutex;

    // Delegate callbacks handed to the executor that have not run yet.
    static constexpr size_t kMaxDelegateBacklog = 1024;
    static constexpr size_t kMaxWarningBytes = 1024;
    std::atomic<size_t> delegateBacklog{0};
    std::atomic<bool> droppingCallbacks{false};

    void post(std::function<void()> task) {
        if (task) executor(std::move(task));
    }

    // Removes a pending request; false when its handler was already called.
    bool take(uint64_t id, Fail* fail = nullptr) {
        std::lock_guard lock(mutex);
        auto it = pending.find(id);
        if (it == pending.end()) return false;
        if (fail) *fail = std::move(it->second);
        pending.erase(it);
        return true;
    }

    void fail(uint64_t id, const SVRecorderError& error) {
        Fail f;
        if (take(id, &f)) post([f = std::move(f), error] { f(error); });
    }

    void proveLink() {
        std::lock_guard lock(mutex);
        linkProven = true;
    }

    // A call failed as interrupted: the connection has no socket now, and
    // the next call connects again, after the activity report. Returns
    // whether the link was proven until now.
    bool noteInterruptedCall() {
        std::lock_guard lock(mutex);
        bool proven = linkProven;
        if (proven) {
            linkProven = false;
            breakHandled = true;
        }
        if (lastActivity) replayActivity = true;
        warningsAsked = false;
        return proven;
    }

    void callFailed(uint64_t id, const Error& e, bool provenAtSend, uint64_t interruptionsAtSend) {
        if (e.domain != ipc::kIPCErrorDomain || e.code != ipc::kErrorConnectionInterrupted) {
            log::error("recorder client: request failed: %@", e.description());
            fail(id, clientError(codeForIPCError(e)));
            return;
        }
        noteInterruptedCall();
        if (provenAtSend) {
            fail(id, clientError(SVRecorderError::kClientConnectionInterrupted));
            return;
        }
        // Unproven: an interruption counted since the send still means a
        // break. The interruption handler of a break is queued right behind
        // the error handlers of its calls; look once it had its turn.
        connection->queue()->async([w = weak_from_this(), id, interruptionsAtSend] {
            auto self = w.lock();
            if (!self) return;
            uint64_t now;
            {
                std::lock_guard lock(self->mutex);
                now = self->interruptions;
            }
            self->fail(id, clientError(now != interruptionsAtSend
                                           ? SVRecorderError::kClientConnectionInterrupted
                                           : SVRecorderError::kClientServiceNotRunning));
        });
    }

    // Sends the last activity report again after an interruption; called
    // with sendMutex held.
    void replayActivityIfNeeded() {
        std::optional<Activity> activity;
        {
            std::lock_guard lock(mutex);
            if (replayActivity && lastActivity) activity = lastActivity;
            replayActivity = false;
        }
        if (!activity) return;
        log::debug("recorder client: repeating %@ after reconnecting", activity->method);
        connection
            ->remoteObjectProxyWithErrorHandler([w = weak_from_this()](const Error&) {
                // Not delivered: try again before the next request.
                if (auto self = w.lock()) self->noteInterruptedCall();
            })
            .call(activity->method, ipc::Arguments().add(Value(activity->bundleID)));
    }

    // Asks the service for warnings once per connection while the
    // application wants them; called with sendMutex held.
    void askForWarningsIfNeeded() {
        {
            std::lock_guard lock(mutex);
            if (!warningHandler || warningsAsked) return;
            warningsAsked = true;
        }
        connection
            ->remoteObjectProxyWithErrorHandler([w = weak_from_this()](const Error& e) {
                // Not delivered: ask again before the next request.
                if (auto self = w.lock(); self && e.domain == ipc::kIPCErrorDomain &&
                                          e.code == ipc::kErrorConnectionInterrupted)
                    self->noteInterruptedCall();
            })
            .call(method::kEnableRecordingWarnings, ipc::Arguments());
    }

    void request(const std::string& method, ipc::Arguments args, Decode decode, Fail failure) {
        uint64_t id, interruptionsAtSend;
        bool provenAtSend;
        {
            std::lock_guard lock(mutex);
            if (invalidated) {
                post([failure = std::move(failure)] {
                    failure(clientError(SVRecorderError::kClientInvalidated));
                });
                return;
            }
            id = nextPendingId++;
            pending[id] = std::move(failure);
            interruptionsAtSend = interruptions;
            provenAtSend = linkProven;
        }
        std::weak_ptr<ClientCore> w = weak_from_this();
        std::lock_guard send(sendMutex);
        replayActivityIfNeeded();
        askForWarningsIfNeeded();
        connection
            ->remoteObjectProxyWithErrorHandler(
                [w, id, provenAtSend, interruptionsAtSend](const Error& e) {
                    if (auto self = w.lock())
                        self->callFailed(id, e, provenAtSend, interruptionsAtSend);
                })
            .call(method, args, [w, id, decode = std::move(decode)](const ipc::Received& reply) {
                auto self = w.lock();
                if (!self) return;
                self->proveLink();
                if (!self->take(id)) return;
                self->post(decode(reply));
            });
    }

    // A call without a reply; failures are only logged.
    void send(const std::string& method, ipc::Arguments args) {
        {
            std::lock_guard lock(mutex);
            if (invalidated) return;
        }
        std::lock_guard send(sendMutex);
        replayActivityIfNeeded();
        askForWarningsIfNeeded();
        connection
            ->remoteObjectProxyWithErrorHandler([w = weak_from_this(), method](const Error& e) {
                log::error("recorder client: %@ not delivered: %@", method, e.description());
                auto self = w.lock();
                if (self && e.domain == ipc::kIPCErrorDomain &&
                    e.code == ipc::kErrorConnectionInterrupted)
                    self->noteInterruptedCall();
            })
            .call(method, args);
    }

    void report(const char* method, std::string bundleID) {
        {
            std::lock_guard lock(mutex);
            if (invalidated) return;
            lastActivity = Activity{method, bundleID};
            replayActivity = false;  // this report replaces the repetition
        }
        send(method, ipc::Arguments().add(Value(std::move(bundleID))));
    }

    void setRecording(bool value) {
        std::lock_guard lock(mutex);
        recording = value;
    }

    // Delegate callbacks: the delegate is looked up when the task runs, and
    // nothing is called once the client has been invalidated.
    void postToDelegate(std::function<void(SVRecorderClientDelegate&)> call) {
        // An application whose executor falls behind a flood of callbacks
        // loses the excess rather than its memory.
        if (delegateBacklog.fetch_add(1) >= kMaxDelegateBacklog) {
            delegateBacklog--;
            if (!droppingCallbacks.exchange(true))
                log::error("recorder client: the executor is %lu callbacks behind; dropping more",
                           kMaxDelegateBacklog);
            return;
        }
        post([w = weak_from_this(), call = std::move(call)] {
            auto self = w.lock();
            if (!self) return;
            self->delegateBacklog--;
            self->droppingCallbacks = false;
            std::shared_ptr<SVRecorderClientDelegate> d;
            {
                std::lock_guard lock(self->mutex);
                if (self->invalidated) return;
                d = self->delegate.lock();
            }
            if (d) call(*d);
        });
    }

    void connectionInterrupted() {
        bool wasRecording;
        {
            std::lock_guard lock(mutex);
            ++interruptions;
            linkProven = false;
            if (breakHandled)
                breakHandled = false;  // a cut-off call has armed the report already
            else if (lastActivity)
                replayActivity = true;
            wasRecording = recording;
            recording = false;
            warningsAsked = false;
        }
        log::debug("recorder client: connection to the service interrupted");
        if (wasRecording) {
            auto error = clientError(SVRecorderError::kClientConnectionInterrupted);
            postToDelegate([error](SVRecorderClientDelegate& d) {
                d.stopRecordingWithError(error, std::nullopt);
            });
        }
    }

    std::shared_ptr<ipc::ExportedObject> makeCallbackObject() {
        auto table = std::make_shared<ipc::MethodTable>();
        std::weak_ptr<ClientCore> w = weak_from_this();
        table->on(method::kStopRecordingWithError, [w](ipc::Invocation& inv) {
            auto self = w.lock();
            if (!self) return;
            self->proveLink();
            auto error = optionalError(inv.at(0));
            auto movie = optionalMovie(inv.at(1));
            if (!error) {
                log::error("recorder client: unreadable error in stopRecordingWithError: %@",
                           inv.at(0));
                error = clientError(SVRecorderError::kClientInvalidReply);
            }
            if (!movie) {
                log::error("recorder client: unreadable movie location %@", inv.at(1));
                movie = std::optional<std::string>();
            }
            self->setRecording(false);
            self->postToDelegate([e = *error, m = *movie](SVRecorderClientDelegate& d) {
                d.stopRecordingWithError(e, m);
            });
        });
        table->on(method::kRecordingWarning, [w](ipc::Invocation& inv) {
            auto self = w.lock();
            if (!self) return;
            self->proveLink();
            const Value& v = inv.at(0);
            auto code = intAt(v, kRecordingWarningCodeKey);
            auto message = stringAt(v, kRecordingWarningMessageKey);
            if (!code || !message) {
                static log::RateLimit limit;
                log::error(limit, "recorder client: unreadable recording warning %@", v);
                return;
            }
            // A sentence to show: a longer text is cut.
            if (message->size() > kMaxWarningBytes) message->resize(kMaxWarningBytes);
            SVRecorderWarning warning{*code, std::move(*message)};
            self->post([w, warning = std::move(warning)] {
                auto client = w.lock();
                if (!client) return;
                SVRecorderClient::WarningHandler handler;
                {
                    std::lock_guard lock(client->mutex);
                    if (client->invalidated) return;
                    handler = client->warningHandler;
                }
                if (handler) handler(warning);
            });
        });
        table->on(method::kUpdateBroadcastServiceInfo, [w](ipc::Invocation& inv) {
            auto self = w.lock();
            if (!self) return;
            self->proveLink();
            self->postToDelegate([json = client::jsonText(inv.at(0))](SVRecorderClientDelegate& d) {
                d.updateBroadcastServiceInfo(json);
            });
        });
        return table;
    }

    void invalidate() {
        std::map<uint64_t, Fail> failed;
        {
            std::lock_guard lock(mutex);
            if (invalidated) return;
            invalidated = true;
            failed.swap(pending);
        }
        connection->invalidate();
        auto error = clientError(SVRecorderError::kClientInvalidated);
        for (auto& [id, f] : failed) post([f = std::move(f), error] { f(error); });
    }
};

}  // namespace

struct SVRecorderClient::Impl : ClientCore {};

SVRecorderClient::SVRecorderClient(Options options) : impl_(std::make_shared<Impl>()) {
    static OnceFlag once;
    dispatchOnce(once, [] { log::setIdentifier("sorvel-client"); });
    if (!options.runtimeDirectory.empty()) ipc::setRuntimeDirectory(options.runtimeDirectory);
    impl_->executor = std::move(options.executor);
    if (!impl_->executor) {
        auto queue = DispatchQueue::serial("org.sorvel.recorder-client");
        impl_->executor = [queue](std::function<void()> task) { queue->async(std::move(task)); };
    }
    std::string service = options.serviceName.empty() ? kDaemonServiceName : options.serviceName;
    auto& c = impl_->connection = ipc::Connection::toService(service);
    c->setRemoteObjectInterface(daemonInterfaceForClient());
    c->setExportedInterface(clientProtocolInterface());
    c->setExportedObject(impl_->makeCallbackObject());
    c->setInterruptionHandler([w = std::weak_ptr<ClientCore>(impl_)] {
        if (auto self = w.lock()) self->connectionInterrupted();
    });
    c->resume();
}

SVRecorderClient::~SVRecorderClient() {
    impl_->invalidate();
}

void SVRecorderClient::invalidate() {
    impl_->invalidate();
}

void SVRecorderClient::setDelegate(std::weak_ptr<SVRecorderClientDelegate> delegate) {
    std::lock_guard lock(impl_->mutex);
    impl_->delegate = std::move(delegate);
}

void SVRecorderClient::setWarningHandler(WarningHandler handler) {
    std::lock_guard lock(impl_->mutex);
    impl_->warningHandler = std::move(handler);
}

void SVRecorderClient::startRecordingWindowLayerContextIDs(
    std::vector<uint32_t> contextIDs, SVWindowSize windowSize, bool microphoneEnabled,
    bool cameraEnabled, bool broadcast, bool systemRecording, StartHandler handler) {
    if (!handler) handler = [](std::optional<SVRecorderError>, bool, bool) {};
    auto failure = [handler](const SVRecorderError& e) { handler(e, false, false); };
    if (!isUsableSize(windowSize.width) || !isUsableSize(windowSize.height)) {
        impl_->post([failure] { failure(clientError(SVRecorderError::kClientInvalidArgument)); });
        return;
    }
    if (systemRecording) {
        // Sent with every system start (the connection may be new since the
        // choice): it tells the daemon where this recording's sound comes from.
        std::optional<bool> desktop;
        {
            std::lock_guard lock(impl_->mutex);
            desktop = impl_->desktopAudio;
        }
        if (desktop)
            impl_->send(method::kSetSystemRecordingDesktopAudio,
                        ipc::Arguments().add(Value(*desktop)));
    }
    Value ids = Value::array();
    for (uint32_t id : contextIDs) ids.push_back(uint64_t(id));
    Value size = {{"width", double(windowSize.width)}, {"height", double(windowSize.height)}};
    ipc::Arguments args;
    args.add(std::move(ids))
        .add(std::move(size))
        .add(Value(microphoneEnabled))
        .add(Value(cameraEnabled))
        .add(Value(broadcast))
        .add(Value(systemRecording));
    std::weak_ptr<ClientCore> w = impl_;
    impl_->request(
        method::kStartRecording, std::move(args),
        [w, handler](const ipc::Received& r) -> std::function<void()> {
            auto error = optionalError(r.at(0));
            const Value &mic = r.at(1), &camera = r.at(2);
            if (r.size() != 3 || !error || !mic.is_boolean() || !camera.is_boolean()) {
                log::error("recorder client: unreadable answer to the start request: %@",
                           Value(r.values()));
                return [handler] {
                    handler(clientError(SVRecorderError::kClientInvalidReply), false, false);
                };
            }
            if (auto self = w.lock(); self && !*error) self->setRecording(true);
            return [handler, e = *error, m = mic.get<bool>(), c = camera.get<bool>()] {
                handler(e, m, c);
            };
        },
        failure);
}

void SVRecorderClient::setupBroadcastWithHostBundleID(
    std::string hostBundleID, std::string broadcastExtensionBundleID,
    std::optional<std::vector<uint8_t>> configurationData, std::string userInfoJSON,
    CompletionHandler handler) {
    if (!handler) handler = [](std::optional<SVRecorderError>) {};
    Value userInfo;  // null
    if (!userInfoJSON.empty()) {
        userInfo = Value::parse(userInfoJSON, nullptr, false);
        if (!userInfo.is_object()) {
            impl_->post(
                [handler] { handler(clientError(SVRecorderError::kClientInvalidArgument)); });
            return;
        }
    }
    ipc::Arguments args;
    args.add(Value(std::move(hostBundleID)))
        .add(Value(std::move(broadcastExtensionBundleID)))
        .add(configurationData ? bytesValue(std::move(*configurationData)) : Value(nullptr))
        .add(std::move(userInfo));
    impl_->request(
        method::kSetupBroadcast, std::move(args),
        [handler](const ipc::Received& r) -> std::function<void()> {
            auto error = optionalError(r.at(0));
            if (r.size() != 1 || !error) {
                log::error("recorder client: unreadable answer to the broadcast set-up: %@",
                           Value(r.values()));
                return [handler] { handler(clientError(SVRecorderError::kClientInvalidReply)); };
            }
            return [handler, e = *error] { handler(e); };
        },
        [handler](const SVRecorderError& e) { handler(e); });
}

namespace {

ClientCore::Decode decodeStop(std::weak_ptr<ClientCore> w, SVRecorderClient::StopHandler handler) {
    return [w, handler](const ipc::Received& r) -> std::function<void()> {
        if (auto self = w.lock()) self->setRecording(false);
        auto movie = optionalMovie(r.at(0));
        auto error = optionalError(r.at(1));
        if (r.size() != 2 || !movie || !error) {
            log::error("recorder client: unreadable answer to the stop request: %@",
                       Value(r.values()));
            return [handler] {
                handler(std::nullopt, clientError(SVRecorderError::kClientInvalidReply));
            };
        }
        return [handler, m = *movie, e = *error] { handler(m, e); };
    };
}

}  // namespace

void SVRecorderClient::stopRecordingWithHandler(StopHandler handler) {
    if (!handler) handler = [](std::optional<std::string>, std::optional<SVRecorderError>) {};
    impl_->request(method::kStopRecording, {}, decodeStop(impl_, handler),
                   [handler](const SVRecorderError& e) { handler(std::nullopt, e); });
}

void SVRecorderClient::stopRecordingWithStartClipDuration(double startClipDuration,
                                                          double endClipDuration,
                                                          StopHandler handler) {
    if (!handler) handler = [](std::optional<std::string>, std::optional<SVRecorderError>) {};
    if (!std::isfinite(startClipDuration) || !std::isfinite(endClipDuration)) {
        impl_->post([handler] {
            handler(std::nullopt, clientError(SVRecorderError::kClientInvalidArgument));
        });
        return;
    }
    impl_->request(method::kStopRecordingWithClip,
                   ipc::Arguments().add(Value(startClipDuration)).add(Value(endClipDuration)),
                   decodeStop(impl_, handler),
                   [handler](const SVRecorderError& e) { handler(std::nullopt, e); });
}

void SVRecorderClient::pauseRecording() {
    impl_->send(method::kPauseRecording, {});
}

void SVRecorderClient::resumeRecordingWithWindowLayerContextID(uint32_t contextID) {
    impl_->send(method::kResumeRecording, ipc::Arguments().add(Value(uint64_t(contextID))));
}

void SVRecorderClient::setSystemRecordingDesktopAudio(bool desktop) {
    std::lock_guard lock(impl_->mutex);
    impl_->desktopAudio = desktop;
}

void SVRecorderClient::setMicrophoneEnabled(bool enabled) {
    impl_->send(method::kSetMicrophoneEnabled, ipc::Arguments().add(Value(enabled)));
}

void SVRecorderClient::discardRecordingWithHandler(CompletionHandler handler) {
    if (!handler) handler = [](std::optional<SVRecorderError>) {};
    impl_->request(
        method::kDiscardRecording, {},
        [handler](const ipc::Received& r) -> std::function<void()> {
            if (r.size() != 0) {
                log::error("recorder client: unexpected answer to the discard request: %@",
                           Value(r.values()));
                return [handler] { handler(clientError(SVRecorderError::kClientInvalidReply)); };
            }
            return [handler] { handler(std::nullopt); };
        },
        [handler](const SVRecorderError& e) { handler(e); });
}

void SVRecorderClient::clientDidBecomeActiveWithBundleID(std::string bundleID) {
    impl_->report(method::kClientDidBecomeActive, std::move(bundleID));
}

void SVRecorderClient::clientDidResignActiveWithBundleID(std::string bundleID) {
    impl_->report(method::kClientDidResignActive, std::move(bundleID));
}

void SVRecorderClient::clientDidBecomeActive() {
    if (auto id = mainBundleIdentifier(); !id.empty()) clientDidBecomeActiveWithBundleID(id);
}

void SVRecorderClient::clientDidResignActive() {
    if (auto id = mainBundleIdentifier(); !id.empty()) clientDidResignActiveWithBundleID(id);
}

std::string SVRecorderClient::mainBundleIdentifier() {
    static OnceFlag once;
    static std::string* identifier;
    dispatchOnce(once, [] {
        identifier = new std::string;
        char path[kMaxProcessPathBytes];
        int n = processExecutablePath(getpid(), path, sizeof path);
        if (n <= 0) return;
        auto url = enclosingBundleURL(URL::fileURLWithPath(std::string(path, size_t(n))));
        auto bundle = url ? Bundle::bundleWithPath(url->path) : nullptr;
        if (bundle) *identifier = bundle->bundleIdentifier().value_or("");
    });
    return *identifier;
}

}  // namespace sv
