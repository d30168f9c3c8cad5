#include "platform/extension/app_extension.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <deque>
#include <filesystem>
#include <map>
#include <mutex>
#include <random>
#include <set>
#include <thread>

#include "platform/dispatch.h"
#include "platform/extension/extension_context.h"
#include "platform/extension/extension_sandbox.h"
#include "platform/ipc/ipc.h"
#include "platform/log.h"
#include "platform/system/bundle.h"
#include "platform/unique_fd.h"

extern char** environ;

namespace sv {
namespace fs = std::filesystem;

namespace {

std::string newRequestIdentifier() {
    std::random_device rd;
    char text[40];
    std::snprintf(text, sizeof text, "%08X-%08X-%08X-%08X", rd(), rd(), rd(), rd());
    return text;
}

Error extensionError(ExtensionErrorCode code, const std::string& message) {
    return Error::make(kExtensionErrorDomain, code, message);
}

// The executable named by the extension entry, inside the bundle; "" when
// it names none or one that would leave the bundle.
std::string executableInBundle(const std::string& bundlePath, const Value& entry) {
    auto relative = stringAt(entry, kExtensionExecutableKey);
    if (!relative || relative->empty() || relative->front() == '/') return {};
    for (const auto& part : fs::path(*relative))
        if (part == "..") return {};
    return bundlePath + "/" + *relative;
}

}  // namespace

// --- The running process and its requests --------------------------------------

struct AppExtension::Impl : ipc::ListenerDelegate, std::enable_shared_from_this<Impl> {
    struct Request {
        std::string identifier;
        std::vector<ExtensionItem> items;
        // Held until the request completes or breaks.
        std::vector<std::shared_ptr<FileAccessToken>> grants;
    };
    struct Process {
        pid_t pid = -1;
        UniqueFd pidfd;  // signals go here, so a reaped and reused pid is never hit
        uint64_t generation = 0;
        std::shared_ptr<ipc::Listener> listener;
        std::shared_ptr<ipc::Connection> connection;
        std::deque<Request> queued;           // waiting for the connection
        std::map<std::string, Request> sent;  // waiting for the answer
    };

    std::string identifier, executable;
    std::vector<std::string> deniedDirectories;
    std::shared_ptr<DispatchQueue> queue;
    std::mutex mutex;
    RequestCompletion completion;
    RequestCancellation cancellation;
    std::unique_ptr<Process> process;
    uint64_t generations = 0;

    bool listenerShouldAcceptNewConnection(
        ipc::Listener& listener, const std::shared_ptr<ipc::Connection>& connection) override {
        std::vector<std::function<void()>> sends;
        {
            std::lock_guard lock(mutex);
            if (!process || process->listener.get() != &listener || process->connection)
                return false;
            if (connection->processIdentifier() != process->pid) {
                log::error("extension %@: refused a connection of pid %i, not the extension's",
                           identifier, int32_t(connection->processIdentifier()));
                return false;
            }
            process->connection = connection;
            connection->setRemoteObjectInterface(extensionProtocolInterface());
            std::weak_ptr<Impl> weak = weak_from_this();
            const uint64_t generation = process->generation;
            connection->setInvalidationHandler([weak, generation] {
                if (auto self = weak.lock())
                    self->end(generation, SIGKILL, "its connection closed");
            });
            connection->resume();
            // No more connections: the one process has connected.
            listener.invalidate();
            while (!process->queued.empty()) {
                sends.push_back(sendLocked(std::move(process->queued.front())));
                process->queued.pop_front();
            }
        }
        for (auto& send : sends) send();
        return true;
    }

    // Moves `request` to the sent ones and gives the call to make unlocked.
    std::function<void()> sendLocked(Request request) {
        auto args = std::make_shared<ipc::Arguments>();
        args->add(request.identifier);
        Value items = Value::array();
        for (const auto& item : request.items) items.push_back(item.encode(*args));
        args->add(std::move(items));
        Value files = Value::object();
        for (const auto& grant : request.grants)
            files[grant->string()] = args->reference(grant->descriptor());
        args->add(std::move(files));
        const std::string id = request.identifier;
        const uint64_t generation = process->generation;
        auto connection = process->connection;
        process->sent.emplace(id, std::move(request));
        std::weak_ptr<Impl> weak = weak_from_this();
        return [weak, connection, args, id, generation] {
            connection
                ->remoteObjectProxyWithErrorHandler([weak, id, generation](const Error& error) {
                    if (auto self = weak.lock()) self->broke(generation, id, error);
                })
                .call(kBeginExtensionRequestMethod, *args,
                      [weak, id, generation](const ipc::Received& reply) {
                          if (auto self = weak.lock()) self->answered(generation, id, reply);
                      });
        };
    }

    std::optional<Request> takeSent(uint64_t generation, const std::string& id) {
        std::lock_guard lock(mutex);
        if (!process || process->generation != generation) return std::nullopt;
        auto it = process->sent.find(id);
        if (it == process->sent.end()) return std::nullopt;
        Request r = std::move(it->second);
        process->sent.erase(it);
        return r;
    }

    // On the connection's queue.
    void answered(uint64_t generation, const std::string& id, const ipc::Received& reply) {
        auto request = takeSent(generation, id);
        if (!request) return;  // already broken
        auto items = ExtensionItem::decodeAll(reply.at(0), reply);
        if (auto error = Error::fromValue(reply.at(1)))
            log::error("extension %@: request %@ answered with error %li", identifier, id,
                       error->code);
        auto self = shared_from_this();
        queue->async([self, id, items = std::move(items), request = std::move(*request)]() mutable {
            RequestCompletion handler;
            {
                std::lock_guard lock(self->mutex);
                handler = self->completion;
            }
            if (handler) handler(id, std::move(items));
            // The grants are released here, after the handler.
        });
    }

    void broke(uint64_t generation, const std::string& id, const Error& error) {
        auto request = takeSent(generation, id);
        if (!request) return;
        // A connection that broke will not carry the next request either:
        // the process is forgotten now, so the next request starts a new one.
        if (error.domain == ipc::kIPCErrorDomain &&
            (error.code == ipc::kErrorConnectionInvalid ||
             error.code == ipc::kErrorConnectionInterrupted))
            end(generation, SIGKILL, "its connection broke");
        breakRequests({std::move(*request)},
                      extensionError(kExtensionErrorEnded,
                                     "the request could not be delivered: " + error.description()));
    }

    void breakRequests(std::vector<Request> requests, const Error& error) {
        if (requests.empty()) return;
        auto self = shared_from_this();
        queue->async([self, requests = std::move(requests), error]() mutable {
            RequestCancellation handler;
            {
                std::lock_guard lock(self->mutex);
                handler = self->cancellation;
            }
            for (auto& request : requests) {
                log::error("extension %@: request %@ broken: %@", self->identifier,
                           request.identifier, error.description());
                if (handler) handler(request.identifier, error);
                request.grants.clear();
            }
        });
    }

    // Ends the process of `generation` (0: whichever runs) with `signal`.
    void end(uint64_t generation, int signal, const char* why,
             ExtensionErrorCode code = kExtensionErrorEnded) {
        std::unique_ptr<Process> p;
        {
            std::lock_guard lock(mutex);
            if (!process || (generation != 0 && process->generation != generation)) return;
            p = std::move(process);
        }
        log::info("ending extension %@ (pid %i) with signal %i: %@", identifier, int32_t(p->pid),
                  signal, std::string(why));
        if (::syscall(SYS_pidfd_send_signal, p->pidfd.get(), signal, nullptr, 0) != 0 &&
            errno != ESRCH)
            log::error("extension %@: cannot signal pid %i: %@", identifier, int32_t(p->pid),
                       std::string(std::strerror(errno)));
        retire(std::move(p), extensionError(code, std::string("the extension ended: ") + why));
    }

    // Reaped: on the handle's queue.
    void exited(pid_t pid, uint64_t generation, int status) {
        if (WIFSIGNALED(status))
            log::info("extension %@ (pid %i) ended by signal %i", identifier, int32_t(pid),
                      int32_t(WTERMSIG(status)));
        else
            log::info("extension %@ (pid %i) exited with status %i", identifier, int32_t(pid),
                      int32_t(WEXITSTATUS(status)));
        std::unique_ptr<Process> p;
        {
            std::lock_guard lock(mutex);
            if (!process || process->generation != generation) return;  // already ended
            p = std::move(process);
        }
        retire(std::move(p),
               extensionError(kExtensionErrorEnded, "the extension ended before answering"));
    }

    // Closes the link to a process that ended (or is being ended) and
    // breaks its requests, queued and sent, with `error`.
    void retire(std::unique_ptr<Process> p, const Error& error) {
        if (p->connection) {
            p->connection->setInvalidationHandler(nullptr);
            p->connection->invalidate();
        }
        if (p->listener) p->listener->invalidate();
        std::vector<Request> broken;
        for (auto& r : p->queued) broken.push_back(std::move(r));
        for (auto& [id, r] : p->sent) broken.push_back(std::move(r));
        breakRequests(std::move(broken), error);
    }

    Result<void> spawnLocked() {
        if (executable.empty() || ::access(executable.c_str(), X_OK) != 0)
            return extensionError(kExtensionErrorCannotStart,
                                  "no executable for extension " + identifier);
        auto made = ipc::Listener::anonymous();
        if (!made)
            return extensionError(kExtensionErrorCannotStart,
                                  "no listener: " + made.error().description());
        std::shared_ptr<ipc::Listener> listener = *made;
        listener->setDelegate(std::weak_ptr<ipc::ListenerDelegate>(shared_from_this()));
        listener->resume();
        // Above the standard descriptors and the target, so the child's dup2
        // always makes a new descriptor (which drops close-on-exec).
        UniqueFd endpoint(::fcntl(listener->endpoint().fd(), F_DUPFD_CLOEXEC, 10));
        if (!endpoint.valid())
            return extensionError(kExtensionErrorCannotStart, "no descriptor for the endpoint");

        SandboxedSpawn spawn;
        spawn.executable = executable;
        const std::string fdVar = kExtensionEndpointFdVariable,
                          idVar = kExtensionIdentifierVariable;
        for (char** e = environ; e && *e; ++e) {
            std::string entry = *e;
            if (entry.rfind(fdVar + "=", 0) == 0 || entry.rfind(idVar + "=", 0) == 0) continue;
            spawn.environment.push_back(std::move(entry));
        }
        spawn.environment.push_back(fdVar + "=" + std::to_string(kExtensionEndpointFd));
        spawn.environment.push_back(idVar + "=" + identifier);
        spawn.passFd = endpoint.get();
        spawn.targetFd = kExtensionEndpointFd;
        spawn.deniedDirectories = deniedDirectories;
        auto spawned = spawnSandboxed(spawn);
        if (!spawned) {
            listener->invalidate();
            return extensionError(kExtensionErrorCannotStart, spawned.error().description());
        }
        const pid_t pid = *spawned;
        auto p = std::make_unique<Process>();
        p->pid = pid;
        p->pidfd.reset(int(::syscall(SYS_pidfd_open, pid, 0)));
        p->generation = ++generations;
        p->listener = std::move(listener);
        const uint64_t generation = p->generation;
        process = std::move(p);
        log::info("started extension %@ (pid %i)", identifier, int32_t(pid));

        std::weak_ptr<Impl> weak = weak_from_this();
        auto q = queue;
        // Every child is reaped, whether or not its handle still exists.
        std::thread([pid, generation, weak, q] {
            int status = 0;
            while (::waitpid(pid, &status, 0) < 0 && errno == EINTR) {
            }
            q->async([weak, pid, generation, status] {
                if (auto self = weak.lock()) self->exited(pid, generation, status);
            });
        }).detach();
        queue->asyncAfter(kExtensionConnectTimeout, [weak, generation] {
            auto self = weak.lock();
            if (!self) return;
            {
                std::lock_guard lock(self->mutex);
                if (!self->process || self->process->generation != generation ||
                    self->process->connection)
                    return;
            }
            log::error("extension %@ did not connect within %li s", self->identifier,
                       int64_t(kExtensionConnectTimeout.count()));
            self->end(generation, SIGKILL, "it did not connect in time",
                      kExtensionErrorNotConnected);
        });
        return Result<void>::success();
    }
};

// --- The handle ----------------------------------------------------------------

AppExtension::AppExtension(std::string identifier, std::string bundlePath, Value info)
    : identifier_(std::move(identifier)),
      bundlePath_(std::move(bundlePath)),
      info_(std::move(info)),
      attributes_(Value::object()),
      impl_(std::make_shared<Impl>()) {
    if (const Value* entry = dictAt(info_, kExtensionInfoKey)) {
        point_ = stringAt(*entry, kExtensionPointKey).value_or("");
        executable_ = executableInBundle(bundlePath_, *entry);
        if (const Value* attributes = dictAt(*entry, kExtensionAttributesKey))
            attributes_ = *attributes;
    }
    impl_->identifier = identifier_;
    impl_->executable = executable_;
    impl_->queue = DispatchQueue::serial("org.sorvel.extension." + identifier_);
}

AppExtension::~AppExtension() {
    // A handle nobody holds cannot end its process any more: it ends now.
    impl_->end(0, SIGKILL, "its handle was released");
}

std::string AppExtension::description() const {
    return "<AppExtension " + identifier_ + " " + bundlePath_ + ">";
}

std::shared_ptr<AppExtension> AppExtension::extensionWithBundlePath(const std::string& bundlePath) {
    auto info = readDictionaryFromFile(bundlePath + "/" + kBundleInfoFileName);
    if (!info) return nullptr;
    auto identifier = stringAt(*info, kBundleIdentifierKey);
    if (!identifier || identifier->empty() || !dictAt(*info, kExtensionInfoKey)) return nullptr;
    return std::shared_ptr<AppExtension>(
        new AppExtension(*identifier, bundlePath, std::move(*info)));
}

std::vector<std::shared_ptr<AppExtension>> AppExtension::installedExtensions(
    const std::string& point) {
    std::vector<std::shared_ptr<AppExtension>> found;
    std::set<std::string> seen;
    for (const auto& dir : Bundle::searchPath()) {
        std::vector<std::string> bundles;
        std::error_code ec;
        fs::directory_iterator it(dir, ec), end;
        for (; !ec && it != end; it.increment(ec))
            if (it->is_directory(ec)) bundles.push_back(it->path().string());
        std::sort(bundles.begin(), bundles.end());
        for (const auto& path : bundles) {
            auto extension = extensionWithBundlePath(path);
            if (!extension) {
                // A bundle that is not an extension still takes its identifier.
                if (auto info = readDictionaryFromFile(path + "/" + kBundleInfoFileName))
                    if (auto id = stringAt(*info, kBundleIdentifierKey)) seen.insert(*id);
                continue;
            }
            if (!seen.insert(extension->identifier()).second) continue;
            if (extension->extensionPointIdentifier() == point) found.push_back(extension);
        }
    }
    return found;
}

void AppExtension::extensionsWithMatchingPointName(std::string point, QueryCompletion completion) {
    DispatchQueue::global()->async([point = std::move(point), completion = std::move(completion)] {
        auto found = installedExtensions(point);
        if (completion) completion(std::move(found), std::nullopt);
    });
}

void AppExtension::setRequestCompletionBlock(RequestCompletion handler) {
    std::lock_guard lock(impl_->mutex);
    impl_->completion = std::move(handler);
}

void AppExtension::setInaccessibleDirectories(std::vector<std::string> directories) {
    std::lock_guard lock(impl_->mutex);
    impl_->deniedDirectories = std::move(directories);
}

void AppExtension::setRequestCancellationBlock(RequestCancellation handler) {
    std::lock_guard lock(impl_->mutex);
    impl_->cancellation = std::move(handler);
}

void AppExtension::beginExtensionRequestWithInputItems(
    std::vector<ExtensionItem> items, std::vector<std::shared_ptr<FileAccessToken>> grants,
    BeginCompletion completion) {
    const std::string id = newRequestIdentifier();
    std::function<void()> send;
    OptionalError error;
    {
        std::lock_guard lock(impl_->mutex);
        if (!impl_->process) {
            auto started = impl_->spawnLocked();
            if (!started) error = started.error();
        }
        if (!error) {
            Impl::Request request{id, std::move(items), std::move(grants)};
            if (impl_->process->connection)
                send = impl_->sendLocked(std::move(request));
            else
                impl_->process->queued.push_back(std::move(request));
        }
    }
    // The completion is queued before the request is sent, so it runs
    // before the request's own completion can.
    impl_->queue->async([completion = std::move(completion), id, error] {
        if (completion) completion(error ? std::string() : id, error);
    });
    if (send) send();
}

pid_t AppExtension::pidForRunningProcess() const {
    std::lock_guard lock(impl_->mutex);
    return impl_->process ? impl_->process->pid : -1;
}

void AppExtension::_kill(int signal) {
    impl_->end(0, signal, "asked to end");
}

}  // namespace sv
