#include "platform/screen/portal_screen.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <systemd/sd-bus.h>
#include <unistd.h>
#include <wayland-client.h>

#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <mutex>
#include <optional>
#include <sstream>

#include "platform/host_clock.h"
#include "platform/log.h"
#include "platform/screen/paced_capture.h"
#include "platform/screen/pipewire_stream.h"
#include "platform/unique_fd.h"
#include "platform/wayland/wayland_display.h"

namespace sv {

namespace {

constexpr const char* kPortalName = "org.freedesktop.portal.Desktop";
constexpr const char* kPortalPath = "/org/freedesktop/portal/desktop";
constexpr const char* kScreenCast = "org.freedesktop.portal.ScreenCast";
constexpr uint32_t kSourceMonitor = 1, kSourceWindow = 2;
constexpr uint32_t kCursorEmbedded = 2;
constexpr uint32_t kPersistUntilRevoked = 2;
// How long a wait for the bus sleeps before looking at an interruption.
constexpr uint64_t kWaitSliceUsec = 100'000;

Error screenError(ScreenErrorCode code, const std::string& message) {
    return Error::make(kScreenErrorDomain, code, message);
}

uint64_t toUsec(std::chrono::milliseconds ms) {
    return uint64_t(std::max<int64_t>(ms.count(), 1)) * 1000;
}

// --- sd-bus owners ----------------------------------------------------------------

struct BusUnref {
    void operator()(sd_bus* b) const { sd_bus_flush_close_unref(b); }
};
using Bus = std::unique_ptr<sd_bus, BusUnref>;
struct MessageUnref {
    void operator()(sd_bus_message* m) const { sd_bus_message_unref(m); }
};
using Message = std::unique_ptr<sd_bus_message, MessageUnref>;
struct SlotUnref {
    void operator()(sd_bus_slot* s) const { sd_bus_slot_unref(s); }
};
using Slot = std::unique_ptr<sd_bus_slot, SlotUnref>;

struct BusError {
    sd_bus_error e = SD_BUS_ERROR_NULL;
    BusError() = default;
    BusError(const BusError&) = delete;
    BusError& operator=(const BusError&) = delete;
    ~BusError() { sd_bus_error_free(&e); }
    std::string text(int r) const {
        if (sd_bus_error_is_set(&e))
            return std::string(e.name) + ": " + (e.message ? e.message : "");
        return std::strerror(-r);
    }
};

Result<Bus> openBus(const std::string& address, std::chrono::milliseconds timeout) {
    if (address.empty())
        return screenError(kScreenErrorCannotConnect,
                           "no session bus (DBUS_SESSION_BUS_ADDRESS is not set)");
    sd_bus* raw = nullptr;
    int r = sd_bus_new(&raw);
    if (r < 0)
        return screenError(kScreenErrorCannotConnect, "sd_bus_new: " + std::string(strerror(-r)));
    Bus bus(raw);
    if ((r = sd_bus_set_address(raw, address.c_str())) < 0 ||
        (r = sd_bus_set_bus_client(raw, 1)) < 0 || (r = sd_bus_negotiate_fds(raw, 1)) < 0 ||
        (r = sd_bus_set_method_call_timeout(raw, toUsec(timeout))) < 0 ||
        (r = sd_bus_start(raw)) < 0)
        return screenError(kScreenErrorCannotConnect,
                           "cannot connect to the session bus: " + std::string(strerror(-r)));
    return bus;
}

// Calls `method` with the arguments `append` adds; the reply or an error.
template <typename Append>
Result<Message> call(sd_bus* bus, const char* path, const char* interface, const char* method,
                     Append&& append) {
    sd_bus_message* raw = nullptr;
    int r = sd_bus_message_new_method_call(bus, &raw, kPortalName, path, interface, method);
    if (r < 0) return screenError(kScreenErrorCannotConnect, std::string("cannot call ") + method);
    Message m(raw);
    if ((r = append(raw)) < 0)
        return screenError(kScreenErrorCannotConnect,
                           std::string("cannot build ") + method + ": " + strerror(-r));
    BusError error;
    sd_bus_message* reply = nullptr;
    r = sd_bus_call(bus, raw, 0, &error.e, &reply);
    if (r < 0)
        return screenError(kScreenErrorCannotConnect,
                           std::string(interface) + "." + method + ": " + error.text(r));
    return Message(reply);
}

// Walks the a{sv} at the message's position; `visit(key, m)` reads the
// variant and returns > 0, or returns 0 to have it skipped.
template <typename Visit>
int forEachEntry(sd_bus_message* m, Visit&& visit) {
    int r = sd_bus_message_enter_container(m, 'a', "{sv}");
    if (r < 0) return r;
    while ((r = sd_bus_message_enter_container(m, 'e', "sv")) > 0) {
        const char* key = nullptr;
        if ((r = sd_bus_message_read(m, "s", &key)) < 0) return r;
        r = visit(std::string(key), m);
        if (r < 0) return r;
        if (r == 0 && (r = sd_bus_message_skip(m, "v")) < 0) return r;
        if ((r = sd_bus_message_exit_container(m)) < 0) return r;
    }
    if (r < 0) return r;
    return sd_bus_message_exit_container(m);
}

// Reads a variant holding a string or an object path.
int readStringVariant(sd_bus_message* m, std::string& out) {
    char type = 0;
    const char* contents = nullptr;
    int r = sd_bus_message_peek_type(m, &type, &contents);
    if (r < 0) return r;
    if (!contents || (std::strcmp(contents, "s") != 0 && std::strcmp(contents, "o") != 0)) return 0;
    const char* s = nullptr;
    if ((r = sd_bus_message_read(m, "v", contents, &s)) < 0) return r;
    out = s ? s : "";
    return 1;
}

// --- The compositor's outputs ---------------------------------------------------------

// The size of the largest output of the Wayland compositor named by
// $WAYLAND_DISPLAY, as the user sees it (turned outputs turned), within
// `timeout`; 0x0 when there is none or it does not answer.
WindowSize largestWaylandOutput(std::chrono::milliseconds timeout) {
    const char* name = std::getenv("WAYLAND_DISPLAY");
    if (!name || !*name) return {};
    WaylandDisplay display(wl_display_connect(name));
    if (!display) return {};
    struct Output {
        wl_output* proxy = nullptr;
        int32_t width = 0, height = 0;
        bool turned = false;
    };
    std::vector<std::unique_ptr<Output>> outputs;
    wl_registry* registry = wl_display_get_registry(display.get());
    if (!registry) return {};
    static const wl_output_listener outputListener = {
        [](void* data, wl_output*, int32_t, int32_t, int32_t, int32_t, int32_t, const char*,
           const char*,
           int32_t transform) { static_cast<Output*>(data)->turned = (transform & 1) != 0; },
        [](void* data, wl_output*, uint32_t flags, int32_t width, int32_t height, int32_t) {
            if (!(flags & WL_OUTPUT_MODE_CURRENT)) return;
            static_cast<Output*>(data)->width = width;
            static_cast<Output*>(data)->height = height;
        },
        [](void*, wl_output*) {},
        [](void*, wl_output*, int32_t) {},
    };
    static const wl_registry_listener registryListener = {
        [](void* data, wl_registry* r, uint32_t id, const char* interface, uint32_t) {
            if (std::strcmp(interface, wl_output_interface.name) != 0) return;
            auto* list = static_cast<std::vector<std::unique_ptr<Output>>*>(data);
            if (list->size() >= 64) return;
            auto output = std::make_unique<Output>();
            output->proxy =
                static_cast<wl_output*>(wl_registry_bind(r, id, &wl_output_interface, 1));
            if (!output->proxy) return;
            wl_output_add_listener(output->proxy, &outputListener, output.get());
            list->push_back(std::move(output));
        },
        [](void*, wl_registry*, uint32_t) {},
    };
    wl_registry_add_listener(registry, &registryListener, &outputs);
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    WindowSize best{};
    if (roundtripUntil(display.get(), deadline) && roundtripUntil(display.get(), deadline)) {
        for (const auto& o : outputs) {
            const float w = float(o->turned ? o->height : o->width);
            const float h = float(o->turned ? o->width : o->height);
            if (w > 0 && h > 0 && w * h > best.width * best.height) best = {w, h};
        }
    }
    for (const auto& o : outputs) wl_output_destroy(o->proxy);
    wl_registry_destroy(registry);
    return best;
}

}  // namespace

// --- The backend ------------------------------------------------------------------

struct PortalScreenBackend::Impl {
    Options options;
    uint32_t version = 0;
    uint32_t sourceTypes = 0;
    uint32_t cursorModes = 0;
    std::shared_ptr<BasicDisplayMirroringService> mirroring =
        std::make_shared<BasicDisplayMirroringService>();
    mutable std::mutex mutex;  // guards the token file and displaySize
    WindowSize size{};

    // The token file: the token on its first line, the stream's size on
    // the second.
    std::string readToken() {
        std::lock_guard lock(mutex);
        if (options.restoreTokenPath.empty()) return {};
        std::ifstream in(options.restoreTokenPath);
        std::string token;
        std::getline(in, token);
        return token;
    }
    void remember(const std::string& token, int32_t width, int32_t height) {
        std::lock_guard lock(mutex);
        if (width > 0 && height > 0) size = {float(width), float(height)};
        if (options.restoreTokenPath.empty() || token.empty()) return;
        const std::string& path = options.restoreTokenPath;
        // Private: the token lets whoever holds it share the screen again.
        if (auto slash = path.rfind('/'); slash != std::string::npos && slash > 0) {
            std::string dir = path.substr(0, slash);
            for (size_t p = 1; (p = dir.find('/', p)) != std::string::npos; ++p)
                ::mkdir(dir.substr(0, p).c_str(), 0700);
            ::mkdir(dir.c_str(), 0700);
        }
        const std::string temp = path + ".new";
        UniqueFd fd(::open(temp.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600));
        const std::string text =
            token + "\n" + std::to_string(width) + "x" + std::to_string(height) + "\n";
        if (!fd.valid() || ::write(fd.get(), text.data(), text.size()) != ssize_t(text.size()) ||
            ::rename(temp.c_str(), path.c_str()) != 0) {
            log::error("Screen: cannot keep the screen-cast restore token in %@: %@", path,
                       strerror(errno));
            ::unlink(temp.c_str());
        }
    }
};

namespace {

GrabResult failed(CaptureFailure::Kind kind, int32_t status = kScreenCaptureNoError) {
    GrabResult r;
    r.failure = CaptureFailure{kind, status};
    return r;
}

// One controller's portal session and stream; used on the delivery thread
// except interrupt().
class PortalFrameSource final : public FrameSource {
  public:
    PortalFrameSource(std::shared_ptr<PortalScreenBackend::Impl> backend, MediaTime interval)
        : backend_(std::move(backend)), interval_(interval) {}
    ~PortalFrameSource() override { close(); }

    GrabResult grab(const GrabRequest& request, SurfacePool& pool) override {
        // Read again only when it changed: the clone set may be large.
        if (const uint64_t v = backend_->mirroring->version();
            v != mirroringVersion_ || !haveMode_) {
            mode_ = backend_->mirroring->snapshot().mode;
            mirroringVersion_ = v;
            haveMode_ = true;
        }
        if (mode_ != kCloneMirroringModeMirror && mode_ != kCloneMirroringModeClone) return {};
        if (!stream_) {
            if (auto refused =
                    open(pool.width(), pool.height(), mode_ == kCloneMirroringModeClone)) {
                close();
                return failed(refused->kind, refused->status);
            }
        }
        // Signals of the session (Closed) and a lost bus.
        for (;;) {
            const int r = sd_bus_process(bus_.get(), nullptr);
            if (r < 0) {
                log::error("Screen capture: lost the session bus: %@", strerror(-r));
                close();
                return failed(CaptureFailure::Kind::MediaServicesReset);
            }
            if (r == 0) break;
        }
        if (sessionClosed_) {
            log::error("Screen capture: the portal closed the screen-cast session");
            close();
            return failed(CaptureFailure::Kind::Failed, kScreenCaptureSourceGone);
        }
        GrabResult result;
        {
            std::lock_guard lock(box_->mutex);
            if (box_->ended) {
                const CaptureFailure f = *box_->ended;
                box_->latest.reset();
                // Closed below, outside the box's lock.
                result.failure = f;
            } else if (box_->latest) {
                result.surface = box_->latest;
                result.transformFlags = box_->transformFlags;
                // A new picture carries the instant it was captured; a
                // repeated one the deadline it stands in for.
                result.presentationTime =
                    box_->sequence != lastSequence_ ? box_->arrival : request.deadline;
                lastSequence_ = box_->sequence;
            }
        }
        if (result.failure) {
            close();
            return result;
        }
        if (result.surface) {
            if (result.presentationTime <= lastPresentation_)
                result.presentationTime = lastPresentation_ + 1;
            lastPresentation_ = result.presentationTime;
        }
        return result;
    }

    void interrupt() override { interrupted_ = true; }

  private:
    struct OpenError {
        CaptureFailure::Kind kind = CaptureFailure::Kind::Failed;
        int32_t status = kScreenCaptureGrabFailed;
    };
    struct Response {
        bool arrived = false;
        uint32_t code = 2;
        Message results;
    };

    std::string nextToken() {
        return "sorvel" + std::to_string(getpid()) + "_" + std::to_string(++tokens_);
    }

    // Calls a portal method whose answer comes as a Request's Response
    // signal, and waits for that answer at most `timeout`.
    template <typename Append>
    std::optional<Response> request(const char* method, const std::string& token,
                                    std::chrono::milliseconds timeout, Append&& append,
                                    std::string& why) {
        const std::string path = "/org/freedesktop/portal/desktop/request/" + sender_ + "/" + token;
        Response response;
        sd_bus_slot* rawSlot = nullptr;
        int r = sd_bus_match_signal(
            bus_.get(), &rawSlot, kPortalName, path.c_str(), "org.freedesktop.portal.Request",
            "Response",
            [](sd_bus_message* m, void* data, sd_bus_error*) {
                auto* out = static_cast<Response*>(data);
                uint32_t code = 2;
                if (sd_bus_message_read(m, "u", &code) < 0) code = 2;
                out->code = code;
                out->results.reset(sd_bus_message_ref(m));
                out->arrived = true;
                return 0;
            },
            &response);
        if (r < 0) {
            why = std::string("cannot watch the portal's answers: ") + strerror(-r);
            return std::nullopt;
        }
        Slot slot(rawSlot);
        auto reply = call(bus_.get(), kPortalPath, kScreenCast, method, append);
        if (!reply) {
            why = reply.error().message();
            return std::nullopt;
        }
        const auto deadline = std::chrono::steady_clock::now() + timeout;
        while (!response.arrived) {
            if (interrupted_) {
                why = "stopped";
                return std::nullopt;
            }
            const auto now = std::chrono::steady_clock::now();
            if (now >= deadline) {
                why = std::string("the portal did not answer ") + method + " in time";
                // The dialog, if any, is taken down.
                sd_bus_call_method_async(bus_.get(), nullptr, kPortalName, path.c_str(),
                                         "org.freedesktop.portal.Request", "Close", nullptr,
                                         nullptr, "");
                sd_bus_flush(bus_.get());
                return std::nullopt;
            }
            r = sd_bus_process(bus_.get(), nullptr);
            if (r < 0) {
                why = std::string("lost the session bus: ") + strerror(-r);
                return std::nullopt;
            }
            if (r > 0) continue;
            const uint64_t left = uint64_t(
                std::chrono::duration_cast<std::chrono::microseconds>(deadline - now).count());
            sd_bus_wait(bus_.get(), std::min(left, kWaitSliceUsec));
        }
        return response;
    }

    // Opens the session and its stream; nullopt once frames may come. An
    // application's recording (`window`) asks for a window where the portal
    // offers windows, anything else for a monitor.
    std::optional<OpenError> open(int32_t width, int32_t height, bool window) {
        const auto& options = backend_->options;
        auto bus = openBus(options.busAddress, options.callTimeout);
        if (!bus) {
            log::error("Screen capture: %@", bus.error().message());
            return OpenError{CaptureFailure::Kind::MediaServicesReset, 0};
        }
        bus_ = std::move(*bus);
        const char* unique = nullptr;
        if (sd_bus_get_unique_name(bus_.get(), &unique) < 0 || !unique || unique[0] != ':')
            return OpenError{CaptureFailure::Kind::MediaServicesReset, 0};
        sender_ = unique + 1;
        for (char& c : sender_)
            if (c == '.') c = '_';

        std::string why;
        auto refused = [&](const char* step, const std::optional<Response>& r) -> OpenError {
            if (r && r->code == 1) {
                log::error("Screen capture: the user cancelled screen sharing (%@)", step);
                return {CaptureFailure::Kind::Failed, kScreenCaptureUserDeclined};
            }
            if (r)
                log::error("Screen capture: the portal refused %@ (answer %@)", step, r->code);
            else
                log::error("Screen capture: %@ failed: %@", step, why);
            return {};
        };

        // CreateSession.
        const std::string sessionToken = nextToken();
        auto created = request(
            "CreateSession", nextTokenPeek(), options.callTimeout,
            [&](sd_bus_message* m) {
                return sd_bus_message_append(m, "a{sv}", 2, "handle_token", "s",
                                             currentToken_.c_str(), "session_handle_token", "s",
                                             sessionToken.c_str());
            },
            why);
        if (!created || created->code != 0) return refused("CreateSession", created);
        forEachEntry(created->results.get(), [&](const std::string& key, sd_bus_message* m) {
            return key == "session_handle" ? readStringVariant(m, session_) : 0;
        });
        if (session_.empty()) {
            log::error("Screen capture: the portal gave no session");
            return OpenError{};
        }
        sd_bus_slot* rawSlot = nullptr;
        if (sd_bus_match_signal(
                bus_.get(), &rawSlot, kPortalName, session_.c_str(),
                "org.freedesktop.portal.Session", "Closed",
                [](sd_bus_message*, void* data, sd_bus_error*) {
                    *static_cast<bool*>(data) = true;
                    return 0;
                },
                &sessionClosed_) >= 0)
            closedSlot_.reset(rawSlot);

        // SelectSources: a monitor, or a window where asked for and offered.
        const uint32_t types =
            window && (backend_->sourceTypes & kSourceWindow) ? kSourceWindow : kSourceMonitor;
        const std::string restore = backend_->readToken();
        auto selected = request(
            "SelectSources", nextTokenPeek(), options.callTimeout,
            [&](sd_bus_message* m) {
                int r = sd_bus_message_append(m, "o", session_.c_str());
                if (r < 0) return r;
                if ((r = sd_bus_message_open_container(m, 'a', "{sv}")) < 0) return r;
                if ((r = sd_bus_message_append(m, "{sv}", "handle_token", "s",
                                               currentToken_.c_str())) < 0 ||
                    (r = sd_bus_message_append(m, "{sv}", "types", "u", types)) < 0 ||
                    (r = sd_bus_message_append(m, "{sv}", "multiple", "b", 0)) < 0)
                    return r;
                if ((backend_->cursorModes & kCursorEmbedded) &&
                    (r = sd_bus_message_append(m, "{sv}", "cursor_mode", "u", kCursorEmbedded)) < 0)
                    return r;
                if (backend_->version >= 4) {
                    if ((r = sd_bus_message_append(m, "{sv}", "persist_mode", "u",
                                                   kPersistUntilRevoked)) < 0)
                        return r;
                    if (!restore.empty() && (r = sd_bus_message_append(m, "{sv}", "restore_token",
                                                                       "s", restore.c_str())) < 0)
                        return r;
                }
                return sd_bus_message_close_container(m);
            },
            why);
        if (!selected || selected->code != 0) return refused("SelectSources", selected);

        // Start: the portal's dialog, if it shows one, is answered here.
        auto started = request(
            "Start", nextTokenPeek(), options.consentTimeout,
            [&](sd_bus_message* m) {
                return sd_bus_message_append(m, "osa{sv}", session_.c_str(), "", 1, "handle_token",
                                             "s", currentToken_.c_str());
            },
            why);
        if (!started || started->code != 0) return refused("Start", started);
        uint32_t node = 0;
        int32_t streamWidth = 0, streamHeight = 0;
        bool haveNode = false;
        std::string token;
        const int r = forEachEntry(
            started->results.get(), [&](const std::string& key, sd_bus_message* m) -> int {
                if (key == "restore_token") return readStringVariant(m, token);
                if (key != "streams") return 0;
                int e = sd_bus_message_enter_container(m, 'v', "a(ua{sv})");
                if (e < 0) return e;
                if ((e = sd_bus_message_enter_container(m, 'a', "(ua{sv})")) < 0) return e;
                while ((e = sd_bus_message_enter_container(m, 'r', "ua{sv}")) > 0) {
                    uint32_t id = 0;
                    if ((e = sd_bus_message_read(m, "u", &id)) < 0) return e;
                    const bool first = !haveNode;
                    if (first) node = id;
                    haveNode = true;
                    e = forEachEntry(m, [&](const std::string& k, sd_bus_message* v) -> int {
                        if (k != "size" || !first) return 0;
                        return sd_bus_message_read(v, "v", "(ii)", &streamWidth, &streamHeight) < 0
                                   ? -EBADMSG
                                   : 1;
                    });
                    if (e < 0) return e;
                    if ((e = sd_bus_message_exit_container(m)) < 0) return e;
                }
                if (e < 0) return e;
                if ((e = sd_bus_message_exit_container(m)) < 0) return e;
                return sd_bus_message_exit_container(m) < 0 ? -EBADMSG : 1;
            });
        if (r < 0 || !haveNode) {
            log::error("Screen capture: the portal started no stream");
            return OpenError{};
        }
        backend_->remember(token, streamWidth, streamHeight);

        auto remote = call(bus_.get(), kPortalPath, kScreenCast, "OpenPipeWireRemote",
                           [&](sd_bus_message* m) {
                               return sd_bus_message_append(m, "oa{sv}", session_.c_str(), 0);
                           });
        int fd = -1;
        if (!remote || sd_bus_message_read(remote->get(), "h", &fd) < 0 || fd < 0) {
            log::error("Screen capture: the portal gave no PipeWire remote: %@",
                       remote ? "no descriptor" : remote.error().message());
            return OpenError{};
        }
        UniqueFd owned(fcntl(fd, F_DUPFD_CLOEXEC, 3));
        if (!owned.valid())
            return OpenError{CaptureFailure::Kind::Failed, kScreenCaptureSurfaceUnavailable};
        box_ = std::make_shared<FrameBox>();
        auto stream = PipeWireStream::open(std::move(owned), node, width, height, interval_, box_);
        if (!stream) {
            log::error("Screen capture: %@", stream.error().message());
            return OpenError{CaptureFailure::Kind::MediaServicesReset, 0};
        }
        stream_ = std::move(*stream);
        log::info("Screen capture: recording the portal's stream %@ (%@x%@)", node, streamWidth,
                  streamHeight);
        return std::nullopt;
    }

    // The token of the next request, remembered for its handle_token.
    const std::string& nextTokenPeek() {
        currentToken_ = nextToken();
        return currentToken_;
    }

    void close() {
        stream_.reset();
        closedSlot_.reset();
        if (bus_ && !session_.empty()) {
            sd_bus_call_method_async(bus_.get(), nullptr, kPortalName, session_.c_str(),
                                     "org.freedesktop.portal.Session", "Close", nullptr, nullptr,
                                     "");
            sd_bus_flush(bus_.get());
        }
        session_.clear();
        sessionClosed_ = false;
        bus_.reset();
        box_.reset();
        lastSequence_ = 0;
    }

    std::shared_ptr<PortalScreenBackend::Impl> backend_;
    MediaTime interval_;
    std::atomic<bool> interrupted_{false};
    Bus bus_;
    Slot closedSlot_;
    std::string sender_, session_, currentToken_;
    bool sessionClosed_ = false;
    uint64_t tokens_ = 0;
    std::shared_ptr<FrameBox> box_;
    std::unique_ptr<PipeWireStream> stream_;
    uint64_t lastSequence_ = 0;
    uint64_t lastPresentation_ = 0;
    uint64_t mirroringVersion_ = 0;
    bool haveMode_ = false;
    int32_t mode_ = kCloneMirroringModeEnded;
};

}  // namespace

PortalScreenBackend::PortalScreenBackend(std::shared_ptr<Impl> impl) : impl_(std::move(impl)) {}
PortalScreenBackend::~PortalScreenBackend() = default;

std::string PortalScreenBackend::defaultRestoreTokenPath() {
    const std::string name = "screencast-restore-token";
    auto absolute = [](const char* p) { return p && p[0] == '/'; };
    if (const char* state = std::getenv("STATE_DIRECTORY"); absolute(state)) {
        // systemd lists every state directory of the unit, separated by ':'.
        std::string first(state);
        first = first.substr(0, first.find(':'));
        return first + "/" + name;
    }
    if (const char* xdg = std::getenv("XDG_STATE_HOME"); absolute(xdg))
        return std::string(xdg) + "/sorvel/" + name;
    if (const char* home = std::getenv("HOME"); absolute(home))
        return std::string(home) + "/.local/state/sorvel/" + name;
    return {};
}

Result<std::shared_ptr<PortalScreenBackend>> PortalScreenBackend::connect(Options options) {
    if (options.busAddress.empty()) {
        // As sd-bus and libdbus find the user's bus: the variable, else the
        // bus of the user's runtime directory (a systemd user session's).
        const char* env = std::getenv("DBUS_SESSION_BUS_ADDRESS");
        const char* runtime = std::getenv("XDG_RUNTIME_DIR");
        if (env && *env)
            options.busAddress = env;
        else if (runtime && runtime[0] == '/')
            options.busAddress = std::string("unix:path=") + runtime + "/bus";
    }
    auto bus = openBus(options.busAddress, options.callTimeout);
    if (!bus) return bus.error();
    auto impl = std::make_shared<Impl>();
    impl->options = std::move(options);
    BusError error;
    int r = sd_bus_get_property_trivial(bus->get(), kPortalName, kPortalPath, kScreenCast,
                                        "version", &error.e, 'u', &impl->version);
    if (r < 0)
        return screenError(kScreenErrorCannotConnect,
                           "no screen-cast portal on the session bus: " + error.text(r));
    // Both are optional: a portal without them offers monitors and no
    // cursor choice.
    if (sd_bus_get_property_trivial(bus->get(), kPortalName, kPortalPath, kScreenCast,
                                    "AvailableSourceTypes", nullptr, 'u', &impl->sourceTypes) < 0)
        impl->sourceTypes = kSourceMonitor;
    if (sd_bus_get_property_trivial(bus->get(), kPortalName, kPortalPath, kScreenCast,
                                    "AvailableCursorModes", nullptr, 'u', &impl->cursorModes) < 0)
        impl->cursorModes = 0;
    // The size of the last stream, kept beside the token.
    if (!impl->options.restoreTokenPath.empty()) {
        std::ifstream in(impl->options.restoreTokenPath);
        std::string token, size;
        std::getline(in, token);
        std::getline(in, size);
        int w = 0, h = 0;
        if (std::sscanf(size.c_str(), "%dx%d", &w, &h) == 2 && w > 0 && h > 0 && w <= 16384 &&
            h <= 16384)
            impl->size = {float(w), float(h)};
    }
    return std::make_shared<PortalScreenBackend>(std::move(impl));
}

std::shared_ptr<ScreenCaptureController> PortalScreenBackend::makeCaptureController(
    WindowSize frameSize, MediaTime minimumFrameInterval) {
    const MediaTime interval = PacedCaptureController::sanitizedInterval(minimumFrameInterval);
    return std::make_shared<PacedCaptureController>(
        frameSize, minimumFrameInterval, std::make_shared<PortalFrameSource>(impl_, interval));
}

std::shared_ptr<DisplayMirroringService> PortalScreenBackend::mirroringService() {
    return impl_->mirroring;
}

WindowSize PortalScreenBackend::displaySize() const {
    {
        std::lock_guard lock(impl_->mutex);
        if (impl_->size.width > 0) return impl_->size;
    }
    // Before the portal has given a stream: the compositor's largest
    // output, which is what a monitor's stream has on a one-screen desktop.
    const WindowSize output = largestWaylandOutput(impl_->options.callTimeout);
    std::lock_guard lock(impl_->mutex);
    if (impl_->size.width <= 0) impl_->size = output;
    return impl_->size;
}

uint32_t PortalScreenBackend::portalVersion() const {
    return impl_->version;
}

}  // namespace sv
