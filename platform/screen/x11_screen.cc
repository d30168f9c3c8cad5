#include "platform/screen/x11_screen.h"

#include <fcntl.h>
#include <libyuv.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <unistd.h>
#include <xcb/composite.h>
#include <xcb/randr.h>
#include <xcb/shm.h>
#include <xcb/xcb.h>
#include <xcb/xfixes.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <optional>
#include <system_error>
#include <thread>
#include <vector>

#include "platform/host_clock.h"
#include "platform/log.h"
#include "platform/screen/frame_fit.h"
#include "platform/screen/paced_capture.h"
#include "platform/unique_fd.h"
#include "platform/xcb_handles.h"

namespace sv {

xcb_connection_t* connectToXServer(const char* displayName, int* screenNumber) {
    return connectXcbSerialized(displayName, screenNumber);
}

namespace {

using Connection = XcbConnection;
template <typename T>
using Reply = XcbReply<T>;

// One mapping of a memfd the server also maps (MIT-SHM 1.2).
struct SharedSegment {
    uint8_t* data = nullptr;
    size_t size = 0;
    xcb_shm_seg_t id = 0;

    SharedSegment() = default;
    SharedSegment(const SharedSegment&) = delete;
    SharedSegment& operator=(const SharedSegment&) = delete;
    ~SharedSegment() { unmap(); }
    void unmap() {
        if (data) munmap(data, size);
        data = nullptr;
        size = 0;
        id = 0;
    }
};

bool isLocalSocket(xcb_connection_t* c) {
    sockaddr_storage addr{};
    socklen_t len = sizeof addr;
    if (getsockname(xcb_get_file_descriptor(c), reinterpret_cast<sockaddr*>(&addr), &len) != 0)
        return false;
    return addr.ss_family == AF_UNIX;
}

// What a connection knows about its screen and the server.
struct ScreenInfo {
    xcb_window_t root = 0;
    uint8_t rootDepth = 0;
    int32_t width = 0;
    int32_t height = 0;
    bool composite = false;  // 0.2 or later: NameWindowPixmap
    bool xfixes = false;     // cursor images
    bool randr = false;      // 1.3 or later: primary output, current resources
    bool randrAny = false;   // any version: screen info rotation
    bool monitors = false;   // 1.5 or later: monitors
    uint8_t randrFirstEvent = 0;
    bool shm = false;  // 1.2 or later, on a local socket
};

int bitsPerPixelOfDepth(const xcb_setup_t* setup, uint8_t depth) {
    for (auto it = xcb_setup_pixmap_formats_iterator(setup); it.rem; xcb_format_next(&it))
        if (it.data->depth == depth) return it.data->bits_per_pixel;
    return 0;
}

Error screenError(ScreenErrorCode code, const std::string& message) {
    return Error::make(kScreenErrorDomain, code, message);
}

// The server's screen `number` (counted from 0), when its root window's
// pixels are 32-bit BGRX, the one layout frames are read in.
Result<xcb_screen_t*> bgrxScreen(const xcb_setup_t* setup, int number) {
    xcb_screen_t* screen = nullptr;
    for (auto it = xcb_setup_roots_iterator(setup); it.rem; xcb_screen_next(&it), --number) {
        if (number == 0) {
            screen = it.data;
            break;
        }
    }
    if (!screen)
        return screenError(kScreenErrorUnsupportedServer, "the X server has no such screen");
    xcb_visualtype_t* visual = nullptr;
    for (auto d = xcb_screen_allowed_depths_iterator(screen); d.rem && !visual; xcb_depth_next(&d))
        for (auto v = xcb_depth_visuals_iterator(d.data); v.rem; xcb_visualtype_next(&v))
            if (v.data->visual_id == screen->root_visual) {
                visual = v.data;
                break;
            }
    if (setup->image_byte_order != XCB_IMAGE_ORDER_LSB_FIRST ||
        bitsPerPixelOfDepth(setup, screen->root_depth) != 32 || !visual ||
        visual->red_mask != 0xFF0000 || visual->green_mask != 0xFF00 || visual->blue_mask != 0xFF)
        return screenError(kScreenErrorUnsupportedServer,
                           "the root window's pixels are not 32-bit BGRX");
    return screen;
}

// Which extensions the server has, in the versions capture uses: every
// version is asked at once, one round trip.
void learnExtensions(xcb_connection_t* conn, ScreenInfo& info) {
    xcb_prefetch_extension_data(conn, &xcb_composite_id);
    xcb_prefetch_extension_data(conn, &xcb_xfixes_id);
    xcb_prefetch_extension_data(conn, &xcb_randr_id);
    xcb_prefetch_extension_data(conn, &xcb_shm_id);
    auto present = [&](xcb_extension_t* ext) {
        const xcb_query_extension_reply_t* r = xcb_get_extension_data(conn, ext);
        return r && r->present ? r : nullptr;
    };
    auto* compositeExt = present(&xcb_composite_id);
    auto* xfixesExt = present(&xcb_xfixes_id);
    auto* randrExt = present(&xcb_randr_id);
    auto* shmExt = present(&xcb_shm_id);
    xcb_composite_query_version_cookie_t compositeCookie{};
    xcb_xfixes_query_version_cookie_t xfixesCookie{};
    xcb_randr_query_version_cookie_t randrCookie{};
    xcb_shm_query_version_cookie_t shmCookie{};
    if (compositeExt) compositeCookie = xcb_composite_query_version(conn, 0, 4);
    if (xfixesExt) xfixesCookie = xcb_xfixes_query_version(conn, 5, 0);
    if (randrExt) randrCookie = xcb_randr_query_version(conn, 1, 5);
    if (shmExt) shmCookie = xcb_shm_query_version(conn);
    // A later major version than `major`, or a minor version of at least
    // `minor` (the server answers with at most the version asked for).
    auto atLeast = [](const auto& r, uint32_t major, uint32_t minor) {
        return r && (r->major_version > major || r->minor_version >= minor);
    };
    if (compositeExt) {
        Reply<xcb_composite_query_version_reply_t> r(
            xcb_composite_query_version_reply(conn, compositeCookie, nullptr));
        info.composite = atLeast(r, 0, 2);
    }
    if (xfixesExt) {
        Reply<xcb_xfixes_query_version_reply_t> r(
            xcb_xfixes_query_version_reply(conn, xfixesCookie, nullptr));
        info.xfixes = r && r->major_version >= 1;
    }
    if (randrExt) {
        Reply<xcb_randr_query_version_reply_t> r(
            xcb_randr_query_version_reply(conn, randrCookie, nullptr));
        info.randrAny = bool(r);
        info.randr = atLeast(r, 1, 3);
        info.monitors = atLeast(r, 1, 5);
        info.randrFirstEvent = randrExt->first_event;
    }
    if (shmExt) {
        Reply<xcb_shm_query_version_reply_t> r(
            xcb_shm_query_version_reply(conn, shmCookie, nullptr));
        info.shm = atLeast(r, 1, 2) && isLocalSocket(conn);
    }
}

// Opens a connection and learns the screen; an error when the server is
// unreachable or its pixels are not 32-bit BGRX.
Result<Connection> openConnection(const std::string& displayName, ScreenInfo& info) {
    int screenNumber = 0;
    Connection c(
        connectToXServer(displayName.empty() ? nullptr : displayName.c_str(), &screenNumber));
    if (!c || xcb_connection_has_error(c.get()))
        return screenError(kScreenErrorCannotConnect, "cannot connect to the X server");
    auto screen = bgrxScreen(xcb_get_setup(c.get()), screenNumber);
    if (!screen) return screen.error();
    info.root = (*screen)->root;
    info.rootDepth = (*screen)->root_depth;
    info.width = (*screen)->width_in_pixels;
    info.height = (*screen)->height_in_pixels;
    learnExtensions(c.get(), info);
    if (xcb_connection_has_error(c.get()))
        return screenError(kScreenErrorCannotConnect, "the X server closed the connection");
    return c;
}

// openConnection with a time limit: xcb waits without end for a server that
// accepted the socket but does not answer (stopped, hung). The attempt goes
// on in a thread of its own, which disposes of the connection when it is
// given up.
Result<Connection> openConnectionWithin(const std::string& displayName, ScreenInfo& info,
                                        std::chrono::milliseconds timeout) {
    struct Attempt {
        std::mutex mutex;
        std::condition_variable cv;
        bool done = false;
        bool abandoned = false;
        Result<Connection> connection = Connection();
        ScreenInfo info;
    };
    auto attempt = std::make_shared<Attempt>();
    try {
        std::thread([attempt, displayName] {
            ScreenInfo i;
            Result<Connection> c = openConnection(displayName, i);
            std::lock_guard lock(attempt->mutex);
            if (attempt->abandoned) return;
            attempt->connection = std::move(c);
            attempt->info = i;
            attempt->done = true;
            attempt->cv.notify_all();
        }).detach();
    } catch (const std::system_error& e) {
        return screenError(kScreenErrorCannotConnect,
                           std::string("cannot start a thread: ") + e.what());
    }
    std::unique_lock lock(attempt->mutex);
    if (!attempt->cv.wait_for(lock, timeout, [&] { return attempt->done; })) {
        attempt->abandoned = true;
        return screenError(kScreenErrorCannotConnect, "the X server does not answer");
    }
    if (!attempt->connection) return attempt->connection.error();
    info = attempt->info;
    return std::move(*attempt->connection);
}

constexpr std::chrono::milliseconds kConnectTimeout{2000};

// More windows than any application has; a larger set is refused rather
// than costing a round trip per identifier each frame.
constexpr size_t kMaxClonedWindows = 256;
// The largest side of the picture composed from cloned windows (the memory
// of one 8192x8192 picture is 256 MiB; an application's own windows rarely
// span more than two large monitors).
constexpr int32_t kMaxComposedSide = 8192;

struct Rect {
    int32_t x = 0, y = 0, w = 0, h = 0;
};

// Blends a premultiplied ARGB image (the cursor) onto a BGRX buffer.
void blendCursor(uint8_t* buffer, int32_t stride, int32_t width, int32_t height,
                 const uint32_t* image, int32_t x0, int32_t y0, int32_t w, int32_t h) {
    for (int32_t j = std::max(0, -y0); j < h && y0 + j < height; ++j) {
        auto* row = reinterpret_cast<uint32_t*>(buffer + size_t(y0 + j) * size_t(stride));
        for (int32_t i = std::max(0, -x0); i < w && x0 + i < width; ++i) {
            const uint32_t src = image[size_t(j) * size_t(w) + size_t(i)];
            const uint32_t a = src >> 24;
            if (a == 0) continue;
            uint32_t& dst = row[x0 + i];
            uint32_t out = 0xFF000000u;
            for (int shift = 0; shift < 24; shift += 8) {
                uint32_t s = (src >> shift) & 0xFF, d = (dst >> shift) & 0xFF;
                uint32_t v = s + (d * (255 - a) + 127) / 255;
                out |= std::min(v, 255u) << shift;
            }
            dst = out;
        }
    }
}

GrabResult failed(CaptureFailure::Kind kind, int32_t status = kScreenCaptureNoError) {
    GrabResult r;
    r.failure = CaptureFailure{kind, status};
    return r;
}

// One controller's capture: its own connection, used on the delivery thread.
class X11FrameSource final : public FrameSource {
  public:
    X11FrameSource(std::string displayName, std::shared_ptr<BasicDisplayMirroringService> mirroring,
                   bool sharedMemory)
        : displayName_(std::move(displayName)),
          mirroring_(std::move(mirroring)),
          sharedMemory_(sharedMemory) {}

    ~X11FrameSource() override { disconnect(); }

    GrabResult grab(const GrabRequest&, SurfacePool& pool) override {
        // Copied only when it changed: the clone set may be large.
        if (!haveMirroring_ || mirroring_->version() != mirroringState_.version) {
            mirroringState_ = mirroring_->snapshot();
            haveMirroring_ = true;
        }
        const auto& mirroring = mirroringState_;
        if (mirroring.mode != kCloneMirroringModeMirror &&
            mirroring.mode != kCloneMirroringModeClone)
            return {};
        if (!conn_ && !reconnect()) return failed(CaptureFailure::Kind::MediaServicesReset);
        xcb_connection_t* c = conn_.get();
        drainEvents();

        GrabResult result;
        if (mirroring.mode == kCloneMirroringModeMirror)
            result = grabRoot(mirroring);
        else
            result = grabCloned(mirroring);
        if (xcb_connection_has_error(c)) {
            if (!interrupted_)
                log::error("Screen capture: lost the connection to the X server \"%@\"",
                           displayName_);
            disconnect();
            return failed(CaptureFailure::Kind::MediaServicesReset);
        }
        if (result.failure || !composedValid_) return result;

        auto surface = pool.acquire();
        if (!surface) {
            log::error("Screen capture: no surface for a frame: %@", surface.error().message());
            return failed(CaptureFailure::Kind::Failed, kScreenCaptureSurfaceUnavailable);
        }
        fitInto(composed_, composedStride_, composedWidth_, composedHeight_, **surface);
        setOpaque(**surface);
        result.surface = std::move(*surface);
        // The root window is laid out the way the user sees it (RandR turns
        // the scan-out of a rotated output, not the root): no turn to apply.
        result.transformFlags = 0;
        return result;
    }

    void interrupt() override {
        interrupted_ = true;
        std::lock_guard lock(connMutex_);
        // The receiving side only: a grab waits for replies, never for room
        // to write (xcb polls for input whenever it waits, and sees the end
        // at once). Shutting the sending side as well made a request the
        // delivery thread was about to write raise SIGPIPE, which ends any
        // process that does not ignore it.
        if (conn_) shutdown(xcb_get_file_descriptor(conn_.get()), SHUT_RD);
    }

  private:
    struct ClonedWindow {
        xcb_window_t window = 0;
        xcb_window_t topLevel = 0;  // its ancestor that is a child of the root
        int32_t depth = 0;          // levels below the root
    };

    bool reconnect() {
        ScreenInfo info;
        auto c = openConnectionWithin(displayName_, info, kConnectTimeout);
        if (!c) {
            log::error("Screen capture: X server \"%@\": %@", displayName_, c.error().message());
            return false;
        }
        {
            std::lock_guard lock(connMutex_);
            conn_ = std::move(*c);
        }
        info_ = info;
        segment_.unmap();
        useShm_ = info_.shm && sharedMemory_;
        cloned_.clear();
        cloneVersion_ = ~uint64_t(0);
        haveClonedPicture_ = false;
        monitorVersion_ = ~uint64_t(0);
        if (info_.randrAny)
            xcb_randr_select_input(
                conn_.get(), info_.root,
                XCB_RANDR_NOTIFY_MASK_SCREEN_CHANGE | XCB_RANDR_NOTIFY_MASK_CRTC_CHANGE);
        return true;
    }

    void disconnect() {
        std::lock_guard lock(connMutex_);
        segment_.unmap();
        conn_.reset();
    }

    // Screen changes (size, rotation) arrive as RandR events; errors of
    // requests whose outcome does not matter (freeing a pixmap of a window
    // that just went away) arrive here too and are dropped.
    void drainEvents() {
        bool screenChanged = false;
        while (Reply<xcb_generic_event_t> e{xcb_poll_for_event(conn_.get())}) {
            uint8_t type = e->response_type & 0x7F;
            if (info_.randrAny && (type == info_.randrFirstEvent + XCB_RANDR_SCREEN_CHANGE_NOTIFY ||
                                   type == info_.randrFirstEvent + XCB_RANDR_NOTIFY))
                screenChanged = true;
        }
        if (!screenChanged) return;
        monitorsChanged_ = true;
        Reply<xcb_get_geometry_reply_t> g(xcb_get_geometry_reply(
            conn_.get(), xcb_get_geometry(conn_.get(), info_.root), nullptr));
        if (g) {
            info_.width = g->width;
            info_.height = g->height;
        }
    }

    // A shared segment of at least `bytes`; false when the server will not
    // map one (then plain GetImage is used from now on).
    bool ensureSegment(size_t bytes) {
        if (!useShm_) return false;
        if (segment_.data && segment_.size >= bytes) return true;
        xcb_connection_t* c = conn_.get();
        if (segment_.id) xcb_shm_detach(c, segment_.id);
        segment_.unmap();
        UniqueFd fd(memfd_create("sv-x11-capture", MFD_CLOEXEC));
        if (!fd.valid() || ftruncate(fd.get(), off_t(bytes)) != 0) {
            log::error("Screen capture: no shared memory (%@), reading pixels through the socket",
                       std::strerror(errno));
            useShm_ = false;
            return false;
        }
        void* data = mmap(nullptr, bytes, PROT_READ | PROT_WRITE, MAP_SHARED, fd.get(), 0);
        if (data == MAP_FAILED) {
            useShm_ = false;
            return false;
        }
        xcb_shm_seg_t id = xcb_generate_id(c);
        // xcb closes the descriptor once it has been sent.
        Reply<xcb_generic_error_t> err(
            xcb_request_check(c, xcb_shm_attach_fd_checked(c, id, fd.release(), 0)));
        if (err) {
            munmap(data, bytes);
            log::error("Screen capture: the X server refused shared memory (error %i)",
                       int32_t(err->error_code));
            useShm_ = false;
            return false;
        }
        segment_.data = static_cast<uint8_t*>(data);
        segment_.size = bytes;
        segment_.id = id;
        return true;
    }

    // Reads a rectangle of a drawable as 32-bit pixels. Points `pixels` at
    // rows of `w * 4` bytes, valid until the next read; `holder` keeps a
    // plain reply alive. False when the server refused (the drawable went
    // away in between, a size changed under us).
    bool readImage(xcb_drawable_t drawable, int16_t x, int16_t y, uint16_t w, uint16_t h,
                   uint8_t** pixels, Reply<xcb_get_image_reply_t>& holder) {
        xcb_connection_t* c = conn_.get();
        const size_t bytes = size_t(w) * h * 4;
        if (ensureSegment(bytes)) {
            Reply<xcb_shm_get_image_reply_t> r(xcb_shm_get_image_reply(
                c,
                xcb_shm_get_image(c, drawable, x, y, w, h, ~0u, XCB_IMAGE_FORMAT_Z_PIXMAP,
                                  segment_.id, 0),
                nullptr));
            if (!r) return false;
            *pixels = segment_.data;
            return true;
        }
        holder.reset(xcb_get_image_reply(
            c, xcb_get_image(c, XCB_IMAGE_FORMAT_Z_PIXMAP, drawable, x, y, w, h, ~0u), nullptr));
        if (!holder || size_t(xcb_get_image_data_length(holder.get())) < bytes) return false;
        *pixels = xcb_get_image_data(holder.get());
        return true;
    }

    // The part of the root window that mirror mode shows: the one RandR
    // monitor whose name atom is among the clone set's identifiers, else
    // the whole screen (a system recording sends no identifiers, or an
    // application's own layers, which name no monitor). Nothing once the
    // monitor chosen is not there any more.
    std::optional<Rect> mirroredArea(const BasicDisplayMirroringService::Snapshot& mirroring) {
        const Rect screen{0, 0, info_.width, info_.height};
        if (mirroring.contextIDs.empty() || !info_.monitors) return screen;
        // Monitors declared or removed (xrandr --setmonitor) send no event
        // of their own: the list is read again every second too.
        const auto now = std::chrono::steady_clock::now();
        const bool newSet = monitorVersion_ != mirroring.version;
        if (!newSet && !monitorsChanged_ && now - monitorsRead_ < std::chrono::seconds(1))
            return monitorName_ ? monitorArea_ : screen;
        monitorVersion_ = mirroring.version;
        monitorsChanged_ = false;
        monitorsRead_ = now;
        if (newSet) monitorName_.reset();
        monitorArea_.reset();
        xcb_connection_t* c = conn_.get();
        Reply<xcb_randr_get_monitors_reply_t> r(
            xcb_randr_get_monitors_reply(c, xcb_randr_get_monitors(c, info_.root, 1), nullptr));
        if (!r) return monitorName_ ? std::nullopt : std::optional<Rect>(screen);
        for (auto it = xcb_randr_get_monitors_monitors_iterator(r.get()); it.rem;
             xcb_randr_monitor_info_next(&it)) {
            const uint32_t name = it.data->name;
            if (monitorName_ ? name != *monitorName_ : !mirroring.contextIDs.contains(name))
                continue;
            // Clipped to the screen: a monitor may be declared beyond it.
            const int32_t x0 = std::clamp<int32_t>(it.data->x, 0, info_.width);
            const int32_t y0 = std::clamp<int32_t>(it.data->y, 0, info_.height);
            const int32_t x1 = std::clamp<int32_t>(it.data->x + it.data->width, 0, info_.width);
            const int32_t y1 = std::clamp<int32_t>(it.data->y + it.data->height, 0, info_.height);
            if (x1 <= x0 || y1 <= y0) continue;
            monitorName_ = name;
            monitorArea_ = Rect{x0, y0, x1 - x0, y1 - y0};
            break;
        }
        if (!monitorName_) return screen;
        if (!monitorArea_)
            log::error("Screen capture: the monitor recorded (name atom %li) is gone",
                       int64_t(*monitorName_));
        return monitorArea_;
    }

    GrabResult grabRoot(const BasicDisplayMirroringService::Snapshot& mirroring) {
        xcb_connection_t* c = conn_.get();
        composedValid_ = false;
        auto area = mirroredArea(mirroring);
        if (!area) return failed(CaptureFailure::Kind::Failed, kScreenCaptureSourceGone);
        const int32_t w = area->w, h = area->h;
        if (w <= 0 || h <= 0) return {};
        xcb_xfixes_get_cursor_image_cookie_t cursorCookie{};
        GrabResult result;
        result.presentationTime = HostClock::now();
        if (info_.xfixes) cursorCookie = xcb_xfixes_get_cursor_image(c);
        uint8_t* pixels = nullptr;
        bool ok = readImage(info_.root, int16_t(area->x), int16_t(area->y), uint16_t(w),
                            uint16_t(h), &pixels, rootReply_);
        Reply<xcb_xfixes_get_cursor_image_reply_t> cursor;
        if (info_.xfixes) cursor.reset(xcb_xfixes_get_cursor_image_reply(c, cursorCookie, nullptr));
        if (!ok) return {};
        if (cursor) {
            const int len = xcb_xfixes_get_cursor_image_cursor_image_length(cursor.get());
            if (len >= int(cursor->width) * int(cursor->height))
                blendCursor(pixels, w * 4, w, h,
                            xcb_xfixes_get_cursor_image_cursor_image(cursor.get()),
                            cursor->x - cursor->xhot - area->x, cursor->y - cursor->yhot - area->y,
                            cursor->width, cursor->height);
        }
        composed_ = pixels;
        composedStride_ = w * 4;
        composedWidth_ = w;
        composedHeight_ = h;
        composedValid_ = true;
        return result;
    }

    // Redirects the windows of a new clone set and finds where each sits in
    // the window tree. False when one of them does not exist.
    bool resolveCloned(const std::set<uint32_t>& ids) {
        xcb_connection_t* c = conn_.get();
        for (const ClonedWindow& w : cloned_)
            if (!ids.contains(w.window))
                xcb_composite_unredirect_window(c, w.window, XCB_COMPOSITE_REDIRECT_AUTOMATIC);
        std::vector<ClonedWindow> next;
        for (uint32_t id : ids) {
            auto known = std::find_if(cloned_.begin(), cloned_.end(),
                                      [&](const ClonedWindow& w) { return w.window == id; });
            if (known != cloned_.end()) {
                next.push_back(*known);
                continue;
            }
            Reply<xcb_generic_error_t> err(xcb_request_check(
                c, xcb_composite_redirect_window_checked(c, id, XCB_COMPOSITE_REDIRECT_AUTOMATIC)));
            if (err && err->error_code != XCB_ACCESS) {
                log::error("Screen capture: cloned window 0x%@ cannot be redirected (error %i)",
                           hex(id), int32_t(err->error_code));
                cloned_ = std::move(next);
                return false;
            }
            ClonedWindow w{id, id, 1};
            if (!findTopLevel(w)) {
                cloned_ = std::move(next);
                return false;
            }
            next.push_back(w);
        }
        cloned_ = std::move(next);
        return true;
    }

    bool findTopLevel(ClonedWindow& w) {
        xcb_connection_t* c = conn_.get();
        xcb_window_t window = w.window;
        std::vector<xcb_window_t> path;
        for (int guard = 0; guard < 64; ++guard) {
            Reply<xcb_query_tree_reply_t> tree(
                xcb_query_tree_reply(c, xcb_query_tree(c, window), nullptr));
            if (!tree) return false;
            if (tree->parent == info_.root || tree->parent == XCB_NONE) {
                w.topLevel = window;
                w.depth = int32_t(path.size()) + 1;
                return true;
            }
            path.push_back(window);
            window = tree->parent;
        }
        return false;
    }

    static std::string hex(uint32_t v) {
        char buf[16];
        std::snprintf(buf, sizeof buf, "%x", v);
        return buf;
    }

    // Whether the windows of `mirroring` can be cloned (resolving them when
    // the set changed); the failure to report when not.
    std::optional<GrabResult> refuseClone(const BasicDisplayMirroringService::Snapshot& mirroring) {
        if (!info_.composite) {
            if (!warnedNoComposite_)
                log::error(
                    "Screen capture: the X server has no Composite 0.2; clone mode is "
                    "unavailable");
            warnedNoComposite_ = true;
            return failed(CaptureFailure::Kind::Failed, kScreenCaptureGrabFailed);
        }
        if (mirroring.contextIDs.size() > kMaxClonedWindows) {
            log::error("Screen capture: refusing to clone %lu windows",
                       mirroring.contextIDs.size());
            return failed(CaptureFailure::Kind::Failed, kScreenCaptureGrabFailed);
        }
        if (mirroring.version != cloneVersion_) {
            if (!resolveCloned(mirroring.contextIDs))
                return failed(CaptureFailure::Kind::Failed, kScreenCaptureSourceGone);
            cloneVersion_ = mirroring.version;
        }
        return std::nullopt;
    }

    // A cloned window that shows, where its pixmap lies.
    struct Placed {
        size_t index;
        int32_t stack;
        int32_t x, y, w, h;  // the pixmap's rectangle in root coordinates
    };
    struct Placement {
        std::vector<Placed> placed;          // viewable windows, in cloned_ order
        bool gone = false;                   // a window was destroyed
        Reply<xcb_query_tree_reply_t> tree;  // the root's children
    };

    // Where every window is, in one round trip.
    Placement placeCloned() {
        xcb_connection_t* c = conn_.get();
        struct Query {
            xcb_get_window_attributes_cookie_t attributes;
            xcb_get_geometry_cookie_t geometry;
            xcb_translate_coordinates_cookie_t position;
        };
        std::vector<Query> queries;
        queries.reserve(cloned_.size());
        auto treeCookie = xcb_query_tree(c, info_.root);
        for (const ClonedWindow& w : cloned_)
            queries.push_back({xcb_get_window_attributes(c, w.window),
                               xcb_get_geometry(c, w.window),
                               xcb_translate_coordinates(c, w.window, info_.root, 0, 0)});
        Placement result;
        result.tree.reset(xcb_query_tree_reply(c, treeCookie, nullptr));
        for (size_t i = 0; i < cloned_.size(); ++i) {
            Reply<xcb_get_window_attributes_reply_t> a(
                xcb_get_window_attributes_reply(c, queries[i].attributes, nullptr));
            Reply<xcb_get_geometry_reply_t> g(
                xcb_get_geometry_reply(c, queries[i].geometry, nullptr));
            Reply<xcb_translate_coordinates_reply_t> p(
                xcb_translate_coordinates_reply(c, queries[i].position, nullptr));
            if (!a || !g || !p) {
                if (!result.gone)
                    log::error("Screen capture: cloned window 0x%@ was destroyed",
                               hex(cloned_[i].window));
                result.gone = true;
                continue;
            }
            // Minimised, on another workspace or hidden for a moment: the
            // window still exists, so its picture only pauses.
            if (a->map_state != XCB_MAP_STATE_VIEWABLE) continue;
            const int32_t bw = g->border_width;
            result.placed.push_back(
                {i, 0, p->dst_x - bw, p->dst_y - bw, g->width + 2 * bw, g->height + 2 * bw});
        }
        return result;
    }

    // Stacking order: the root's children come bottom to top; windows under
    // one top-level window are drawn parent first. False when a window's
    // top-level cannot be found.
    bool stackPlaced(std::vector<Placed>& placed, const xcb_query_tree_reply_t& tree) {
        const xcb_window_t* children = xcb_query_tree_children(&tree);
        const int childCount = xcb_query_tree_children_length(&tree);
        for (Placed& p : placed) {
            ClonedWindow& w = cloned_[p.index];
            auto at = std::find(children, children + childCount, w.topLevel);
            if (at == children + childCount) {
                // Reparented since it was resolved.
                if (!findTopLevel(w)) return false;
                at = std::find(children, children + childCount, w.topLevel);
            }
            p.stack = int32_t(at - children) * 64 + std::min(w.depth, 63);
        }
        std::stable_sort(placed.begin(), placed.end(),
                         [](const Placed& a, const Placed& b) { return a.stack < b.stack; });
        return true;
    }

    // Draws the windows, bottom first, into the composed picture: the
    // bounding box of the windows, wherever they are (partly off the screen
    // included: a redirected window's pixmap holds all of it), so an
    // application's recording shows its windows at their own size and
    // follows them as they move. Drawn into the spare buffer, which becomes
    // the picture only when every window was read: a window unmapped between
    // placing and reading leaves the last whole picture (repeated as for a
    // hidden window), never one with a black hole. False when there is
    // nothing to draw or a window could not be read.
    bool composePlaced(const std::vector<Placed>& placed) {
        xcb_connection_t* c = conn_.get();
        int32_t bx0 = INT32_MAX, by0 = INT32_MAX, bx1 = INT32_MIN, by1 = INT32_MIN;
        for (const Placed& p : placed) {
            bx0 = std::min(bx0, p.x);
            by0 = std::min(by0, p.y);
            bx1 = std::max(bx1, p.x + p.w);
            by1 = std::max(by1, p.y + p.h);
        }
        // Bounded like any X drawable side; windows spread wider than that
        // are cut at the far edge.
        const int32_t bw = std::min(bx1 - bx0, kMaxComposedSide);
        const int32_t bh = std::min(by1 - by0, kMaxComposedSide);
        if (bw <= 0 || bh <= 0) return false;
        const size_t composeBytes = size_t(bw) * size_t(bh) * 4;
        if (composeSpare_.size() != composeBytes) composeSpare_.assign(composeBytes, 0);
        uint8_t* out = composeSpare_.data();
        std::fill(reinterpret_cast<uint32_t*>(out),
                  reinterpret_cast<uint32_t*>(out) + size_t(bw) * size_t(bh), 0xFF000000u);
        for (const Placed& p : placed) {
            const int32_t x0 = std::max(0, p.x - bx0), y0 = std::max(0, p.y - by0);
            const int32_t x1 = std::min(bw, p.x - bx0 + p.w), y1 = std::min(bh, p.y - by0 + p.h);
            if (x0 >= x1 || y0 >= y1) continue;
            xcb_pixmap_t pixmap = xcb_generate_id(c);
            xcb_composite_name_window_pixmap(c, cloned_[p.index].window, pixmap);
            uint8_t* pixels = nullptr;
            Reply<xcb_get_image_reply_t> holder;
            bool ok = readImage(pixmap, int16_t(x0 - (p.x - bx0)), int16_t(y0 - (p.y - by0)),
                                uint16_t(x1 - x0), uint16_t(y1 - y0), &pixels, holder);
            xcb_free_pixmap(c, pixmap);
            if (!ok) return false;  // unmapped in between: paused from this frame
            libyuv::ARGBCopy(pixels, (x1 - x0) * 4,
                             out + (size_t(y0) * size_t(bw) + size_t(x0)) * 4, bw * 4, x1 - x0,
                             y1 - y0);
        }
        composeBuffer_.swap(composeSpare_);
        composed_ = composeBuffer_.data();
        composedStride_ = bw * 4;
        composedWidth_ = bw;
        composedHeight_ = bh;
        composedValid_ = true;
        haveClonedPicture_ = true;
        return true;
    }

    GrabResult grabCloned(const BasicDisplayMirroringService::Snapshot& mirroring) {
        composedValid_ = false;
        if (auto refused = refuseClone(mirroring)) return std::move(*refused);
        GrabResult result;
        result.presentationTime = HostClock::now();
        Placement placement = placeCloned();
        if (xcb_connection_has_error(conn_.get())) return {};
        if (placement.gone) return failed(CaptureFailure::Kind::Failed, kScreenCaptureSourceGone);
        if (!placement.placed.empty() &&
            (!placement.tree || !stackPlaced(placement.placed, *placement.tree)))
            return {};
        if (placement.placed.empty() || !composePlaced(placement.placed)) {
            // Nothing on screen (or a window left it while being read): the
            // last picture is repeated, so the movie keeps its frame rate and
            // shows where the windows were.
            if (haveClonedPicture_) {
                composed_ = composeBuffer_.data();
                composedValid_ = true;
            }
        }
        return result;
    }

    const std::string displayName_;
    const std::shared_ptr<BasicDisplayMirroringService> mirroring_;
    const bool sharedMemory_;
    BasicDisplayMirroringService::Snapshot mirroringState_;
    bool haveMirroring_ = false;
    std::atomic<bool> interrupted_{false};
    std::mutex connMutex_;  // guards conn_ against interrupt(); used on the delivery thread
    Connection conn_;
    ScreenInfo info_;
    bool useShm_ = false;
    SharedSegment segment_;
    Reply<xcb_get_image_reply_t> rootReply_;
    std::vector<ClonedWindow> cloned_;
    uint64_t cloneVersion_ = ~uint64_t(0);
    std::vector<uint8_t> composeBuffer_;
    std::vector<uint8_t> composeSpare_;  // the next picture while it is drawn
    bool warnedNoComposite_ = false;
    // composeBuffer_ holds the last picture of the clone set (repeated
    // while none of its windows is on screen).
    bool haveClonedPicture_ = false;
    // The monitor that mirror mode shows, found again when the clone set or
    // the screen's layout changes.
    uint64_t monitorVersion_ = ~uint64_t(0);
    bool monitorsChanged_ = false;
    std::chrono::steady_clock::time_point monitorsRead_;
    std::optional<uint32_t> monitorName_;  // the monitor recorded, once found
    std::optional<Rect> monitorArea_;
    // The display-sized image of the current frame.
    const uint8_t* composed_ = nullptr;
    int32_t composedStride_ = 0, composedWidth_ = 0, composedHeight_ = 0;
    bool composedValid_ = false;
};

}  // namespace

struct X11ScreenBackend::Impl {
    std::string displayName;
    Options options;
    std::shared_ptr<BasicDisplayMirroringService> mirroring =
        std::make_shared<BasicDisplayMirroringService>();
    mutable std::mutex mutex;  // guards the connection and what was learnt through it
    mutable Connection connection;
    mutable ScreenInfo info;

    mutable std::chrono::steady_clock::time_point lastAttempt;

    // The backend's connection, reopened once it broke (at most every few
    // seconds, as a server that does not answer costs the whole timeout).
    // Null while the server is away. Called with `mutex` held.
    xcb_connection_t* connectionLocked() const {
        if (connection && !xcb_connection_has_error(connection.get())) return connection.get();
        const auto now = std::chrono::steady_clock::now();
        if (now - lastAttempt < std::chrono::seconds(5)) return nullptr;
        lastAttempt = now;
        ScreenInfo fresh;
        auto c = openConnectionWithin(displayName, fresh, kConnectTimeout);
        if (!c) return nullptr;
        connection = std::move(*c);
        info = fresh;
        return connection.get();
    }
};

X11ScreenBackend::X11ScreenBackend(std::unique_ptr<Impl> impl) : impl_(std::move(impl)) {}
X11ScreenBackend::~X11ScreenBackend() = default;

Result<std::shared_ptr<X11ScreenBackend>> X11ScreenBackend::connect(
    const std::string& displayName) {
    return connect(displayName, Options{});
}

Result<std::shared_ptr<X11ScreenBackend>> X11ScreenBackend::connect(const std::string& displayName,
                                                                    Options options) {
    auto impl = std::make_unique<Impl>();
    impl->options = options;
    if (displayName.empty()) {
        const char* env = std::getenv("DISPLAY");
        impl->displayName = env ? env : "";
    } else {
        impl->displayName = displayName;
    }
    if (impl->displayName.empty())
        return screenError(kScreenErrorNoDisplay, "no X display named (DISPLAY is not set)");
    auto connection = openConnectionWithin(impl->displayName, impl->info, kConnectTimeout);
    if (!connection) {
        if (!options.waitForServer) return connection.error();
        log::info(
            "Screen: X server \"%@\" not reachable yet (%@); recording from it once it answers",
            impl->displayName, connection.error().message());
        impl->lastAttempt = std::chrono::steady_clock::now();
        return std::make_shared<X11ScreenBackend>(std::move(impl));
    }
    impl->connection = std::move(*connection);
    if (!impl->info.composite)
        log::error("Screen: X server \"%@\" has no Composite 0.2; clone mode will fail",
                   impl->displayName);
    return std::make_shared<X11ScreenBackend>(std::move(impl));
}

std::shared_ptr<ScreenCaptureController> X11ScreenBackend::makeCaptureController(
    WindowSize frameSize, MediaTime minimumFrameInterval) {
    return std::make_shared<PacedCaptureController>(
        frameSize, minimumFrameInterval,
        std::make_shared<X11FrameSource>(impl_->displayName, impl_->mirroring,
                                         impl_->options.sharedMemory));
}

std::shared_ptr<DisplayMirroringService> X11ScreenBackend::mirroringService() {
    return impl_->mirroring;
}

WindowSize X11ScreenBackend::displaySize() const {
    std::lock_guard lock(impl_->mutex);
    if (xcb_connection_t* c = impl_->connectionLocked()) {
        Reply<xcb_get_geometry_reply_t> g(
            xcb_get_geometry_reply(c, xcb_get_geometry(c, impl_->info.root), nullptr));
        if (g) {
            impl_->info.width = g->width;
            impl_->info.height = g->height;
        }
    }
    return {float(impl_->info.width), float(impl_->info.height)};
}

const std::string& X11ScreenBackend::displayName() const {
    return impl_->displayName;
}

bool X11ScreenBackend::usesSharedMemory() const {
    std::lock_guard lock(impl_->mutex);
    return impl_->info.shm && impl_->options.sharedMemory;
}

}  // namespace sv
