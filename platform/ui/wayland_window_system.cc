#include "platform/ui/wayland_window_system.h"

#include <poll.h>
#include <pthread.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cctype>
#include <cerrno>
#include <condition_variable>
#include <cstdlib>
#include <cstring>
#include <map>
#include <mutex>

#include <wayland-client.h>

#include "platform/log.h"
#include "platform/unique_fd.h"
#include "platform/wayland/wayland_display.h"
#include "wlr-foreign-toplevel-management-unstable-v1-client-protocol.h"

namespace sv {
namespace {

// The manager's version this client knows (v3 adds `parent`).
constexpr uint32_t kManagerVersion = 3;
// How long connecting waits for the compositor's answers.
constexpr std::chrono::seconds kAttachTimeout{5};

Error uiError(UIErrorCode code, const std::string& message) {
    return Error::make(kUIErrorDomain, code, message);
}

// The file descriptor that wakes the event thread.
struct EventFd {
    UniqueFd owned{eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)};
    const int fd = owned.get();
    void signal() const {
        uint64_t one = 1;
        if (fd >= 0) (void)!write(fd, &one, sizeof one);
    }
    void drain() const {
        uint64_t n;
        if (fd >= 0) (void)!read(fd, &n, sizeof n);
    }
};

// An app_id that can name an application: 1 to 200 letters, digits, '.',
// '-' and '_' (a desktop file's name).
bool isAppID(const std::string& id) {
    return !id.empty() && id.size() <= 200 && std::all_of(id.begin(), id.end(), [](char ch) {
        return std::isalnum(static_cast<unsigned char>(ch)) || ch == '.' || ch == '-' || ch == '_';
    });
}

struct Connection;

struct Toplevel {
    Connection* connection = nullptr;  // the connection that lists it
    zwlr_foreign_toplevel_handle_v1* proxy = nullptr;
    uint32_t serial = 0;
    // Applied at `done`; the pending values collect the events before it.
    bool known = false;
    std::string appID;
    bool activated = false, minimized = false;
    uint64_t activatedAt = 0;  // the activation tick it last became activated at
    std::string pendingAppID;
    bool pendingActivated = false, pendingMinimized = false;
};

// One connection to the compositor and what it has told; event thread only
// (or before the thread starts). The proxies go before the display.
struct Connection {
    WaylandDisplay display;
    wl_registry* registry = nullptr;
    zwlr_foreign_toplevel_manager_v1* manager = nullptr;
    uint32_t managerName = 0;
    bool managerGone = false;  // finished, or its global removed
    std::map<zwlr_foreign_toplevel_handle_v1*, std::unique_ptr<Toplevel>> toplevels;
    uint32_t nextSerial = 1;
    uint64_t activationTick = 0;
    bool dirty = false;
    // The round trip of a synchronize() request under way.
    wl_callback* sync = nullptr;
    uint64_t syncTarget = 0;
    bool syncAnswered = false;

    ~Connection() {
        for (auto& [proxy, t] : toplevels) zwlr_foreign_toplevel_handle_v1_destroy(proxy);
        if (manager) zwlr_foreign_toplevel_manager_v1_destroy(manager);
        if (sync) wl_callback_destroy(sync);
        if (registry) wl_registry_destroy(registry);
    }
};

// ---- protocol listeners; `data` is the Connection or the Toplevel

void toplevelDone(void* data, zwlr_foreign_toplevel_handle_v1*) {
    auto* t = static_cast<Toplevel*>(data);
    if (t->pendingActivated && !t->activated) t->activatedAt = ++t->connection->activationTick;
    t->known = true;
    t->appID = t->pendingAppID;
    t->activated = t->pendingActivated;
    t->minimized = t->pendingMinimized;
    t->connection->dirty = true;
}

void toplevelClosed(void* data, zwlr_foreign_toplevel_handle_v1* proxy) {
    Connection* c = static_cast<Toplevel*>(data)->connection;
    zwlr_foreign_toplevel_handle_v1_destroy(proxy);
    c->toplevels.erase(proxy);  // frees the toplevel
    c->dirty = true;
}

const zwlr_foreign_toplevel_handle_v1_listener kToplevelListener = {
    // Titles name documents and pages: nothing the service needs or logs.
    .title = [](void*, zwlr_foreign_toplevel_handle_v1*, const char*) {},
    .app_id =
        [](void* data, zwlr_foreign_toplevel_handle_v1*, const char* appID) {
            // Longer than any valid one: kept cut, so that it stays invalid.
            static_cast<Toplevel*>(data)->pendingAppID =
                std::string(appID ? appID : "").substr(0, 201);
        },
    .output_enter = [](void*, zwlr_foreign_toplevel_handle_v1*, wl_output*) {},
    .output_leave = [](void*, zwlr_foreign_toplevel_handle_v1*, wl_output*) {},
    .state =
        [](void* data, zwlr_foreign_toplevel_handle_v1*, wl_array* states) {
            auto* t = static_cast<Toplevel*>(data);
            t->pendingActivated = t->pendingMinimized = false;
            if (!states || !states->data) return;
            const auto* values = static_cast<const uint32_t*>(states->data);
            for (size_t i = 0; i < states->size / sizeof(uint32_t); ++i) {
                if (values[i] == ZWLR_FOREIGN_TOPLEVEL_HANDLE_V1_STATE_ACTIVATED)
                    t->pendingActivated = true;
                if (values[i] == ZWLR_FOREIGN_TOPLEVEL_HANDLE_V1_STATE_MINIMIZED)
                    t->pendingMinimized = true;
            }
        },
    .done = toplevelDone,
    .closed = toplevelClosed,
    .parent = [](void*, zwlr_foreign_toplevel_handle_v1*, zwlr_foreign_toplevel_handle_v1*) {},
};

const zwlr_foreign_toplevel_manager_v1_listener kManagerListener = {
    .toplevel =
        [](void* data, zwlr_foreign_toplevel_manager_v1*, zwlr_foreign_toplevel_handle_v1* proxy) {
            auto* c = static_cast<Connection*>(data);
            if (!proxy) return;
            if (c->toplevels.size() >= kWaylandMaxToplevels) {
                zwlr_foreign_toplevel_handle_v1_destroy(proxy);
                return;
            }
            auto t = std::make_unique<Toplevel>();
            t->proxy = proxy;
            t->serial = c->nextSerial++;
            t->connection = c;
            zwlr_foreign_toplevel_handle_v1_add_listener(proxy, &kToplevelListener, t.get());
            c->toplevels.emplace(proxy, std::move(t));
        },
    .finished =
        [](void* data, zwlr_foreign_toplevel_manager_v1*) {
            static_cast<Connection*>(data)->managerGone = true;
        },
};

const wl_registry_listener kRegistryListener = {
    .global =
        [](void* data, wl_registry* registry, uint32_t name, const char* interface,
           uint32_t version) {
            auto* c = static_cast<Connection*>(data);
            if (c->manager || !interface ||
                std::strcmp(interface, zwlr_foreign_toplevel_manager_v1_interface.name) != 0)
                return;
            c->manager = static_cast<zwlr_foreign_toplevel_manager_v1*>(
                wl_registry_bind(registry, name, &zwlr_foreign_toplevel_manager_v1_interface,
                                 std::min(version, kManagerVersion)));
            if (!c->manager) return;
            c->managerName = name;
            zwlr_foreign_toplevel_manager_v1_add_listener(c->manager, &kManagerListener, c);
        },
    .global_remove =
        [](void* data, wl_registry*, uint32_t name) {
            auto* c = static_cast<Connection*>(data);
            if (c->manager && name == c->managerName) c->managerGone = true;
        },
};

const wl_callback_listener kSyncListener = {
    .done = [](void* data, wl_callback*,
               uint32_t) { static_cast<Connection*>(data)->syncAnswered = true; },
};

struct View {
    DisplayLayout layout;
    std::map<std::string, ApplicationState> apps;
    std::optional<std::string> frontmost;
};

View viewOf(const Connection& c) {
    View view;
    struct Group {
        DisplayLayoutElement element;
        uint64_t order = 0;
    };
    std::map<std::string, Group> groups;
    for (const auto& [proxy, t] : c.toplevels) {
        if (!t->known) continue;
        std::optional<std::string> name;
        if (isAppID(t->appID)) name = "wayland:" + t->appID;
        if (name) {
            auto& s = view.apps[*name];
            s.bundleIdentifier = *name;
            s.state |= kApplicationStateRunning;
            if (!t->minimized) s.state |= kApplicationStateForeground;
            if (t->activated) {
                s.state |= kApplicationStateFrontmost;
                view.frontmost = name;
            }
        }
        if (t->minimized) continue;
        auto [it, inserted] =
            groups.try_emplace(name ? "a:" + *name : "t:" + std::to_string(t->serial));
        Group& g = it->second;
        if (inserted) {
            g.element.identifier = t->serial;
            g.element.bundleIdentifier = name.value_or("");
        }
        g.element.identifier = std::min(g.element.identifier, t->serial);
        g.order = std::max(g.order, t->activatedAt);
    }
    std::vector<const Group*> ordered;
    for (const auto& [key, g] : groups) ordered.push_back(&g);
    std::stable_sort(ordered.begin(), ordered.end(), [](const Group* a, const Group* b) {
        return a->order != b->order ? a->order < b->order
                                    : a->element.identifier < b->element.identifier;
    });
    for (const Group* g : ordered) view.layout.elements.push_back(g->element);
    return view;
}

}  // namespace

class WaylandStateMonitor : public ApplicationStateMonitor {
  public:
    explicit WaylandStateMonitor(std::shared_ptr<WaylandWindowSystem> system)
        : system_(std::move(system)) {}
    void report(const ApplicationState& state) { applicationStateDidChange(state); }

  protected:
    ApplicationState stateOfApplication(const std::string& bundleID) const override {
        return system_->applicationState(bundleID);
    }

  private:
    std::shared_ptr<WaylandWindowSystem> system_;
};

class WaylandLayoutMonitor : public DisplayLayoutMonitor {
  public:
    WaylandLayoutMonitor(std::shared_ptr<WaylandWindowSystem> system, DisplayLayout initial)
        : DisplayLayoutMonitor(std::move(initial)), system_(std::move(system)) {}
    void publish(const DisplayLayout& layout) { updateLayout(layout); }

  private:
    std::shared_ptr<WaylandWindowSystem> system_;
};

struct WaylandWindowSystem::Core {
    std::string displayName;  // empty: $WAYLAND_DISPLAY
    EventFd wake;
    std::atomic<bool> stopping{false};
    // Event thread only (or before it starts); null while the compositor is
    // away.
    std::unique_ptr<Connection> connection;
    bool outageLogged = false;

    // The view as of the last batch of events, and the monitors; guarded by
    // mutex.
    mutable std::mutex mutex;
    bool connected = true;
    View view;
    std::vector<std::weak_ptr<WaylandStateMonitor>> stateMonitors;
    std::vector<std::weak_ptr<WaylandLayoutMonitor>> layoutMonitors;

    // Synchronisation requests (synchronize()).
    std::mutex syncMutex;
    std::condition_variable syncDone;
    uint64_t syncRequested = 0, syncCompleted = 0;

    Result<void> attach();
    void publish(View next);
    void connectionLost(const char* why);
    // After events were dispatched: publishes changes, answers a finished
    // round trip. False when the manager went away.
    bool afterDispatch();
    void track();
    void waitForCompositor();
    void releaseSyncWaiters();
    void run();
};

Result<void> WaylandWindowSystem::Core::attach() {
    const char* name = displayName.empty() ? std::getenv("WAYLAND_DISPLAY") : displayName.c_str();
    if (!name || !*name) return uiError(kUIErrorNoDisplay, "WAYLAND_DISPLAY is not set");
    auto c = std::make_unique<Connection>();
    c->display.reset(wl_display_connect(name));
    if (!c->display)
        return uiError(kUIErrorCannotConnect,
                       std::string("cannot connect to the Wayland compositor ") + name);
    c->registry = wl_display_get_registry(c->display.get());
    if (!c->registry) return uiError(kUIErrorSetupFailed, "cannot list the compositor's globals");
    wl_registry_add_listener(c->registry, &kRegistryListener, c.get());
    const auto deadline = std::chrono::steady_clock::now() + kAttachTimeout;
    // A synchronize() request is looked at by the event loop before it
    // waits, so its wake-up is not needed again; stop() cuts the wait short.
    const RoundtripInterrupt interrupt{wake.fd, [this] {
                                           wake.drain();
                                           return !stopping.load();
                                       }};
    if (!roundtripUntil(c->display.get(), deadline, interrupt))
        return uiError(kUIErrorCannotConnect,
                       std::string("the Wayland compositor ") + name + " does not answer");
    if (!c->manager)
        return uiError(kUIErrorUnsupportedServer,
                       "the Wayland compositor lists no toplevels to clients "
                       "(no zwlr_foreign_toplevel_manager_v1)");
    // The toplevels that exist and their first `done`.
    if (!roundtripUntil(c->display.get(), deadline, interrupt))
        return uiError(kUIErrorCannotConnect,
                       std::string("the Wayland compositor ") + name + " does not answer");
    c->dirty = false;
    const size_t count = c->toplevels.size();
    View next = viewOf(*c);
    connection = std::move(c);
    {
        std::lock_guard lock(mutex);
        connected = true;
    }
    outageLogged = false;
    publish(std::move(next));
    log::info("WaylandWindowSystem: tracking the toplevels of %@ (%lu now)", name, count);
    return {};
}

void WaylandWindowSystem::Core::publish(View next) {
    std::vector<ApplicationState> losers, others;
    auto rank = [](const ApplicationState& s) {
        return (s.isFrontmost() ? 2 : 0) + (s.isForeground() ? 1 : 0);
    };
    std::vector<std::shared_ptr<WaylandStateMonitor>> stateTargets;
    std::vector<std::shared_ptr<WaylandLayoutMonitor>> layoutTargets;
    const bool layoutChanged = !(next.layout == view.layout);
    if (next.frontmost != view.frontmost)
        log::info("WaylandWindowSystem: frontmost application %@",
                  next.frontmost.value_or("(none)"));
    {
        std::lock_guard lock(mutex);
        for (const auto& [bundleID, old] : view.apps) {
            auto it = next.apps.find(bundleID);
            if (it == next.apps.end()) {
                ApplicationState gone = old;
                gone.state = kApplicationStateNotRunning;
                losers.push_back(gone);
            } else if (!(it->second == old)) {
                (rank(it->second) < rank(old) ? losers : others).push_back(it->second);
            }
        }
        for (const auto& [bundleID, now] : next.apps)
            if (!view.apps.count(bundleID)) others.push_back(now);
        view = next;
        std::erase_if(stateMonitors, [](const auto& w) { return w.expired(); });
        std::erase_if(layoutMonitors, [](const auto& w) { return w.expired(); });
        for (const auto& w : stateMonitors)
            if (auto m = w.lock()) stateTargets.push_back(std::move(m));
        if (layoutChanged)
            for (const auto& w : layoutMonitors)
                if (auto m = w.lock()) layoutTargets.push_back(std::move(m));
    }
    // Outside the lock: the monitors' queues are not ours to block, and a
    // monitor released here by its last owner is destroyed on this thread.
    for (const auto& m : layoutTargets) m->publish(next.layout);
    for (const auto& m : stateTargets) {
        for (const auto& s : losers) m->report(s);
        for (const auto& s : others) m->report(s);
    }
}

void WaylandWindowSystem::Core::connectionLost(const char* why) {
    log::error("WaylandWindowSystem: %@; nothing is foreground until the compositor answers again",
               why);
    outageLogged = true;
    connection.reset();
    publish({});
    std::lock_guard lock(mutex);
    connected = false;
}

bool WaylandWindowSystem::Core::afterDispatch() {
    Connection& c = *connection;
    if (c.managerGone) return false;
    if (c.dirty) {
        c.dirty = false;
        publish(viewOf(c));
    }
    if (c.sync && c.syncAnswered) {
        wl_callback_destroy(c.sync);
        c.sync = nullptr;
        c.syncAnswered = false;
        {
            std::lock_guard lock(syncMutex);
            syncCompleted = std::max(syncCompleted, c.syncTarget);
        }
        syncDone.notify_all();
    }
    return true;
}

void WaylandWindowSystem::Core::track() {
    wl_display* d = connection->display.get();
    while (!stopping.load()) {
        Connection& c = *connection;
        if (!c.sync) {
            uint64_t target;
            {
                std::lock_guard lock(syncMutex);
                target = syncRequested;
            }
            if (target > syncCompleted) {
                c.sync = wl_display_sync(d);
                if (c.sync) {
                    c.syncTarget = target;
                    wl_callback_add_listener(c.sync, &kSyncListener, &c);
                }
            }
        }
        bool failed = false;
        while (!failed && wl_display_prepare_read(d) != 0)
            failed = wl_display_dispatch_pending(d) < 0 || !afterDispatch();
        if (failed) return connectionLost("lost the Wayland compositor or its toplevel list");
        if (wl_display_flush(d) < 0 && errno != EAGAIN) {
            wl_display_cancel_read(d);
            return connectionLost("lost the Wayland compositor");
        }
        pollfd fds[2] = {{wl_display_get_fd(d), POLLIN, 0}, {wake.fd, POLLIN, 0}};
        const int n = ::poll(fds, 2, -1);
        if (n > 0 && (fds[0].revents & (POLLIN | POLLERR | POLLHUP))) {
            // A hang-up makes the read fail: the connection is lost then.
            if (wl_display_read_events(d) < 0) return connectionLost("lost the Wayland compositor");
        } else {
            wl_display_cancel_read(d);
        }
        if (n > 0 && (fds[1].revents & POLLIN)) wake.drain();
        if (wl_display_dispatch_pending(d) < 0 || !afterDispatch())
            return connectionLost("lost the Wayland compositor or its toplevel list");
    }
}

void WaylandWindowSystem::Core::releaseSyncWaiters() {
    {
        std::lock_guard lock(syncMutex);
        syncCompleted = syncRequested;
    }
    syncDone.notify_all();
}

void WaylandWindowSystem::Core::waitForCompositor() {
    const auto due = std::chrono::steady_clock::now() + kWaylandReconnectInterval;
    while (!stopping.load()) {
        // Nothing to catch up with while the compositor is away.
        releaseSyncWaiters();
        const auto left = due - std::chrono::steady_clock::now();
        if (left <= std::chrono::steady_clock::duration::zero()) return;
        pollfd fd{wake.fd, POLLIN, 0};
        if (::poll(&fd, 1, int(std::chrono::ceil<std::chrono::milliseconds>(left).count())) > 0)
            wake.drain();
    }
}

void WaylandWindowSystem::Core::run() {
    pthread_setname_np(pthread_self(), "sv-wl-windows");
    while (!stopping.load()) {
        if (connection) {
            track();
            continue;
        }
        waitForCompositor();
        if (stopping.load()) break;
        if (auto attached = attach(); !attached) {
            if (!outageLogged)
                log::error("WaylandWindowSystem: %@; trying again every %lis",
                           attached.error().message(), long(kWaylandReconnectInterval.count()));
            outageLogged = true;
            continue;
        }
        releaseSyncWaiters();
    }
    connection.reset();
    {
        std::lock_guard lock(syncMutex);
        syncCompleted = UINT64_MAX;
    }
    syncDone.notify_all();
}

// ---- the window system

Result<std::shared_ptr<WaylandWindowSystem>> WaylandWindowSystem::connect(
    const std::string& displayName) {
    auto core = std::make_shared<Core>();
    core->displayName = displayName;
    if (core->wake.fd < 0)
        return uiError(kUIErrorSetupFailed, "cannot set up the Wayland window system");
    if (auto attached = core->attach(); !attached) return attached.error();
    auto system = std::shared_ptr<WaylandWindowSystem>(new WaylandWindowSystem(core));
    system->thread_ = std::thread([core] { core->run(); });
    return system;
}

WaylandWindowSystem::WaylandWindowSystem(std::shared_ptr<Core> core) : core_(std::move(core)) {}

WaylandWindowSystem::~WaylandWindowSystem() {
    core_->stopping = true;
    core_->wake.signal();
    if (thread_.joinable()) {
        // The last monitor may be released on the event thread itself; the
        // thread keeps the core alive and ends by itself then.
        if (thread_.get_id() == std::this_thread::get_id())
            thread_.detach();
        else
            thread_.join();
    }
}

DisplayLayout WaylandWindowSystem::currentLayout() const {
    std::lock_guard lock(core_->mutex);
    return core_->view.layout;
}

std::vector<ApplicationState> WaylandWindowSystem::applications() const {
    std::lock_guard lock(core_->mutex);
    std::vector<ApplicationState> list;
    for (const auto& [id, s] : core_->view.apps) list.push_back(s);
    return list;
}

ApplicationState WaylandWindowSystem::applicationState(const std::string& bundleID) const {
    std::lock_guard lock(core_->mutex);
    auto it = core_->view.apps.find(bundleID);
    if (it != core_->view.apps.end()) return it->second;
    ApplicationState s;
    s.bundleIdentifier = bundleID;
    return s;
}

bool WaylandWindowSystem::synchronize(std::chrono::milliseconds timeout) {
    std::unique_lock lock(core_->syncMutex);
    const uint64_t target = ++core_->syncRequested;
    core_->wake.signal();
    const bool done =
        core_->syncDone.wait_for(lock, timeout, [&] { return core_->syncCompleted >= target; });
    lock.unlock();
    return done && isConnected();
}

bool WaylandWindowSystem::isConnected() const {
    std::lock_guard lock(core_->mutex);
    return core_->connected;
}

std::optional<std::string> WaylandWindowSystem::frontmostApplicationBundleIdentifier() {
    std::lock_guard lock(core_->mutex);
    return core_->view.frontmost;
}

std::optional<int32_t> WaylandWindowSystem::processOwningLayerContext(uint32_t) const {
    return std::nullopt;
}

std::shared_ptr<ApplicationStateMonitor> WaylandWindowSystem::makeApplicationStateMonitor() {
    auto monitor = std::make_shared<WaylandStateMonitor>(shared_from_this());
    std::lock_guard lock(core_->mutex);
    core_->stateMonitors.push_back(monitor);
    return monitor;
}

std::shared_ptr<DisplayLayoutMonitor> WaylandWindowSystem::makeMainDisplayLayoutMonitor() {
    std::lock_guard lock(core_->mutex);
    // Made under the lock, so that no change falls between its initial
    // layout and its registration.
    auto monitor = std::make_shared<WaylandLayoutMonitor>(shared_from_this(), core_->view.layout);
    core_->layoutMonitors.push_back(monitor);
    return monitor;
}

}  // namespace sv
