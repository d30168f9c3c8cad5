#include "platform/ui/x11_window_system.h"

#include <poll.h>
#include <pthread.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cctype>
#include <condition_variable>
#include <cstdlib>
#include <cstring>
#include <map>
#include <set>
#include <unordered_map>
#include <unordered_set>

#include <xcb/res.h>
#include <xcb/xcb.h>

#include "platform/log.h"
#include "platform/process/process_info.h"
#include "platform/system/bundle.h"
#include "platform/unique_fd.h"
#include "platform/xcb_handles.h"

namespace sv {
namespace {

// ---- RAII owners of xcb objects

template <typename T>
using Reply = XcbReply<T>;
using Connection = XcbConnection;

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

Error uiError(UIErrorCode code, const std::string& message) {
    return Error::make(kUIErrorDomain, code, message);
}

Result<Connection> openConnection(const std::string& displayName, int* screenNumber) {
    const char* name = displayName.empty() ? nullptr : displayName.c_str();
    if (!name) {
        const char* env = std::getenv("DISPLAY");
        if (!env || !*env) return uiError(kUIErrorNoDisplay, "DISPLAY is not set");
    }
    Connection c(connectXcbSerialized(name, screenNumber));
    if (!c || xcb_connection_has_error(c.get()))
        return uiError(kUIErrorCannotConnect,
                       "cannot connect to X server " +
                           (name ? std::string(name) : std::string(std::getenv("DISPLAY"))));
    return c;
}

// ---- atoms

enum AtomIndex {
    kNetActiveWindow,
    kNetClientList,
    kNetClientListStacking,
    kNetSupportingWmCheck,
    kNetWmPid,
    kNetWmWindowType,
    kNetWmState,
    kWmState,
    kWmClientLeader,
    kTypeDesktop,
    kTypeDock,
    kTypeToolbar,
    kTypeMenu,
    kTypeUtility,
    kTypeSplash,
    kTypeDialog,
    kTypeDropdownMenu,
    kTypePopupMenu,
    kTypeTooltip,
    kTypeNotification,
    kTypeCombo,
    kTypeDnd,
    kTypeNormal,
    kStateHidden,
    kStateAbove,
    kStateBelow,
    kStateModal,
    kStateFullscreen,
    kGtkApplicationId,
    kKdeDesktopFile,
    kUtf8String,
    kAtomCount
};

constexpr const char* kAtomNames[kAtomCount] = {
    "_NET_ACTIVE_WINDOW",
    "_NET_CLIENT_LIST",
    "_NET_CLIENT_LIST_STACKING",
    "_NET_SUPPORTING_WM_CHECK",
    "_NET_WM_PID",
    "_NET_WM_WINDOW_TYPE",
    "_NET_WM_STATE",
    "WM_STATE",
    "WM_CLIENT_LEADER",
    "_NET_WM_WINDOW_TYPE_DESKTOP",
    "_NET_WM_WINDOW_TYPE_DOCK",
    "_NET_WM_WINDOW_TYPE_TOOLBAR",
    "_NET_WM_WINDOW_TYPE_MENU",
    "_NET_WM_WINDOW_TYPE_UTILITY",
    "_NET_WM_WINDOW_TYPE_SPLASH",
    "_NET_WM_WINDOW_TYPE_DIALOG",
    "_NET_WM_WINDOW_TYPE_DROPDOWN_MENU",
    "_NET_WM_WINDOW_TYPE_POPUP_MENU",
    "_NET_WM_WINDOW_TYPE_TOOLTIP",
    "_NET_WM_WINDOW_TYPE_NOTIFICATION",
    "_NET_WM_WINDOW_TYPE_COMBO",
    "_NET_WM_WINDOW_TYPE_DND",
    "_NET_WM_WINDOW_TYPE_NORMAL",
    "_NET_WM_STATE_HIDDEN",
    "_NET_WM_STATE_ABOVE",
    "_NET_WM_STATE_BELOW",
    "_NET_WM_STATE_MODAL",
    "_NET_WM_STATE_FULLSCREEN",
    "_GTK_APPLICATION_ID",
    "_KDE_NET_WM_DESKTOP_FILE",
    "UTF8_STRING",
};

bool internAtoms(xcb_connection_t* c, xcb_atom_t (&atoms)[kAtomCount]) {
    xcb_intern_atom_cookie_t cookies[kAtomCount];
    for (int i = 0; i < kAtomCount; ++i)
        cookies[i] = xcb_intern_atom(c, 0, uint16_t(std::strlen(kAtomNames[i])), kAtomNames[i]);
    bool ok = true;
    for (int i = 0; i < kAtomCount; ++i) {
        Reply<xcb_intern_atom_reply_t> r(xcb_intern_atom_reply(c, cookies[i], nullptr));
        atoms[i] = r ? r->atom : xcb_atom_t(XCB_ATOM_NONE);
        ok = ok && r;
    }
    return ok;
}

// ---- what one scan reads of one window

struct WindowProperties {
    bool hasPid = false, hasWmState = false, hasType = false;
    uint32_t pid = 0;
    uint32_t wmState = 0;  // ICCCM: 1 normal, 3 iconic
    std::vector<xcb_atom_t> types, states;
    xcb_window_t transientFor = XCB_NONE;
    xcb_window_t clientLeader = XCB_NONE;
    std::optional<std::string> clientMachine;
    // What the window says its application is, for owners outside bundles:
    // a desktop application identifier (GTK, KDE), else WM_CLASS's class.
    std::optional<std::string> desktopID;
};

// Property requests of one window, sent together and read together.
struct PropertyCookies {
    xcb_get_property_cookie_t pid, type, state, wmState, transient, leader, machine;
    xcb_get_property_cookie_t gtkAppID, kdeDesktopFile, wmClass;
};

constexpr uint32_t kMaxPropertyWords = 64;

PropertyCookies requestProperties(xcb_connection_t* c, xcb_window_t w,
                                  const xcb_atom_t (&atoms)[kAtomCount]) {
    PropertyCookies k;
    k.pid = xcb_get_property(c, 0, w, atoms[kNetWmPid], XCB_ATOM_CARDINAL, 0, 1);
    k.type =
        xcb_get_property(c, 0, w, atoms[kNetWmWindowType], XCB_ATOM_ATOM, 0, kMaxPropertyWords);
    k.state = xcb_get_property(c, 0, w, atoms[kNetWmState], XCB_ATOM_ATOM, 0, kMaxPropertyWords);
    k.wmState = xcb_get_property(c, 0, w, atoms[kWmState], atoms[kWmState], 0, 2);
    k.transient = xcb_get_property(c, 0, w, XCB_ATOM_WM_TRANSIENT_FOR, XCB_ATOM_WINDOW, 0, 1);
    k.leader = xcb_get_property(c, 0, w, atoms[kWmClientLeader], XCB_ATOM_WINDOW, 0, 1);
    k.machine = xcb_get_property(c, 0, w, XCB_ATOM_WM_CLIENT_MACHINE, XCB_GET_PROPERTY_TYPE_ANY, 0,
                                 kMaxPropertyWords);
    k.gtkAppID = xcb_get_property(c, 0, w, atoms[kGtkApplicationId], atoms[kUtf8String], 0,
                                  kMaxPropertyWords);
    k.kdeDesktopFile =
        xcb_get_property(c, 0, w, atoms[kKdeDesktopFile], atoms[kUtf8String], 0, kMaxPropertyWords);
    k.wmClass = xcb_get_property(c, 0, w, XCB_ATOM_WM_CLASS, XCB_ATOM_STRING, 0, kMaxPropertyWords);
    return k;
}

template <typename T>
std::vector<T> values32(xcb_connection_t* c, xcb_get_property_cookie_t cookie, bool* present) {
    Reply<xcb_get_property_reply_t> r(xcb_get_property_reply(c, cookie, nullptr));
    std::vector<T> out;
    if (present) *present = false;
    if (!r || r->type == XCB_ATOM_NONE || r->format != 32) return out;
    if (present) *present = true;
    int n = xcb_get_property_value_length(r.get()) / 4;
    auto* v = static_cast<const uint32_t*>(xcb_get_property_value(r.get()));
    for (int i = 0; i < n; ++i) out.push_back(T(v[i]));
    return out;
}

// The part of an 8-bit text before its first NUL.
std::string text8Part(std::string s) {
    if (auto nul = s.find('\0'); nul != std::string::npos) s.resize(nul);
    return s;
}

// An 8-bit text property (cut at its first NUL unless `whole`); nothing when
// absent or of another format.
std::optional<std::string> text8(xcb_connection_t* c, xcb_get_property_cookie_t cookie,
                                 bool cut = true) {
    Reply<xcb_get_property_reply_t> r(xcb_get_property_reply(c, cookie, nullptr));
    if (!r || r->type == XCB_ATOM_NONE || r->format != 8) return std::nullopt;
    std::string s(static_cast<const char*>(xcb_get_property_value(r.get())),
                  size_t(xcb_get_property_value_length(r.get())));
    return cut ? text8Part(std::move(s)) : s;
}

// Identifiers a window may give for its application: 1 to 200 letters,
// digits, '.', '-' and '_' (a desktop file's name, a class name).
bool isDesktopID(const std::string& id) {
    return !id.empty() && id.size() <= 200 && std::all_of(id.begin(), id.end(), [](char ch) {
        return std::isalnum(static_cast<unsigned char>(ch)) || ch == '.' || ch == '-' || ch == '_';
    });
}

WindowProperties readProperties(xcb_connection_t* c, const PropertyCookies& k) {
    WindowProperties p;
    auto pid = values32<uint32_t>(c, k.pid, &p.hasPid);
    p.hasPid = !pid.empty() && pid[0] > 0;
    if (p.hasPid) p.pid = pid[0];
    p.types = values32<xcb_atom_t>(c, k.type, &p.hasType);
    p.states = values32<xcb_atom_t>(c, k.state, nullptr);
    auto wmState = values32<uint32_t>(c, k.wmState, &p.hasWmState);
    if (!wmState.empty()) p.wmState = wmState[0];
    auto transient = values32<xcb_window_t>(c, k.transient, nullptr);
    if (!transient.empty()) p.transientFor = transient[0];
    auto leader = values32<xcb_window_t>(c, k.leader, nullptr);
    if (!leader.empty()) p.clientLeader = leader[0];
    p.clientMachine = text8(c, k.machine);
    auto gtk = text8(c, k.gtkAppID);
    auto kde = text8(c, k.kdeDesktopFile);
    // WM_CLASS is "instance\0class\0": the class names the application.
    std::optional<std::string> wmClass;
    if (auto both = text8(c, k.wmClass, false)) {
        auto nul = both->find('\0');
        if (nul != std::string::npos) wmClass = text8Part(both->substr(nul + 1));
    }
    for (const auto& id : {gtk, kde, wmClass})
        if (id && isDesktopID(*id)) {
            p.desktopID = "x11:" + *id;
            break;
        }
    return p;
}

bool contains(const std::vector<xcb_atom_t>& list, xcb_atom_t a) {
    return a != XCB_ATOM_NONE && std::find(list.begin(), list.end(), a) != list.end();
}

// WM_CLIENT_MACHINE names this host (short or fully qualified), or is absent.
bool isLocalMachine(const std::optional<std::string>& machine, const std::string& host) {
    if (!machine || machine->empty() || *machine == "localhost") return true;
    auto shortName = [](const std::string& s) { return s.substr(0, s.find('.')); };
    return *machine == host || shortName(*machine) == shortName(host);
}

// A viewable top-level on the screen, before its properties are read.
struct Candidate {
    xcb_window_t window;
    bool overrideRedirect;
    bool coversScreen;
    PropertyCookies cookies;
};

struct ScannedWindow {
    xcb_window_t topLevel = XCB_NONE;
    xcb_window_t client = XCB_NONE;
    int32_t level = kDisplayLayoutLevelNormal;
    int32_t pid = -1;     // trusted owner process, or -1
    bool remote = false;  // WM_CLIENT_MACHINE names another host
    xcb_window_t leader = XCB_NONE;
    // The owner's bundle, or for a process outside bundles the identifier
    // its window gives ("x11:" + desktop application id or WM_CLASS class).
    std::optional<std::string> bundleID;
    std::optional<std::string> desktopID;
};

// The owner of the active window: its process (or -1) and application.
struct ActiveOwner {
    int32_t pid = -1;
    std::optional<std::string> bundleID;
};

std::string localHostName() {
    char buf[256] = {};
    if (gethostname(buf, sizeof buf - 1) != 0) return {};
    return buf;
}

}  // namespace

// ---- the shared state of the window system and its event thread

class X11StateMonitor;
class X11LayoutMonitor;

// The local process that created each of `windows`, as the X server knows
// it from the client's socket (X-Resource's QueryClientIds): 0 where the
// server cannot say (a remote client, a window gone). One round trip.
std::vector<uint32_t> serverPidsOf(xcb_connection_t* c, uint32_t resourceIdMask,
                                   const std::vector<xcb_window_t>& windows) {
    std::vector<uint32_t> pids(windows.size(), 0);
    if (windows.empty()) return pids;
    std::vector<xcb_res_client_id_spec_t> specs;
    specs.reserve(windows.size());
    for (xcb_window_t w : windows) specs.push_back({w, XCB_RES_CLIENT_ID_MASK_LOCAL_CLIENT_PID});
    Reply<xcb_res_query_client_ids_reply_t> reply(xcb_res_query_client_ids_reply(
        c, xcb_res_query_client_ids(c, uint32_t(specs.size()), specs.data()), nullptr));
    if (!reply) return pids;
    // Answers name the client by its resource base, not by the window.
    std::unordered_map<uint32_t, uint32_t> pidByClient;
    for (auto it = xcb_res_query_client_ids_ids_iterator(reply.get()); it.rem;
         xcb_res_client_id_value_next(&it)) {
        const auto& [asked, valueBytes] = *it.data;  // what was asked, for whom
        if (!(asked.mask & XCB_RES_CLIENT_ID_MASK_LOCAL_CLIENT_PID) ||
            valueBytes < sizeof(uint32_t))
            continue;
        pidByClient[asked.client & ~resourceIdMask] = *xcb_res_client_id_value_value(it.data);
    }
    for (size_t i = 0; i < windows.size(); ++i)
        if (auto found = pidByClient.find(windows[i] & ~resourceIdMask); found != pidByClient.end())
            pids[i] = found->second;
    return pids;
}

struct X11WindowSystem::Core {
    std::string displayName;  // empty: $DISPLAY
    // Replaced on the event thread only (attach); null while the server is
    // away.
    Connection connection;
    xcb_window_t root = XCB_NONE;
    int32_t screenWidth = 0, screenHeight = 0;
    xcb_atom_t atoms[kAtomCount] = {};
    std::string hostName = localHostName();
    // X-Resource 1.2: the server names the local process behind a window.
    bool serverKnowsPids = false;
    uint32_t resourceIdMask = 0;
    EventFd wake;
    std::atomic<bool> stopping{false};

    // The view as of the last scan, and the monitors; guarded by mutex.
    mutable std::mutex mutex;
    bool connected = true;
    DisplayLayout layout;
    std::map<std::string, ApplicationState> apps;  // foreground or frontmost ones
    std::optional<std::string> frontmost;
    // Counted top-level and client windows with a trusted owner process.
    std::unordered_map<uint32_t, int32_t> windowOwners;
    uint64_t scans = 0;
    std::vector<std::weak_ptr<X11StateMonitor>> stateMonitors;
    std::vector<std::weak_ptr<X11LayoutMonitor>> layoutMonitors;

    // Synchronisation requests (synchronize()).
    std::mutex syncMutex;
    std::condition_variable syncDone;
    uint64_t syncRequested = 0, syncCompleted = 0;

    // Event thread only.
    struct TopLevel {
        xcb_window_t below = XCB_NONE;  // the sibling directly below it
        bool onScreen = false;
    };
    std::unordered_map<xcb_window_t, TopLevel> topLevels;
    std::unordered_set<xcb_window_t> selected;
    struct CachedBundle {
        std::string executable;
        std::optional<std::string> bundleID;
    };
    std::unordered_map<uint32_t, CachedBundle> bundles;

    // Whether `event` may change what a scan finds; notes a new screen size.
    bool handleEvent(const xcb_generic_event_t* event);
    bool onScreen(int32_t x, int32_t y, int32_t w, int32_t h) const {
        return w > 0 && h > 0 && x < screenWidth && y < screenHeight && x + w > 0 && y + h > 0;
    }
    std::optional<std::string> bundleOfProcess(uint32_t pid);
    void scan();
    // The steps of one scan, in order; event thread.
    struct RootView {
        xcb_window_t active = XCB_NONE, wmCheck = XCB_NONE;
        std::vector<xcb_window_t> children;  // bottom to top
    };
    // What the next scan finds of the top-levels (replaces topLevels and
    // selected once the scan is done).
    struct Watched {
        std::unordered_map<xcb_window_t, TopLevel> topLevels;
        std::unordered_set<xcb_window_t> selected;
    };
    std::optional<RootView> readRoot();
    std::vector<Candidate> findCandidates(const RootView& root, Watched& next);
    std::vector<xcb_window_t> findClients(const std::vector<Candidate>& candidates,
                                          std::vector<WindowProperties>& props, Watched& next);
    std::vector<xcb_window_t> searchFramedClients(const std::vector<xcb_window_t>& frames);
    std::vector<ScannedWindow> ownedWindows(const std::vector<Candidate>& candidates,
                                            const std::vector<WindowProperties>& props,
                                            const std::vector<xcb_window_t>& clients);
    void findServerPids(std::vector<ScannedWindow>& windows);
    ActiveOwner activeOwner(xcb_window_t active, const std::vector<ScannedWindow>& windows);
    void publish(DisplayLayout newLayout, std::map<std::string, ApplicationState> newApps,
                 std::optional<std::string> newFrontmost);
    void connectionLost();
    // (Re)connects, learns the screen, selects its events and scans it.
    // Event thread (or before it starts). False, with the reason, when the
    // server cannot be reached.
    Result<void> attach();
    size_t currentElementCount() const;
    // Handles events until the connection breaks or stopping is set.
    void track();
    // Waits until the next attempt to reach the server is due, answering
    // synchronize() meanwhile (false: nothing to catch up with).
    void waitForServer();
    void releaseSyncWaiters();
    void run();
};

class X11StateMonitor : public ApplicationStateMonitor {
  public:
    explicit X11StateMonitor(std::shared_ptr<X11WindowSystem> system)
        : system_(std::move(system)) {}
    void report(const ApplicationState& state) { applicationStateDidChange(state); }

  protected:
    ApplicationState stateOfApplication(const std::string& bundleID) const override {
        return system_->applicationState(bundleID);
    }

  private:
    std::shared_ptr<X11WindowSystem> system_;
};

class X11LayoutMonitor : public DisplayLayoutMonitor {
  public:
    X11LayoutMonitor(std::shared_ptr<X11WindowSystem> system, DisplayLayout initial)
        : DisplayLayoutMonitor(std::move(initial)), system_(std::move(system)) {}
    void publish(const DisplayLayout& layout) { updateLayout(layout); }

  private:
    std::shared_ptr<X11WindowSystem> system_;
};

bool X11WindowSystem::Core::handleEvent(const xcb_generic_event_t* event) {
    switch (event->response_type & 0x7F) {
        case XCB_PROPERTY_NOTIFY: {
            auto* e = reinterpret_cast<const xcb_property_notify_event_t*>(event);
            if (e->window == root)
                return e->atom == atoms[kNetActiveWindow] || e->atom == atoms[kNetClientList] ||
                       e->atom == atoms[kNetClientListStacking];
            return e->atom == atoms[kNetWmPid] || e->atom == atoms[kNetWmWindowType] ||
                   e->atom == atoms[kNetWmState] || e->atom == atoms[kWmState] ||
                   e->atom == atoms[kWmClientLeader] || e->atom == XCB_ATOM_WM_TRANSIENT_FOR ||
                   e->atom == XCB_ATOM_WM_CLIENT_MACHINE;
        }
        case XCB_CONFIGURE_NOTIFY: {
            // Moves and resizes matter only when they change the stacking
            // order or whether a top-level is on the screen at all, so that
            // dragging a window around costs no scans.
            auto* e = reinterpret_cast<const xcb_configure_notify_event_t*>(event);
            if (e->window == root) {  // the screen changed size
                screenWidth = e->width;
                screenHeight = e->height;
                return true;
            }
            if (e->event != root) return false;
            auto it = topLevels.find(e->window);
            if (it == topLevels.end()) return true;
            int32_t b = 2 * e->border_width;
            return it->second.below != e->above_sibling ||
                   it->second.onScreen != onScreen(e->x, e->y, e->width + b, e->height + b);
        }
        case XCB_MAP_NOTIFY:
        case XCB_UNMAP_NOTIFY:
        case XCB_DESTROY_NOTIFY:
        case XCB_REPARENT_NOTIFY:
        case XCB_CIRCULATE_NOTIFY:
            return true;
        default:
            return false;  // errors (windows that went away meanwhile) included
    }
}

std::optional<std::string> X11WindowSystem::Core::bundleOfProcess(uint32_t pid) {
    char path[kMaxProcessPathBytes];
    int n = processExecutablePath(pid_t(pid), path, sizeof path);
    if (n <= 0) return std::nullopt;
    std::string executable(path, size_t(n));
    auto it = bundles.find(pid);
    if (it != bundles.end() && it->second.executable == executable) return it->second.bundleID;
    std::optional<std::string> id;
    if (auto bundle = Bundle::bundleForExecutablePath(executable)) id = bundle->bundleIdentifier();
    bundles[pid] = {executable, id};
    return id;
}

namespace {

int32_t levelOf(const WindowProperties& p, bool overrideRedirect, bool coversScreen,
                const xcb_atom_t (&a)[kAtomCount]) {
    auto type = [&](int i) { return contains(p.types, a[i]); };
    auto state = [&](int i) { return contains(p.states, a[i]); };
    if (state(kStateFullscreen) || (overrideRedirect && coversScreen))
        return kDisplayLayoutLevelNormal;
    if (state(kStateAbove)) return kDisplayLayoutLevelAbove;
    if (type(kTypeNotification)) return kDisplayLayoutLevelNotification;
    if (type(kTypePopupMenu) || type(kTypeDropdownMenu) || type(kTypeTooltip) || type(kTypeCombo) ||
        type(kTypeDnd) || overrideRedirect)
        return kDisplayLayoutLevelPopup;
    if (type(kTypeDialog) || state(kStateModal) || (p.types.empty() && p.transientFor != XCB_NONE))
        return kDisplayLayoutLevelDialog;
    if (state(kStateBelow)) return kDisplayLayoutLevelBelow;
    return kDisplayLayoutLevelNormal;
}

// One element per owner, at the position of its topmost window.
DisplayLayout layoutOf(const std::vector<ScannedWindow>& windows) {
    auto ownerKey = [](const ScannedWindow& w) -> std::string {
        if (w.bundleID) return "b:" + *w.bundleID;
        if (w.pid > 0) return "p:" + std::to_string(w.pid);
        if (w.leader != XCB_NONE) return "l:" + std::to_string(w.leader);
        return "w:" + std::to_string(w.client);
    };
    struct Group {
        DisplayLayoutElement element;
        size_t topmost = 0;
    };
    std::map<std::string, Group> groups;
    for (size_t i = 0; i < windows.size(); ++i) {
        const auto& w = windows[i];
        auto [it, inserted] = groups.try_emplace(ownerKey(w));
        Group& g = it->second;
        if (inserted) {
            g.element.level = w.level;
            g.element.identifier = w.client;
            g.element.pid = w.pid;
            g.element.bundleIdentifier = w.bundleID.value_or("");
        } else {
            g.element.level = std::min(g.element.level, w.level);
            g.element.identifier = std::min<uint32_t>(g.element.identifier, w.client);
        }
        g.topmost = i;  // windows are bottom to top
    }
    std::vector<const Group*> ordered;
    for (const auto& [key, g] : groups) ordered.push_back(&g);
    std::sort(ordered.begin(), ordered.end(),
              [](const Group* a, const Group* b) { return a->topmost < b->topmost; });
    DisplayLayout layout;
    for (const auto* g : ordered) layout.elements.push_back(g->element);
    return layout;
}

// Applications: foreground with a counted window, frontmost with the
// active one. The pid reported is that of the topmost window (or of the
// active window for the frontmost application).
std::map<std::string, ApplicationState> applicationsOf(const std::vector<ScannedWindow>& windows,
                                                       const ActiveOwner& active) {
    std::map<std::string, ApplicationState> apps;
    for (const auto& w : windows) {
        if (!w.bundleID) continue;
        auto& s = apps[*w.bundleID];
        s.bundleIdentifier = *w.bundleID;
        s.pid = w.pid;
        s.state |= kApplicationStateRunning | kApplicationStateForeground;
    }
    if (active.bundleID) {
        auto& s = apps[*active.bundleID];
        s.bundleIdentifier = *active.bundleID;
        s.pid = active.pid;
        s.state |= kApplicationStateRunning | kApplicationStateFrontmost;
    }
    return apps;
}

// Counted top-level and client windows with a trusted owner process.
std::unordered_map<uint32_t, int32_t> windowOwnersOf(const std::vector<ScannedWindow>& windows) {
    std::unordered_map<uint32_t, int32_t> owners;
    for (const auto& w : windows) {
        if (w.pid <= 0) continue;
        owners[w.client] = w.pid;
        owners[w.topLevel] = w.pid;
    }
    return owners;
}

}  // namespace

// Every step of a scan sends its requests for all windows before it reads
// a reply, so a scan costs a handful of round trips however many windows
// the screen has.
void X11WindowSystem::Core::scan() {
    auto rootView = readRoot();
    if (!rootView) return;
    Watched next;
    auto candidates = findCandidates(*rootView, next);
    std::vector<WindowProperties> props;
    auto clients = findClients(candidates, props, next);
    auto windows = ownedWindows(candidates, props, clients);
    topLevels = std::move(next.topLevels);
    selected = std::move(next.selected);
    xcb_flush(connection.get());

    ActiveOwner active = activeOwner(rootView->active, windows);
    // Processes that no longer own a window leave the bundle cache.
    std::erase_if(bundles, [&](const auto& entry) {
        return uint32_t(active.pid) != entry.first &&
               std::none_of(windows.begin(), windows.end(),
                            [&](const ScannedWindow& w) { return uint32_t(w.pid) == entry.first; });
    });
    auto owners = windowOwnersOf(windows);
    {
        std::lock_guard lock(mutex);
        windowOwners = std::move(owners);
    }
    publish(layoutOf(windows), applicationsOf(windows, active), active.bundleID);
}

std::optional<X11WindowSystem::Core::RootView> X11WindowSystem::Core::readRoot() {
    xcb_connection_t* c = connection.get();
    auto treeCookie = xcb_query_tree(c, root);
    auto activeCookie =
        xcb_get_property(c, 0, root, atoms[kNetActiveWindow], XCB_ATOM_WINDOW, 0, 1);
    auto checkCookie =
        xcb_get_property(c, 0, root, atoms[kNetSupportingWmCheck], XCB_ATOM_WINDOW, 0, 1);
    Reply<xcb_query_tree_reply_t> tree(xcb_query_tree_reply(c, treeCookie, nullptr));
    auto active = values32<xcb_window_t>(c, activeCookie, nullptr);
    auto check = values32<xcb_window_t>(c, checkCookie, nullptr);
    if (!tree) return std::nullopt;
    RootView view;
    view.active = active.empty() ? XCB_NONE : active[0];
    view.wmCheck = check.empty() ? XCB_NONE : check[0];
    // Bottom to top; only the topmost kX11MaxScannedWindows.
    auto* childPtr = xcb_query_tree_children(tree.get());
    view.children.assign(childPtr, childPtr + xcb_query_tree_children_length(tree.get()));
    if (view.children.size() > kX11MaxScannedWindows)
        view.children.erase(view.children.begin(),
                            view.children.end() - long(kX11MaxScannedWindows));
    return view;
}

// Watches every top-level and asks for the properties of those that show
// on the screen.
std::vector<Candidate> X11WindowSystem::Core::findCandidates(const RootView& view, Watched& next) {
    xcb_connection_t* c = connection.get();
    const auto& children = view.children;
    std::vector<xcb_get_window_attributes_cookie_t> attrCookies;
    std::vector<xcb_get_geometry_cookie_t> geometryCookies;
    for (auto w : children) {
        attrCookies.push_back(xcb_get_window_attributes(c, w));
        geometryCookies.push_back(xcb_get_geometry(c, w));
    }
    std::vector<Candidate> candidates;
    const uint32_t topMask[] = {XCB_EVENT_MASK_STRUCTURE_NOTIFY |
                                XCB_EVENT_MASK_SUBSTRUCTURE_NOTIFY |
                                XCB_EVENT_MASK_PROPERTY_CHANGE};
    for (size_t i = 0; i < children.size(); ++i) {
        xcb_window_t w = children[i];
        Reply<xcb_get_window_attributes_reply_t> attr(
            xcb_get_window_attributes_reply(c, attrCookies[i], nullptr));
        Reply<xcb_get_geometry_reply_t> geo(xcb_get_geometry_reply(c, geometryCookies[i], nullptr));
        if (!attr || !geo) continue;  // gone meanwhile
        int32_t b = 2 * geo->border_width;
        int32_t x = geo->x, y = geo->y, width = geo->width + b, height = geo->height + b;
        bool visible = onScreen(x, y, width, height);
        next.topLevels[w] = {i > 0 ? children[i - 1] : xcb_window_t(XCB_NONE), visible};
        // Every top-level is watched, mapped or not, so that its properties
        // are current when it appears.
        if (!selected.count(w)) xcb_change_window_attributes(c, w, XCB_CW_EVENT_MASK, topMask);
        next.selected.insert(w);
        if (attr->map_state != XCB_MAP_STATE_VIEWABLE ||
            attr->_class != XCB_WINDOW_CLASS_INPUT_OUTPUT || !visible || w == view.wmCheck)
            continue;
        bool covers = x <= 0 && y <= 0 && x + width >= screenWidth && y + height >= screenHeight;
        candidates.push_back(
            {w, bool(attr->override_redirect), covers, requestProperties(c, w, atoms)});
    }
    return candidates;
}

// The client window of each candidate (itself, or the one a window
// manager's frame holds), with its properties in `props`.
std::vector<xcb_window_t> X11WindowSystem::Core::findClients(
    const std::vector<Candidate>& candidates, std::vector<WindowProperties>& props, Watched& next) {
    xcb_connection_t* c = connection.get();
    props.assign(candidates.size(), {});
    std::vector<xcb_window_t> clients(candidates.size());
    std::vector<size_t> framed;  // candidates whose client is to be found
    std::vector<xcb_window_t> frames;
    for (size_t i = 0; i < candidates.size(); ++i) {
        props[i] = readProperties(c, candidates[i].cookies);
        clients[i] = candidates[i].window;
        const auto& p = props[i];
        if (!(p.hasPid || p.hasWmState || p.hasType || candidates[i].overrideRedirect)) {
            framed.push_back(i);
            frames.push_back(candidates[i].window);
        }
    }
    auto found = searchFramedClients(frames);
    std::vector<std::pair<size_t, PropertyCookies>> clientCookies;
    const uint32_t clientMask[] = {XCB_EVENT_MASK_PROPERTY_CHANGE};
    for (size_t f = 0; f < framed.size(); ++f) {
        if (found[f] == XCB_NONE) continue;  // a bare window: it is its own client
        size_t i = framed[f];
        clients[i] = found[f];
        clientCookies.emplace_back(i, requestProperties(c, found[f], atoms));
        if (!selected.count(found[f]))
            xcb_change_window_attributes(c, found[f], XCB_CW_EVENT_MASK, clientMask);
        next.selected.insert(found[f]);
    }
    for (const auto& [i, cookies] : clientCookies) props[i] = readProperties(c, cookies);
    return clients;
}

// Window manager frames: the client is the descendant with WM_STATE,
// searched breadth-first, three levels deep, at most 64 windows a level.
// XCB_NONE where there is none.
std::vector<xcb_window_t> X11WindowSystem::Core::searchFramedClients(
    const std::vector<xcb_window_t>& frames) {
    xcb_connection_t* c = connection.get();
    constexpr size_t kMaxSearchedPerLevel = 64;
    const size_t n = frames.size();
    std::vector<std::vector<xcb_window_t>> level(n);
    std::vector<xcb_window_t> found(n, XCB_NONE);
    for (size_t f = 0; f < n; ++f) level[f] = {frames[f]};
    for (int depth = 0; depth < 3; ++depth) {
        std::vector<std::vector<xcb_query_tree_cookie_t>> treeCookies(n);
        for (size_t f = 0; f < n; ++f)
            if (found[f] == XCB_NONE)
                for (auto parent : level[f]) treeCookies[f].push_back(xcb_query_tree(c, parent));
        std::vector<std::vector<xcb_get_property_cookie_t>> stateCookies(n);
        for (size_t f = 0; f < n; ++f) {
            std::vector<xcb_window_t> nextLevel;
            for (auto cookie : treeCookies[f]) {
                Reply<xcb_query_tree_reply_t> sub(xcb_query_tree_reply(c, cookie, nullptr));
                if (!sub) continue;
                auto* kids = xcb_query_tree_children(sub.get());
                size_t count = size_t(xcb_query_tree_children_length(sub.get()));
                size_t room = kMaxSearchedPerLevel - nextLevel.size();
                nextLevel.insert(nextLevel.end(), kids, kids + std::min(count, room));
            }
            level[f] = std::move(nextLevel);
            for (auto k : level[f])
                stateCookies[f].push_back(
                    xcb_get_property(c, 0, k, atoms[kWmState], atoms[kWmState], 0, 0));
        }
        for (size_t f = 0; f < n; ++f) {
            for (size_t k = 0; k < stateCookies[f].size(); ++k) {
                Reply<xcb_get_property_reply_t> r(
                    xcb_get_property_reply(c, stateCookies[f][k], nullptr));
                if (found[f] == XCB_NONE && r && r->type != XCB_ATOM_NONE) found[f] = level[f][k];
            }
        }
    }
    return found;
}

// The windows that count, with their level and owner: the window's own
// _NET_WM_PID, else its client leader's, else what the server knows.
std::vector<ScannedWindow> X11WindowSystem::Core::ownedWindows(
    const std::vector<Candidate>& candidates, const std::vector<WindowProperties>& props,
    const std::vector<xcb_window_t>& clients) {
    xcb_connection_t* c = connection.get();
    std::vector<ScannedWindow> windows;
    std::vector<std::pair<size_t, xcb_get_property_cookie_t>> leaderCookies;
    for (size_t i = 0; i < candidates.size(); ++i) {
        const auto& p = props[i];
        if (contains(p.types, atoms[kTypeDesktop]) || contains(p.types, atoms[kTypeDock]))
            continue;  // the desktop's furniture, see the header
        if (contains(p.states, atoms[kStateHidden]) || p.wmState == 3) continue;
        ScannedWindow sw;
        sw.topLevel = candidates[i].window;
        sw.client = clients[i];
        sw.level = levelOf(p, candidates[i].overrideRedirect, candidates[i].coversScreen, atoms);
        sw.leader = p.clientLeader;
        sw.desktopID = p.desktopID;
        bool local = isLocalMachine(p.clientMachine, hostName);
        sw.remote = !local;
        if (p.hasPid && local)
            sw.pid = int32_t(p.pid);
        else if (local && p.clientLeader != XCB_NONE && p.clientLeader != sw.client)
            leaderCookies.emplace_back(
                windows.size(),
                xcb_get_property(c, 0, p.clientLeader, atoms[kNetWmPid], XCB_ATOM_CARDINAL, 0, 1));
        windows.push_back(std::move(sw));
    }
    for (const auto& [w, cookie] : leaderCookies) {
        auto leaderPid = values32<uint32_t>(c, cookie, nullptr);
        if (!leaderPid.empty() && leaderPid[0] > 0) windows[w].pid = int32_t(leaderPid[0]);
    }
    findServerPids(windows);
    for (auto& sw : windows) {
        if (sw.pid <= 0) continue;
        sw.bundleID = bundleOfProcess(uint32_t(sw.pid));
        // A local process outside bundles: the application its window names.
        if (!sw.bundleID) sw.bundleID = sw.desktopID;
    }
    return windows;
}

// Clients that set no _NET_WM_PID (plain xcb or Xlib programs): the server
// knows which local process made the window.
void X11WindowSystem::Core::findServerPids(std::vector<ScannedWindow>& windows) {
    if (!serverKnowsPids) return;
    std::vector<size_t> unowned;
    std::vector<xcb_window_t> clientWindows;
    for (size_t i = 0; i < windows.size(); ++i)
        if (windows[i].pid <= 0 && !windows[i].remote) {
            unowned.push_back(i);
            clientWindows.push_back(windows[i].client);
        }
    auto pids = serverPidsOf(connection.get(), resourceIdMask, clientWindows);
    for (size_t k = 0; k < unowned.size(); ++k)
        if (pids[k] > 0 && pids[k] <= uint32_t(INT32_MAX))
            windows[unowned[k]].pid = int32_t(pids[k]);
}

// The owner of the active window: one of `windows` (the active window may
// be the frame or the client), else the window's own claim.
ActiveOwner X11WindowSystem::Core::activeOwner(xcb_window_t activeWindow,
                                               const std::vector<ScannedWindow>& windows) {
    ActiveOwner owner;
    if (activeWindow == XCB_NONE) return owner;
    auto it = std::find_if(windows.begin(), windows.end(), [&](const ScannedWindow& w) {
        return w.client == activeWindow || w.topLevel == activeWindow;
    });
    if (it != windows.end()) return {it->pid, it->bundleID};
    xcb_connection_t* c = connection.get();
    WindowProperties p = readProperties(c, requestProperties(c, activeWindow, atoms));
    const bool local = isLocalMachine(p.clientMachine, hostName);
    uint32_t pid = p.hasPid && local ? p.pid : 0;
    if (!pid && local && serverKnowsPids) pid = serverPidsOf(c, resourceIdMask, {activeWindow})[0];
    if (pid > 0 && pid <= uint32_t(INT32_MAX)) {
        owner.pid = int32_t(pid);
        owner.bundleID = bundleOfProcess(pid);
        if (!owner.bundleID) owner.bundleID = p.desktopID;
    }
    return owner;
}

void X11WindowSystem::Core::publish(DisplayLayout newLayout,
                                    std::map<std::string, ApplicationState> newApps,
                                    std::optional<std::string> newFrontmost) {
    std::vector<ApplicationState> losers, others;
    auto rank = [](const ApplicationState& s) {
        return (s.isFrontmost() ? 2 : 0) + (s.isForeground() ? 1 : 0);
    };
    std::vector<std::shared_ptr<X11StateMonitor>> stateTargets;
    std::vector<std::shared_ptr<X11LayoutMonitor>> layoutTargets;
    {
        std::lock_guard lock(mutex);
        for (const auto& [bundleID, old] : apps) {
            auto it = newApps.find(bundleID);
            if (it == newApps.end()) {
                ApplicationState gone = old;
                gone.state = kApplicationStateNotRunning;
                losers.push_back(gone);
            } else if (!(it->second == old)) {
                (rank(it->second) < rank(old) ? losers : others).push_back(it->second);
            }
        }
        for (const auto& [bundleID, now] : newApps)
            if (!apps.count(bundleID)) others.push_back(now);
        apps = std::move(newApps);
        layout = newLayout;
        frontmost = std::move(newFrontmost);
        ++scans;
        std::erase_if(stateMonitors, [](const auto& w) { return w.expired(); });
        std::erase_if(layoutMonitors, [](const auto& w) { return w.expired(); });
        for (const auto& w : stateMonitors)
            if (auto m = w.lock()) stateTargets.push_back(std::move(m));
        for (const auto& w : layoutMonitors)
            if (auto m = w.lock()) layoutTargets.push_back(std::move(m));
    }
    // Outside the lock: the monitors' queues are not ours to block, and a
    // monitor released here by its last owner is destroyed on this thread.
    for (const auto& m : layoutTargets) m->publish(newLayout);
    for (const auto& m : stateTargets) {
        for (const auto& s : losers) m->report(s);
        for (const auto& s : others) m->report(s);
    }
}

void X11WindowSystem::Core::connectionLost() {
    log::error("X11WindowSystem: lost the connection to the X server (error %i)",
               xcb_connection_has_error(connection.get()));
    publish({}, {}, std::nullopt);
    std::lock_guard lock(mutex);
    connected = false;
    windowOwners.clear();
}

namespace {

// Scans allowed now: a burst of kX11RescanBurst, refilled at one every
// kX11MinRescanInterval. An isolated change is scanned at once; a flood is
// scanned at the refill rate.
class ScanBudget {
  public:
    using Clock = std::chrono::steady_clock;
    // Zero when a scan may run now (and takes it), else how long to wait.
    Clock::duration take() {
        auto now = Clock::now();
        tokens_ = std::min<double>(
            kX11RescanBurst, tokens_ + std::chrono::duration<double>(now - refilled_) /
                                           std::chrono::duration<double>(kX11MinRescanInterval));
        refilled_ = now;
        if (tokens_ >= 1) {
            tokens_ -= 1;
            return Clock::duration::zero();
        }
        return std::chrono::duration_cast<Clock::duration>((1 - tokens_) * kX11MinRescanInterval);
    }

  private:
    double tokens_ = kX11RescanBurst;
    Clock::time_point refilled_ = Clock::now();
};

}  // namespace

void X11WindowSystem::Core::run() {
    pthread_setname_np(pthread_self(), "sv-x11-windows");
    while (!stopping.load()) {
        if (connection && !xcb_connection_has_error(connection.get())) {
            track();
            continue;
        }
        waitForServer();
        if (stopping.load()) break;
        if (!attach()) continue;
        // Waiters that asked before the server came back see it now.
        releaseSyncWaiters();
    }
    // Waiters of synchronize() are released whatever happened.
    {
        std::lock_guard lock(syncMutex);
        syncCompleted = UINT64_MAX;
    }
    syncDone.notify_all();
}

void X11WindowSystem::Core::releaseSyncWaiters() {
    {
        std::lock_guard lock(syncMutex);
        syncCompleted = syncRequested;
    }
    syncDone.notify_all();
}

void X11WindowSystem::Core::waitForServer() {
    // A server that went away (restarted, a new login) or is not up yet is
    // tried again every two seconds; nothing is known meanwhile, so
    // synchronize() returns at once.
    const auto due = std::chrono::steady_clock::now() + kX11ReconnectInterval;
    while (!stopping.load()) {
        releaseSyncWaiters();
        const auto left = due - std::chrono::steady_clock::now();
        if (left <= std::chrono::steady_clock::duration::zero()) return;
        pollfd fd{wake.fd, POLLIN, 0};
        if (poll(&fd, 1, int(std::chrono::ceil<std::chrono::milliseconds>(left).count())) > 0)
            wake.drain();
    }
}

void X11WindowSystem::Core::track() {
    xcb_connection_t* c = connection.get();
    ScanBudget budget;
    bool dirty = false;
    while (!stopping.load()) {
        // Events that xcb has read already are not signalled on the socket.
        while (auto* e = xcb_poll_for_event(c)) {
            dirty = handleEvent(e) || dirty;
            std::free(e);
        }
        if (xcb_connection_has_error(c)) {
            connectionLost();
            return;
        }
        uint64_t syncTarget;
        {
            std::lock_guard lock(syncMutex);
            syncTarget = syncRequested;
        }
        if (syncTarget > syncCompleted) {
            // A round trip: every event sent before the reply is queued then.
            Reply<xcb_get_input_focus_reply_t> r(
                xcb_get_input_focus_reply(c, xcb_get_input_focus(c), nullptr));
            while (auto* e = xcb_poll_for_queued_event(c)) {
                dirty = handleEvent(e) || dirty;
                std::free(e);
            }
            if (dirty) {
                budget.take();  // counted, but a waiter is never kept waiting
                scan();
                dirty = false;
            }
            {
                std::lock_guard lock(syncMutex);
                syncCompleted = syncTarget;
            }
            syncDone.notify_all();
            continue;
        }
        int timeoutMs = -1;
        if (dirty) {
            auto wait = budget.take();
            if (wait == ScanBudget::Clock::duration::zero()) {
                scan();
                dirty = false;
                continue;  // the scan may have queued events
            }
            timeoutMs = int(std::chrono::ceil<std::chrono::milliseconds>(wait).count());
        }
        pollfd fds[2] = {{xcb_get_file_descriptor(c), POLLIN, 0}, {wake.fd, POLLIN, 0}};
        int n = poll(fds, 2, timeoutMs);
        if (n > 0 && (fds[1].revents & POLLIN)) wake.drain();
        if (n > 0 && (fds[0].revents & (POLLERR | POLLHUP)) && !(fds[0].revents & POLLIN)) {
            // xcb notices the hang-up on its next read.
            if (auto* e = xcb_poll_for_event(c)) std::free(e);
        }
    }
}

// ---- the window system

bool X11WindowSystem::serverAnswers(const std::string& displayName) {
    int screen = 0;
    return openConnection(displayName, &screen).ok();
}

Result<void> X11WindowSystem::Core::attach() {
    int screenNumber = 0;
    auto opened = openConnection(displayName, &screenNumber);
    if (!opened) return opened.error();
    Connection fresh = std::move(*opened);
    xcb_connection_t* c = fresh.get();
    auto it = xcb_setup_roots_iterator(xcb_get_setup(c));
    for (int i = 0; i < screenNumber && it.rem; ++i) xcb_screen_next(&it);
    if (!it.rem || !it.data)
        return uiError(kUIErrorUnsupportedServer, "the X server has no such screen");
    if (!internAtoms(c, atoms))
        return uiError(kUIErrorSetupFailed, "cannot set up the X11 window system");
    root = it.data->root;
    resourceIdMask = xcb_get_setup(c)->resource_id_mask;
    serverKnowsPids = false;
    if (const auto* ext = xcb_get_extension_data(c, &xcb_res_id); ext && ext->present) {
        Reply<xcb_res_query_version_reply_t> version(
            xcb_res_query_version_reply(c, xcb_res_query_version(c, 1, 2), nullptr));
        serverKnowsPids = version && (version->server_major > 1 ||
                                      (version->server_major == 1 && version->server_minor >= 2));
    }
    screenWidth = it.data->width_in_pixels;
    screenHeight = it.data->height_in_pixels;
    const uint32_t rootMask[] = {XCB_EVENT_MASK_PROPERTY_CHANGE | XCB_EVENT_MASK_STRUCTURE_NOTIFY |
                                 XCB_EVENT_MASK_SUBSTRUCTURE_NOTIFY};
    xcb_change_window_attributes(c, root, XCB_CW_EVENT_MASK, rootMask);
    // What was learnt on an earlier connection means nothing on this one.
    topLevels.clear();
    selected.clear();
    bundles.clear();
    connection = std::move(fresh);
    {
        std::lock_guard lock(mutex);
        connected = true;
    }
    scan();
    log::info("X11WindowSystem: tracking screen %i (%ix%i), %lu layout elements", screenNumber,
              screenWidth, screenHeight, currentElementCount());
    return {};
}

size_t X11WindowSystem::Core::currentElementCount() const {
    std::lock_guard lock(mutex);
    return layout.elements.size();
}

Result<std::shared_ptr<X11WindowSystem>> X11WindowSystem::connect(const std::string& displayName,
                                                                  bool waitForServer) {
    auto core = std::make_shared<Core>();
    core->displayName = displayName;
    if (core->wake.fd < 0)
        return uiError(kUIErrorSetupFailed, "cannot set up the X11 window system");
    if (auto attached = core->attach(); !attached) {
        const char* d = std::getenv("DISPLAY");
        if (!waitForServer || (displayName.empty() && (!d || !*d))) return attached.error();
        log::info("X11WindowSystem: %@; tracking starts once the X server answers",
                  attached.error().message());
        std::lock_guard lock(core->mutex);
        core->connected = false;
    }
    auto system = std::shared_ptr<X11WindowSystem>(new X11WindowSystem(core));
    system->thread_ = std::thread([core] { core->run(); });
    return system;
}

X11WindowSystem::X11WindowSystem(std::shared_ptr<Core> core) : core_(std::move(core)) {}

X11WindowSystem::~X11WindowSystem() {
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

DisplayLayout X11WindowSystem::currentLayout() const {
    std::lock_guard lock(core_->mutex);
    return core_->layout;
}

std::vector<ApplicationState> X11WindowSystem::applications() const {
    std::lock_guard lock(core_->mutex);
    std::vector<ApplicationState> list;
    for (const auto& [id, s] : core_->apps) list.push_back(s);
    return list;
}

std::optional<int32_t> X11WindowSystem::processOwningLayerContext(uint32_t contextID) const {
    std::lock_guard lock(core_->mutex);
    auto it = core_->windowOwners.find(contextID);
    if (it == core_->windowOwners.end()) return std::nullopt;
    return it->second;
}

ApplicationState X11WindowSystem::applicationState(const std::string& bundleID) const {
    std::lock_guard lock(core_->mutex);
    auto it = core_->apps.find(bundleID);
    if (it != core_->apps.end()) return it->second;
    ApplicationState s;
    s.bundleIdentifier = bundleID;
    return s;
}

bool X11WindowSystem::synchronize(std::chrono::milliseconds timeout) {
    std::unique_lock lock(core_->syncMutex);
    uint64_t target = ++core_->syncRequested;
    core_->wake.signal();
    bool done =
        core_->syncDone.wait_for(lock, timeout, [&] { return core_->syncCompleted >= target; });
    return done && isConnected();
}

bool X11WindowSystem::isConnected() const {
    std::lock_guard lock(core_->mutex);
    return core_->connected;
}

uint64_t X11WindowSystem::scanCount() const {
    std::lock_guard lock(core_->mutex);
    return core_->scans;
}

std::optional<std::string> X11WindowSystem::frontmostApplicationBundleIdentifier() {
    std::lock_guard lock(core_->mutex);
    return core_->frontmost;
}

std::shared_ptr<ApplicationStateMonitor> X11WindowSystem::makeApplicationStateMonitor() {
    auto monitor = std::make_shared<X11StateMonitor>(shared_from_this());
    std::lock_guard lock(core_->mutex);
    core_->stateMonitors.push_back(monitor);
    return monitor;
}

std::shared_ptr<DisplayLayoutMonitor> X11WindowSystem::makeMainDisplayLayoutMonitor() {
    std::lock_guard lock(core_->mutex);
    // Made under the lock, so that no scan falls between its initial layout
    // and its registration.
    auto monitor = std::make_shared<X11LayoutMonitor>(shared_from_this(), core_->layout);
    core_->layoutMonitors.push_back(monitor);
    return monitor;
}

}  // namespace sv
