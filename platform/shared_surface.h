// The platform's shareable image surface: a memfd-backed image (BGRA by
// default), mapped once, reference counted through std::shared_ptr and
// transferable to another process as a file descriptor. The memfd is sealed
// against growing and shrinking, so a receiver that maps it read-only can
// never fault on a truncated file.
//
// Thread-safety: the object is immutable after creation except for the
// pixels, which only the producer writes before handing the surface on.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "platform/audio_format.h"
#include "platform/error.h"
#include "platform/unique_fd.h"

namespace sv {

// Errors of creating, importing and pooling surfaces.
inline constexpr const char* kSurfaceErrorDomain = "org.sorvel.SurfaceErrorDomain";
enum SurfaceErrorCode : int64_t {
    kSurfaceErrorUnsupportedFormat = 1,
    kSurfaceErrorSizeOutOfRange = 2,
    kSurfaceErrorSystem = 3,         // the kernel refused memory or a mapping
    kSurfaceErrorBadDescriptor = 4,  // a received descriptor is missing, unsealed or too small
};

enum class PixelFormat : uint32_t {
    BGRA = fourCC('B', 'G', 'R', 'A'),
};

// What travels beside the descriptor when a surface crosses a process boundary.
struct SurfaceDescriptor {
    int32_t width = 0;
    int32_t height = 0;
    uint32_t bytesPerRow = 0;
    PixelFormat pixelFormat = PixelFormat::BGRA;
};

class SharedSurface {
  public:
    // Largest surface accepted from anyone: 16384 x 16384 BGRA.
    static constexpr size_t kMaxBytes = size_t(16384) * 16384 * 4;

    // A new writable surface; rows are aligned to 64 bytes. An error when
    // the size is out of range or the kernel refuses.
    static Result<std::shared_ptr<SharedSurface>> create(int32_t width, int32_t height,
                                                         PixelFormat format = PixelFormat::BGRA);
    // Maps a surface received from another process, read-only. Takes
    // ownership of `fd` in every case (closes it on failure). Refuses a
    // descriptor that is not a sealed memfd large enough for `desc`.
    static Result<std::shared_ptr<SharedSurface>> importDescriptor(int fd,
                                                                   const SurfaceDescriptor& desc);

    ~SharedSurface();
    SharedSurface(const SharedSurface&) = delete;
    SharedSurface& operator=(const SharedSurface&) = delete;

    int32_t width() const { return desc_.width; }
    int32_t height() const { return desc_.height; }
    uint32_t bytesPerRow() const { return desc_.bytesPerRow; }
    PixelFormat pixelFormat() const { return desc_.pixelFormat; }
    const SurfaceDescriptor& descriptor() const { return desc_; }
    size_t byteSize() const { return size_; }
    bool isReadOnly() const { return readOnly_; }
    // Process-unique identity (never reused within a process).
    uint64_t surfaceID() const { return id_; }

    const uint8_t* data() const { return base_; }
    // Null for a read-only (imported) surface.
    uint8_t* mutableData() { return readOnly_ ? nullptr : base_; }
    uint8_t* mutableRow(int32_t y) {
        return readOnly_ ? nullptr : base_ + size_t(y) * desc_.bytesPerRow;
    }
    const uint8_t* row(int32_t y) const { return base_ + size_t(y) * desc_.bytesPerRow; }

    // The memfd, still owned by the surface; dup() it to hand it on.
    int fd() const { return fd_.get(); }
    // A new descriptor for sending; the caller owns it. -1 on failure.
    int duplicateFd() const;

    std::string description() const;

    // Used by SurfacePool; everyone else uses create().
    static Result<std::unique_ptr<SharedSurface>> allocate(int32_t width, int32_t height,
                                                           PixelFormat format);

  private:
    SharedSurface(UniqueFd fd, uint8_t* base, size_t size, SurfaceDescriptor desc, bool readOnly);

    UniqueFd fd_;
    uint8_t* base_;
    size_t size_;
    SurfaceDescriptor desc_;
    bool readOnly_;
    uint64_t id_;
};

// Reuses surfaces of one size for a producer: acquire() hands out a free
// surface when one exists and allocates otherwise; a surface returns to the
// pool when its last reference goes away (on whichever thread drops it). The
// pool may be destroyed while surfaces are out; they are then freed.
class SurfacePool {
  public:
    SurfacePool(int32_t width, int32_t height, PixelFormat format = PixelFormat::BGRA,
                size_t maxFree = 8);
    ~SurfacePool();

    Result<std::shared_ptr<SharedSurface>> acquire();

    int32_t width() const { return width_; }
    int32_t height() const { return height_; }
    size_t allocatedCount() const;  // surfaces created so far
    size_t freeCount() const;

    struct State;

  private:
    int32_t width_, height_;
    PixelFormat format_;
    std::shared_ptr<State> state_;
};

}  // namespace sv
