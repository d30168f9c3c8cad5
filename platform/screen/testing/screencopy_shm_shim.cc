// Preloaded into the portal's wlroots backend on the private test desktop
// (wayland-desktop.sh): with each screencopy frame's shared-memory format,
// the backend is also told of a DMA-BUF format of the same layout.
//
// Why: the packaged backend refuses every screen cast (Start answers 2,
// "unable to receive a valid format from wlr_screencopy") unless the
// compositor offers a DMA-BUF format for the frame, and a compositor with
// the software (pixman) renderer, the only one without a GPU, never does.
// Without a GPU the backend cannot allocate DMA-BUFs anyway, so it still
// negotiates shared-memory buffers with the stream's consumer, which is what
// a GPU-less desktop has; only the refusal goes away.
#include <dlfcn.h>

#include <atomic>
#include <cstdint>
#include <cstdlib>
#include <cstring>

struct wl_proxy;

namespace {

// zwlr_screencopy_frame_v1's events in protocol order.
struct FrameListener {
    void (*buffer)(void* data, wl_proxy* frame, uint32_t format, uint32_t width, uint32_t height,
                   uint32_t stride);
    void (*flags)(void* data, wl_proxy* frame, uint32_t flags);
    void (*ready)(void* data, wl_proxy* frame, uint32_t secHi, uint32_t secLo, uint32_t nsec);
    void (*failed)(void* data, wl_proxy* frame);
    void (*damage)(void* data, wl_proxy* frame, uint32_t x, uint32_t y, uint32_t w, uint32_t h);
    void (*linuxDmabuf)(void* data, wl_proxy* frame, uint32_t format, uint32_t width,
                        uint32_t height);
    void (*bufferDone)(void* data, wl_proxy* frame);
};

// The backend has one listener table for frames: the first one seen.
std::atomic<const FrameListener*> gOriginal{nullptr};
FrameListener gWrapped;

uint32_t drmFourccOfShm(uint32_t format) {
    auto fourcc = [](char a, char b, char c, char d) {
        return uint32_t(uint8_t(a)) | uint32_t(uint8_t(b)) << 8 | uint32_t(uint8_t(c)) << 16 |
               uint32_t(uint8_t(d)) << 24;
    };
    if (format == 0) return fourcc('A', 'R', '2', '4');
    if (format == 1) return fourcc('X', 'R', '2', '4');
    return format;
}

void buffer(void* data, wl_proxy* frame, uint32_t format, uint32_t width, uint32_t height,
            uint32_t stride) {
    const FrameListener* original = gOriginal.load();
    original->buffer(data, frame, format, width, height, stride);
    if (original->linuxDmabuf)
        original->linuxDmabuf(data, frame, drmFourccOfShm(format), width, height);
}

}  // namespace

extern "C" const char* wl_proxy_get_class(wl_proxy* proxy);

extern "C" int wl_proxy_add_listener(wl_proxy* proxy, void (**implementation)(void), void* data) {
    using AddListener = int (*)(wl_proxy*, void (**)(void), void*);
    static auto next = reinterpret_cast<AddListener>(dlsym(RTLD_NEXT, "wl_proxy_add_listener"));
    if (!next) std::abort();
    const char* cls = wl_proxy_get_class(proxy);
    if (!cls || std::strcmp(cls, "zwlr_screencopy_frame_v1") != 0 || !implementation)
        return next(proxy, implementation, data);
    const auto* listener = reinterpret_cast<const FrameListener*>(implementation);
    const FrameListener* expected = nullptr;
    if (gOriginal.compare_exchange_strong(expected, listener)) {
        gWrapped = *listener;
        gWrapped.buffer = buffer;
    } else if (expected != listener) {
        return next(proxy, implementation, data);
    }
    return next(proxy, reinterpret_cast<void (**)(void)>(&gWrapped), data);
}
