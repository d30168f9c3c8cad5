#include "platform/screen/pipewire_stream.h"

#include <linux/dma-buf.h>
#include <pipewire/pipewire.h>
#include <spa/buffer/meta.h>
#include <spa/param/video/format-utils.h>
#include <spa/pod/builder.h>
#include <sys/ioctl.h>
#include <sys/mman.h>

#include <cerrno>
#include <cstring>
#include <functional>
#include <map>
#include <utility>

#include "platform/host_clock.h"
#include "platform/log.h"
#include "platform/screen/frame_fit.h"
#include "platform/screen/screen_backend.h"

namespace sv {

namespace {

Error screenError(ScreenErrorCode code, const std::string& message) {
    return Error::make(kScreenErrorDomain, code, message);
}

uint32_t transformFlagsOf(uint32_t transform) {
    switch (transform) {
        case SPA_META_TRANSFORMATION_90:
            return kScreenTransformRotate;
        case SPA_META_TRANSFORMATION_180:
            return kScreenTransformFlipX | kScreenTransformFlipY;
        case SPA_META_TRANSFORMATION_270:
            return kScreenTransformRotate | kScreenTransformFlipX | kScreenTransformFlipY;
        case SPA_META_TRANSFORMATION_Flipped:
            return kScreenTransformFlipX;
        case SPA_META_TRANSFORMATION_Flipped90:
            return kScreenTransformRotate | kScreenTransformFlipX;
        case SPA_META_TRANSFORMATION_Flipped180:
            return kScreenTransformFlipY;
        case SPA_META_TRANSFORMATION_Flipped270:
            return kScreenTransformRotate | kScreenTransformFlipY;
        default:
            return 0;
    }
}

// DRM format modifiers (drm_fourcc.h): the linear layout, and none given
// (the driver's implicit layout).
constexpr uint64_t kModifierLinear = 0;
constexpr uint64_t kModifierInvalid = (uint64_t(1) << 56) - 1;

// One EnumFormat: BGRx/BGRA at about `size` and `fps`; with `dmabuf`,
// DMA-BUF pictures of the linear or the implicit layout (the producer, which
// allocates them, chooses), else shared memory.
const spa_pod* buildFormat(spa_pod_builder* b, spa_rectangle size, double fps, bool dmabuf) {
    spa_pod_frame f, choice;
    spa_pod_builder_push_object(b, &f, SPA_TYPE_OBJECT_Format, SPA_PARAM_EnumFormat);
    spa_pod_builder_prop(b, SPA_FORMAT_mediaType, 0);
    spa_pod_builder_id(b, SPA_MEDIA_TYPE_video);
    spa_pod_builder_prop(b, SPA_FORMAT_mediaSubtype, 0);
    spa_pod_builder_id(b, SPA_MEDIA_SUBTYPE_raw);
    spa_pod_builder_prop(b, SPA_FORMAT_VIDEO_format, 0);
    spa_pod_builder_push_choice(b, &choice, SPA_CHOICE_Enum, 0);
    spa_pod_builder_id(b, SPA_VIDEO_FORMAT_BGRx);
    spa_pod_builder_id(b, SPA_VIDEO_FORMAT_BGRx);
    spa_pod_builder_id(b, SPA_VIDEO_FORMAT_BGRA);
    spa_pod_builder_pop(b, &choice);
    if (dmabuf) {
        spa_pod_builder_prop(b, SPA_FORMAT_VIDEO_modifier,
                             SPA_POD_PROP_FLAG_MANDATORY | SPA_POD_PROP_FLAG_DONT_FIXATE);
        spa_pod_builder_push_choice(b, &choice, SPA_CHOICE_Enum, 0);
        spa_pod_builder_long(b, int64_t(kModifierLinear));
        spa_pod_builder_long(b, int64_t(kModifierLinear));
        spa_pod_builder_long(b, int64_t(kModifierInvalid));
        spa_pod_builder_pop(b, &choice);
    }
    spa_pod_builder_prop(b, SPA_FORMAT_VIDEO_size, 0);
    spa_pod_builder_push_choice(b, &choice, SPA_CHOICE_Range, 0);
    spa_pod_builder_rectangle(b, size.width, size.height);
    spa_pod_builder_rectangle(b, 1, 1);
    spa_pod_builder_rectangle(b, 16384, 16384);
    spa_pod_builder_pop(b, &choice);
    spa_pod_builder_prop(b, SPA_FORMAT_VIDEO_framerate, 0);
    spa_pod_builder_push_choice(b, &choice, SPA_CHOICE_Range, 0);
    spa_pod_builder_fraction(b, uint32_t(std::max(1.0, fps + 0.5)), 1);
    spa_pod_builder_fraction(b, 0, 1);
    spa_pod_builder_fraction(b, 1000, 1);
    spa_pod_builder_pop(b, &choice);
    return static_cast<const spa_pod*>(spa_pod_builder_pop(b, &f));
}

constexpr pw_stream_flags kConnectFlags =
    pw_stream_flags(PW_STREAM_FLAG_AUTOCONNECT | PW_STREAM_FLAG_MAP_BUFFERS);

void initPipeWire() {
    static std::once_flag once;
    std::call_once(once, [] { pw_init(nullptr, nullptr); });
}

// A DMA-BUF mapped for the CPU to read. Move-only; the descriptor is
// borrowed and stays open while read() is used. The stream's loop thread.
class DmaBufMapping {
  public:
    // Maps the first `size` bytes of `fd` read-only; an error
    // (kScreenErrorDomain) when it is shorter than that (reading past its
    // end would kill the process) or cannot be mapped.
    static Result<DmaBufMapping> map(int fd, size_t size);
    DmaBufMapping(DmaBufMapping&& other) noexcept;
    DmaBufMapping& operator=(DmaBufMapping&& other) noexcept;
    ~DmaBufMapping();

    // Calls `reader` between DMA_BUF_IOCTL_SYNC's start and end of a CPU
    // read, so that it sees what the GPU finished writing; a descriptor
    // that is no DMA-BUF (a memfd) is read without. An error when the sync
    // cannot start.
    Result<void> read(const std::function<void(const uint8_t*, size_t)>& reader) const;

  private:
    DmaBufMapping(int fd, void* data, size_t size) : fd_(fd), data_(data), size_(size) {}
    int fd_ = -1;
    void* data_ = nullptr;
    size_t size_ = 0;
};

Result<DmaBufMapping> DmaBufMapping::map(int fd, size_t size) {
    // A DMA-BUF's size is where seeking to its end lands.
    const off_t end = fd >= 0 ? ::lseek(fd, 0, SEEK_END) : -1;
    if (size == 0 || end < 0 || uint64_t(end) < size)
        return screenError(kScreenErrorUnsupportedServer,
                           "a screen-cast DMA-BUF is smaller than its picture");
    void* data = ::mmap(nullptr, size, PROT_READ, MAP_SHARED, fd, 0);
    if (data == MAP_FAILED)
        return screenError(kScreenErrorUnsupportedServer,
                           std::string("cannot map a screen-cast DMA-BUF: ") + strerror(errno));
    return DmaBufMapping(fd, data, size);
}

DmaBufMapping::DmaBufMapping(DmaBufMapping&& other) noexcept
    : fd_(std::exchange(other.fd_, -1)),
      data_(std::exchange(other.data_, nullptr)),
      size_(std::exchange(other.size_, 0)) {}

DmaBufMapping& DmaBufMapping::operator=(DmaBufMapping&& other) noexcept {
    if (this != &other) {
        if (data_) ::munmap(data_, size_);
        fd_ = std::exchange(other.fd_, -1);
        data_ = std::exchange(other.data_, nullptr);
        size_ = std::exchange(other.size_, 0);
    }
    return *this;
}

DmaBufMapping::~DmaBufMapping() {
    if (data_) ::munmap(data_, size_);
}

Result<void> DmaBufMapping::read(const std::function<void(const uint8_t*, size_t)>& reader) const {
    auto sync = [this](uint64_t flags) {
        dma_buf_sync s{flags | DMA_BUF_SYNC_READ};
        int r;
        while ((r = ::ioctl(fd_, DMA_BUF_IOCTL_SYNC, &s)) < 0 &&
               (errno == EINTR || errno == EAGAIN)) {
        }
        return r == 0 || errno == ENOTTY ? 0 : errno;
    };
    if (const int e = sync(DMA_BUF_SYNC_START))
        return screenError(kScreenErrorUnsupportedServer,
                           std::string("cannot read a screen-cast DMA-BUF: ") + strerror(e));
    reader(static_cast<const uint8_t*>(data_), size_);
    sync(DMA_BUF_SYNC_END);
    return {};
}

// The stream's thread loop, context, core, registry and stream. Callbacks
// run on the loop thread; the rest on the owner's.
class Stream final : public PipeWireStream {
  public:
    static Result<std::unique_ptr<PipeWireStream>> make(UniqueFd remote, uint32_t node,
                                                        int32_t width, int32_t height,
                                                        MediaTime interval,
                                                        std::shared_ptr<FrameBox> box) {
        initPipeWire();
        auto s = std::unique_ptr<Stream>(new Stream);
        s->box_ = std::move(box);
        s->pool_ = std::make_unique<SurfacePool>(width, height, PixelFormat::BGRA,
                                                 PacedCaptureController::kMaxFramesInFlight);
        auto fail = [](const char* what) {
            return screenError(kScreenErrorCannotConnect,
                               std::string("PipeWire: ") + what + ": " + strerror(errno));
        };
        s->loop_ = pw_thread_loop_new("sv-portal", nullptr);
        if (!s->loop_) return fail("no thread loop");
        s->context_ = pw_context_new(pw_thread_loop_get_loop(s->loop_), nullptr, 0);
        if (!s->context_) return fail("no context");
        if (pw_thread_loop_start(s->loop_) < 0) return fail("cannot start the loop");
        pw_thread_loop_lock(s->loop_);
        auto unlock = [&] { pw_thread_loop_unlock(s->loop_); };
        s->core_ = pw_context_connect_fd(s->context_, remote.release(), nullptr, 0);
        if (!s->core_) {
            unlock();
            return fail("cannot connect to the portal's remote");
        }
        static const pw_core_events coreEvents = [] {
            pw_core_events e{};
            e.version = PW_VERSION_CORE_EVENTS;
            e.error = [](void* data, uint32_t id, int, int res, const char* message) {
                auto* self = static_cast<Stream*>(data);
                if (id != PW_ID_CORE) return;
                log::error("Screen capture: PipeWire connection lost: %@ (%@)",
                           message ? message : "", strerror(-res));
                self->box_->end({CaptureFailure::Kind::MediaServicesReset, 0});
            };
            return e;
        }();
        pw_core_add_listener(s->core_, &s->coreListener_, &coreEvents, s.get());

        // The node going away is how a compositor's end shows (its portal
        // backend leaves with it): the stream itself only pauses.
        s->node_ = node;
        s->registry_ = pw_core_get_registry(s->core_, PW_VERSION_REGISTRY, 0);
        if (!s->registry_) {
            unlock();
            return fail("no registry");
        }
        static const pw_registry_events registryEvents = [] {
            pw_registry_events e{};
            e.version = PW_VERSION_REGISTRY_EVENTS;
            e.global_remove = [](void* data, uint32_t id) {
                auto* self = static_cast<Stream*>(data);
                if (id != self->node_) return;
                log::error("Screen capture: the screen-cast stream's source went away");
                self->box_->end({CaptureFailure::Kind::Failed, kScreenCaptureSourceGone});
            };
            return e;
        }();
        pw_registry_add_listener(s->registry_, &s->registryListener_, &registryEvents, s.get());

        pw_properties* props = pw_properties_new(PW_KEY_MEDIA_TYPE, "Video", PW_KEY_MEDIA_CATEGORY,
                                                 "Capture", PW_KEY_MEDIA_ROLE, "Screen", nullptr);
        s->stream_ = pw_stream_new(s->core_, "sorvel screen capture", props);
        if (!s->stream_) {
            unlock();
            return fail("cannot make a stream");
        }
        static const pw_stream_events streamEvents = [] {
            pw_stream_events e{};
            e.version = PW_VERSION_STREAM_EVENTS;
            e.state_changed = [](void* data, pw_stream_state, pw_stream_state state,
                                 const char* error) {
                static_cast<Stream*>(data)->stateChanged(state, error);
            };
            e.param_changed = [](void* data, uint32_t id, const spa_pod* param) {
                static_cast<Stream*>(data)->paramChanged(id, param);
            };
            e.add_buffer = [](void* data, pw_buffer* buffer) {
                static_cast<Stream*>(data)->addBuffer(buffer);
            };
            e.remove_buffer = [](void* data, pw_buffer* buffer) {
                static_cast<Stream*>(data)->mappings_.erase(buffer);
            };
            e.process = [](void* data) { static_cast<Stream*>(data)->process(); };
            return e;
        }();
        pw_stream_add_listener(s->stream_, &s->streamListener_, &streamEvents, s.get());

        s->size_ = {uint32_t(width), uint32_t(height)};
        s->fps_ = interval.isValid() && interval.seconds() > 0 ? 1.0 / interval.seconds() : 60.0;
        s->renegotiate_ = pw_loop_add_event(
            pw_thread_loop_get_loop(s->loop_),
            [](void* data, uint64_t) { static_cast<Stream*>(data)->offerSharedMemoryOnly(); },
            s.get());
        if (!s->renegotiate_) {
            unlock();
            return fail("no event source");
        }
        uint8_t buffer[2048];
        spa_pod_builder b = SPA_POD_BUILDER_INIT(buffer, sizeof(buffer));
        // DMA-BUFs first: the producer takes the first it can give.
        const spa_pod* params[] = {buildFormat(&b, s->size_, s->fps_, true),
                                   buildFormat(&b, s->size_, s->fps_, false)};
        if (!params[0] || !params[1]) {
            unlock();
            return screenError(kScreenErrorCannotConnect, "PipeWire: cannot describe the format");
        }
        const int r =
            pw_stream_connect(s->stream_, PW_DIRECTION_INPUT, node, kConnectFlags, params, 2);
        unlock();
        if (r < 0)
            return screenError(
                kScreenErrorCannotConnect,
                "PipeWire: cannot connect to the stream: " + std::string(strerror(-r)));
        return std::unique_ptr<PipeWireStream>(std::move(s));
    }

    ~Stream() override {
        if (loop_) pw_thread_loop_lock(loop_);
        // Our own ending is no stream ending: nobody hears of it.
        if (stream_) {
            spa_hook_remove(&streamListener_);
            pw_stream_destroy(stream_);
        }
        if (renegotiate_) pw_loop_destroy_source(pw_thread_loop_get_loop(loop_), renegotiate_);
        if (registry_) {
            spa_hook_remove(&registryListener_);
            pw_proxy_destroy(reinterpret_cast<pw_proxy*>(registry_));
        }
        if (core_) spa_hook_remove(&coreListener_);
        if (core_) pw_core_disconnect(core_);
        if (loop_) {
            pw_thread_loop_unlock(loop_);
            pw_thread_loop_stop(loop_);
        }
        if (context_) pw_context_destroy(context_);
        if (loop_) pw_thread_loop_destroy(loop_);
    }

  private:
    Stream() = default;

    // On the loop thread.
    void stateChanged(pw_stream_state state, const char* error) {
        if (state == PW_STREAM_STATE_STREAMING) streaming_ = true;
        if (state == PW_STREAM_STATE_ERROR ||
            (state == PW_STREAM_STATE_UNCONNECTED && streaming_)) {
            log::error("Screen capture: the screen-cast stream ended%@%@", error ? ": " : "",
                       error ? error : "");
            box_->end({CaptureFailure::Kind::Failed, kScreenCaptureSourceGone});
        }
    }

    // On the loop thread, outside the stream's callbacks: the offer again,
    // without DMA-BUFs; the producer negotiates anew.
    void offerSharedMemoryOnly() {
        uint8_t buffer[1024];
        spa_pod_builder b = SPA_POD_BUILDER_INIT(buffer, sizeof(buffer));
        const spa_pod* format = buildFormat(&b, size_, fps_, false);
        if (!format || pw_stream_update_params(stream_, &format, 1) < 0) {
            log::error("Screen capture: cannot ask the screen-cast stream for shared memory");
            box_->end({CaptureFailure::Kind::Failed, kScreenCaptureGrabFailed});
        }
    }

    // On the loop thread: DMA-BUFs are no longer offered.
    void fallBackToSharedMemory(const char* why) {
        if (sharedMemoryOnly_) return;
        sharedMemoryOnly_ = true;
        log::error("Screen capture: %@; asking for shared memory instead", why);
        pw_loop_signal_event(pw_thread_loop_get_loop(loop_), renegotiate_);
    }

    // On the loop thread: the producer fixed the format. DMA-BUFs of a
    // choice of layouts are not fixed yet: the producer, which allocates
    // them, chooses one and the format comes again.
    void paramChanged(uint32_t id, const spa_pod* param) {
        if (id != SPA_PARAM_Format || !param) return;
        const spa_pod_prop* modifier = spa_pod_find_prop(param, nullptr, SPA_FORMAT_VIDEO_modifier);
        if (modifier && (modifier->flags & SPA_POD_PROP_FLAG_DONT_FIXATE)) return;
        spa_video_info_raw info{};
        if (spa_format_video_raw_parse(param, &info) < 0 ||
            (info.format != SPA_VIDEO_FORMAT_BGRx && info.format != SPA_VIDEO_FORMAT_BGRA) ||
            info.size.width == 0 || info.size.height == 0 || info.size.width > 16384 ||
            info.size.height > 16384) {
            log::error("Screen capture: the screen-cast stream offers no BGRx/BGRA picture");
            box_->end({CaptureFailure::Kind::Failed, kScreenCaptureGrabFailed});
            return;
        }
        width_ = int32_t(info.size.width);
        height_ = int32_t(info.size.height);
        const bool dmabuf = modifier != nullptr;
        if (dmabuf && info.modifier != kModifierLinear && info.modifier != kModifierInvalid) {
            fallBackToSharedMemory("the screen-cast stream's DMA-BUFs have a layout not asked for");
            return;
        }
        log::info("Screen capture: screen-cast stream %@x%@ at %@/%@ fps, %@", width_, height_,
                  info.framerate.num, info.framerate.denom, dmabuf ? "DMA-BUF" : "shared memory");
        uint8_t buffer[512];
        spa_pod_builder b = SPA_POD_BUILDER_INIT(buffer, sizeof(buffer));
        spa_pod_frame f;
        spa_pod_builder_push_object(&b, &f, SPA_TYPE_OBJECT_ParamBuffers, SPA_PARAM_Buffers);
        spa_pod_builder_prop(&b, SPA_PARAM_BUFFERS_dataType, 0);
        spa_pod_builder_int(&b, (dmabuf ? 1 << SPA_DATA_DmaBuf : 0) | (1 << SPA_DATA_MemFd) |
                                    (1 << SPA_DATA_MemPtr));
        const auto* buffers = static_cast<const spa_pod*>(spa_pod_builder_pop(&b, &f));
        spa_pod_builder_push_object(&b, &f, SPA_TYPE_OBJECT_ParamMeta, SPA_PARAM_Meta);
        spa_pod_builder_prop(&b, SPA_PARAM_META_type, 0);
        spa_pod_builder_id(&b, SPA_META_VideoTransform);
        spa_pod_builder_prop(&b, SPA_PARAM_META_size, 0);
        spa_pod_builder_int(&b, int32_t(sizeof(spa_meta_videotransform)));
        const auto* meta = static_cast<const spa_pod*>(spa_pod_builder_pop(&b, &f));
        spa_pod_builder_push_object(&b, &f, SPA_TYPE_OBJECT_ParamMeta, SPA_PARAM_Meta);
        spa_pod_builder_prop(&b, SPA_PARAM_META_type, 0);
        spa_pod_builder_id(&b, SPA_META_Header);
        spa_pod_builder_prop(&b, SPA_PARAM_META_size, 0);
        spa_pod_builder_int(&b, int32_t(sizeof(spa_meta_header)));
        const auto* header = static_cast<const spa_pod*>(spa_pod_builder_pop(&b, &f));
        const spa_pod* params[3];
        uint32_t n = 0;
        if (buffers) params[n++] = buffers;
        if (meta) params[n++] = meta;
        if (header) params[n++] = header;
        pw_stream_update_params(stream_, params, n);
    }

    // On the loop thread: a DMA-BUF is mapped once, for as long as the
    // stream has it; one that cannot be mapped ends DMA-BUFs for the stream.
    void addBuffer(pw_buffer* b) {
        const spa_buffer* buffer = b->buffer;
        if (!buffer || buffer->n_datas < 1 || buffer->datas[0].type != SPA_DATA_DmaBuf ||
            sharedMemoryOnly_)
            return;
        const spa_data& d = buffer->datas[0];
        auto mapping = DmaBufMapping::map(int(d.fd), size_t(d.mapoffset) + d.maxsize);
        if (!mapping) {
            log::error("Screen capture: %@", mapping.error().message());
            fallBackToSharedMemory("a screen-cast DMA-BUF cannot be mapped");
            return;
        }
        mappings_.insert_or_assign(b, std::move(*mapping));
    }

    // On the loop thread: the newest buffer is copied once into a pooled
    // surface; older ones waiting behind it are returned unread.
    void process() {
        pw_buffer* b = pw_stream_dequeue_buffer(stream_);
        if (!b) return;
        while (pw_buffer* newer = pw_stream_dequeue_buffer(stream_)) {
            pw_stream_queue_buffer(stream_, b);
            b = newer;
        }
        const spa_buffer& buffer = *b->buffer;
        if (buffer.n_datas >= 1 && buffer.datas[0].type == SPA_DATA_DmaBuf) {
            auto it = mappings_.find(b);
            if (it != mappings_.end()) {
                const uint32_t offset = buffer.datas[0].mapoffset;
                auto read = it->second.read([&](const uint8_t* data, size_t) {
                    copy(buffer, data + offset, buffer.datas[0].maxsize);
                });
                if (!read) log::error("Screen capture: %@", read.error().message());
            }
        } else if (buffer.n_datas >= 1) {
            copy(buffer, static_cast<const uint8_t*>(buffer.datas[0].data),
                 buffer.datas[0].maxsize);
        }
        pw_stream_queue_buffer(stream_, b);
    }

    // `data` holds the first data's `size` bytes.
    void copy(const spa_buffer& buffer, const uint8_t* data, uint32_t size) {
        if (width_ == 0) return;
        const spa_data& d = buffer.datas[0];
        if (!data || !d.chunk || (d.chunk->flags & SPA_CHUNK_FLAG_CORRUPTED)) return;
        const int64_t stride = d.chunk->stride > 0 ? d.chunk->stride : int64_t(width_) * 4;
        const uint64_t need = uint64_t(d.chunk->offset) + uint64_t(stride) * uint64_t(height_ - 1) +
                              uint64_t(width_) * 4;
        if (stride < int64_t(width_) * 4 || need > size) {
            static log::RateLimit limit;
            size_t suppressed = 0;
            if (limit.admit(suppressed))
                log::error("Screen capture: a screen-cast buffer is too small");
            return;
        }
        // Consumers hold as many frames as the controller allows: the picture
        // is dropped rather than the pool grown.
        if (pool_->allocatedCount() - pool_->freeCount() >=
            PacedCaptureController::kMaxFramesInFlight + 1)
            return;
        auto surface = pool_->acquire();
        if (!surface) {
            box_->end({CaptureFailure::Kind::Failed, kScreenCaptureSurfaceUnavailable});
            return;
        }
        const auto* src = data + d.chunk->offset;
        fitInto(src, int32_t(stride), width_, height_, **surface);
        setOpaque(**surface);
        uint32_t flags = 0;
        if (auto* t = static_cast<spa_meta_videotransform*>(spa_buffer_find_meta_data(
                &buffer, SPA_META_VideoTransform, sizeof(spa_meta_videotransform))))
            flags = transformFlagsOf(t->transform);
        // Compositors stamp pictures on CLOCK_MONOTONIC, the host clock: the
        // stamp is the capture instant when it lies within the last second,
        // else the arrival is.
        const uint64_t now = HostClock::now();
        uint64_t captured = now;
        if (auto* h = static_cast<spa_meta_header*>(
                spa_buffer_find_meta_data(&buffer, SPA_META_Header, sizeof(spa_meta_header)));
            h && h->pts > 0 && uint64_t(h->pts) <= now &&
            now - uint64_t(h->pts) < uint64_t(HostClock::kTicksPerSecond))
            captured = uint64_t(h->pts);
        if (!pictures_++) log::info("Screen capture: the first screen-cast picture arrived");
        std::lock_guard lock(box_->mutex);
        box_->latest = std::move(*surface);
        box_->arrival = captured;
        box_->transformFlags = flags;
        ++box_->sequence;
    }

    std::shared_ptr<FrameBox> box_;
    std::unique_ptr<SurfacePool> pool_;
    pw_thread_loop* loop_ = nullptr;
    pw_context* context_ = nullptr;
    pw_core* core_ = nullptr;
    pw_stream* stream_ = nullptr;
    pw_registry* registry_ = nullptr;
    uint32_t node_ = 0;
    spa_hook registryListener_{};
    spa_hook coreListener_{};
    spa_hook streamListener_{};
    spa_source* renegotiate_ = nullptr;  // offers shared memory alone
    spa_rectangle size_{};
    double fps_ = 60;
    // Loop thread only.
    std::map<pw_buffer*, DmaBufMapping> mappings_;
    bool sharedMemoryOnly_ = false;
    int32_t width_ = 0, height_ = 0;
    bool streaming_ = false;
    uint64_t pictures_ = 0;
};

}  // namespace

Result<std::unique_ptr<PipeWireStream>> PipeWireStream::open(UniqueFd remote, uint32_t node,
                                                             int32_t width, int32_t height,
                                                             MediaTime interval,
                                                             std::shared_ptr<FrameBox> box) {
    return Stream::make(std::move(remote), node, width, height, interval, std::move(box));
}

}  // namespace sv
