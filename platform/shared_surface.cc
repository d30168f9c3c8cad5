#include "platform/shared_surface.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstring>

namespace sv {
namespace {

std::atomic<uint64_t> gNextSurfaceID{1};

Error surfaceError(SurfaceErrorCode code, const std::string& text) {
    return Error::make(kSurfaceErrorDomain, code, text);
}

bool computeLayout(int32_t width, int32_t height, uint32_t bytesPerRow, size_t* size) {
    if (width <= 0 || height <= 0 || width > 16384 || height > 16384) return false;
    if (bytesPerRow < uint64_t(width) * 4) return false;
    uint64_t total = uint64_t(bytesPerRow) * uint64_t(height);
    if (total > SharedSurface::kMaxBytes) return false;
    *size = static_cast<size_t>(total);
    return true;
}

}  // namespace

SharedSurface::SharedSurface(UniqueFd fd, uint8_t* base, size_t size, SurfaceDescriptor desc,
                             bool readOnly)
    : fd_(std::move(fd)),
      base_(base),
      size_(size),
      desc_(desc),
      readOnly_(readOnly),
      id_(gNextSurfaceID.fetch_add(1, std::memory_order_relaxed)) {}

SharedSurface::~SharedSurface() {
    if (base_) munmap(base_, size_);
}

Result<std::unique_ptr<SharedSurface>> SharedSurface::allocate(int32_t width, int32_t height,
                                                               PixelFormat format) {
    if (format != PixelFormat::BGRA)
        return surfaceError(kSurfaceErrorUnsupportedFormat, "unsupported pixel format");
    uint32_t bpr = (uint32_t(width > 0 ? width : 0) * 4 + 63) & ~63u;
    size_t size = 0;
    if (!computeLayout(width, height, bpr, &size))
        return surfaceError(kSurfaceErrorSizeOutOfRange, "surface size out of range");
    UniqueFd fd(memfd_create("sv-surface", MFD_CLOEXEC | MFD_ALLOW_SEALING));
    if (!fd.valid())
        return surfaceError(kSurfaceErrorSystem,
                            std::string("memfd_create: ") + std::strerror(errno));
    if (ftruncate(fd.get(), static_cast<off_t>(size)) != 0 ||
        fcntl(fd.get(), F_ADD_SEALS, F_SEAL_GROW | F_SEAL_SHRINK | F_SEAL_SEAL) != 0)
        return surfaceError(kSurfaceErrorSystem,
                            std::string("sealing surface: ") + std::strerror(errno));
    void* base = mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_SHARED, fd.get(), 0);
    if (base == MAP_FAILED)
        return surfaceError(kSurfaceErrorSystem, std::string("mmap: ") + std::strerror(errno));
    return std::unique_ptr<SharedSurface>(new SharedSurface(
        std::move(fd), static_cast<uint8_t*>(base), size, {width, height, bpr, format}, false));
}

Result<std::shared_ptr<SharedSurface>> SharedSurface::create(int32_t width, int32_t height,
                                                             PixelFormat format) {
    auto surface = allocate(width, height, format);
    if (!surface) return surface.error();
    return std::shared_ptr<SharedSurface>(std::move(*surface));
}

Result<std::shared_ptr<SharedSurface>> SharedSurface::importDescriptor(
    int descriptor, const SurfaceDescriptor& desc) {
    UniqueFd fd(descriptor);  // owned from here on, whatever happens
    auto fail = [](const char* why) { return surfaceError(kSurfaceErrorBadDescriptor, why); };
    if (!fd.valid()) return fail("no descriptor");
    if (desc.pixelFormat != PixelFormat::BGRA)
        return surfaceError(kSurfaceErrorUnsupportedFormat, "unsupported pixel format");
    size_t size = 0;
    if (!computeLayout(desc.width, desc.height, desc.bytesPerRow, &size))
        return surfaceError(kSurfaceErrorSizeOutOfRange, "surface size out of range");
    int seals = fcntl(fd.get(), F_GET_SEALS);
    if (seals < 0 || !(seals & F_SEAL_SHRINK)) return fail("surface is not a sealed memfd");
    struct stat st {};
    if (fstat(fd.get(), &st) != 0 || !S_ISREG(st.st_mode) || uint64_t(st.st_size) < size)
        return fail("surface descriptor smaller than its image");
    void* base = mmap(nullptr, size, PROT_READ, MAP_SHARED, fd.get(), 0);
    if (base == MAP_FAILED)
        return surfaceError(kSurfaceErrorSystem, "mmap of received surface failed");
    return std::shared_ptr<SharedSurface>(
        new SharedSurface(std::move(fd), static_cast<uint8_t*>(base), size, desc, true));
}

int SharedSurface::duplicateFd() const {
    return fcntl(fd_.get(), F_DUPFD_CLOEXEC, 0);
}

std::string SharedSurface::description() const {
    return "<SharedSurface " + std::to_string(id_) + " " + std::to_string(desc_.width) + "x" +
           std::to_string(desc_.height) + (readOnly_ ? " ro" : "") + ">";
}

struct SurfacePool::State {
    std::mutex mutex;
    std::vector<std::unique_ptr<SharedSurface>> free;
    size_t maxFree;
    size_t allocated = 0;
};

SurfacePool::SurfacePool(int32_t width, int32_t height, PixelFormat format, size_t maxFree)
    : width_(width), height_(height), format_(format), state_(std::make_shared<State>()) {
    state_->maxFree = maxFree;
}

SurfacePool::~SurfacePool() = default;

Result<std::shared_ptr<SharedSurface>> SurfacePool::acquire() {
    std::unique_ptr<SharedSurface> s;
    {
        std::lock_guard lock(state_->mutex);
        if (!state_->free.empty()) {
            s = std::move(state_->free.back());
            state_->free.pop_back();
        }
    }
    if (!s) {
        auto allocated = SharedSurface::allocate(width_, height_, format_);
        if (!allocated) return allocated.error();
        s = std::move(*allocated);
        std::lock_guard lock(state_->mutex);
        ++state_->allocated;
    }
    std::weak_ptr<State> weak = state_;
    return std::shared_ptr<SharedSurface>(s.release(), [weak](SharedSurface* p) {
        std::unique_ptr<SharedSurface> owned(p);
        if (auto st = weak.lock()) {
            std::lock_guard lock(st->mutex);
            if (st->free.size() < st->maxFree) st->free.push_back(std::move(owned));
        }
    });
}

size_t SurfacePool::allocatedCount() const {
    std::lock_guard lock(state_->mutex);
    return state_->allocated;
}

size_t SurfacePool::freeCount() const {
    std::lock_guard lock(state_->mutex);
    return state_->free.size();
}

}  // namespace sv
