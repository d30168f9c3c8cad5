#include "platform/screen/synthetic_screen.h"

#include <algorithm>
#include <map>

#include "platform/log.h"
#include "platform/screen/paced_capture.h"

namespace sv {

namespace {

constexpr int32_t kMaxDisplaySide = 16384;

// Fills [x0, x1) x [y0, y1) of a BGRA surface, already clipped.
void fillRect(SharedSurface& surface, int32_t x0, int32_t y0, int32_t x1, int32_t y1,
              uint32_t color) {
    if (x0 >= x1 || y0 >= y1) return;
    for (int32_t y = y0; y < y1; ++y) {
        auto* row = reinterpret_cast<uint32_t*>(surface.mutableRow(y));
        std::fill(row + x0, row + x1, color);
    }
}

// Display coordinate `v` on an axis of `displayLength` pixels scaled to one
// of `surfaceLength` pixels and clipped to it.
int32_t scaleCoordinate(int64_t v, int32_t displayLength, int32_t surfaceLength) {
    if (v <= 0) return 0;
    if (v >= displayLength) return surfaceLength;
    return int32_t(v * surfaceLength / displayLength);
}

}  // namespace

uint32_t syntheticLayerColor(uint32_t contextID) {
    // A 32-bit mix so that neighbouring identifiers look unrelated.
    uint32_t h = contextID * 0x9E3779B1u;
    h ^= h >> 15;
    h *= 0x85EBCA77u;
    h ^= h >> 13;
    auto channel = [&](int shift) { return 48u + ((h >> shift) & 0xFFu) * 160u / 256u; };
    return 0xFF000000u | channel(0) << 16 | channel(8) << 8 | channel(16);
}

bool drawSyntheticFrame(SharedSurface& surface, const SyntheticScene& scene,
                        const FrameStamp& stamp) {
    if (surface.isReadOnly() || surface.pixelFormat() != PixelFormat::BGRA) return false;
    const int32_t sw = surface.width(), sh = surface.height();
    fillRect(surface, 0, 0, sw, sh,
             scene.showsBackground ? kSyntheticBackgroundColor : kSyntheticCloneBackgroundColor);
    if (scene.displayWidth > 0 && scene.displayHeight > 0) {
        for (const SyntheticLayer& layer : scene.layers) {
            const int32_t x0 = scaleCoordinate(layer.x, scene.displayWidth, sw);
            const int32_t x1 =
                scaleCoordinate(int64_t(layer.x) + layer.width, scene.displayWidth, sw);
            const int32_t y0 = scaleCoordinate(layer.y, scene.displayHeight, sh);
            const int32_t y1 =
                scaleCoordinate(int64_t(layer.y) + layer.height, scene.displayHeight, sh);
            if (x0 >= x1 || y0 >= y1) continue;
            fillRect(surface, x0, y0, x1, y1, syntheticLayerColor(layer.contextID));
            // The marker: a square in the upper quarter of the visible part,
            // stepping right with every frame, so consecutive frames differ
            // inside every layer.
            const int32_t w = x1 - x0, h = y1 - y0;
            const int32_t side = std::max(1, std::min(w, h) / 6);
            const int32_t travel = std::max(1, w - side);
            const int32_t step = std::max(1, w / 120);
            const auto offset = int32_t((stamp.frameIndex * uint64_t(step)) % uint64_t(travel));
            const int32_t my = y0 + std::min(h - side, h / 12);
            fillRect(surface, x0 + offset, my, std::min(x1, x0 + offset + side),
                     std::min(y1, my + side), kSyntheticMarkerColor);
        }
    }
    if (sw >= kFrameStampMinWidth && sh >= kFrameStampMinHeight) drawFrameStamp(surface, stamp);
    return true;
}

struct SyntheticDisplay::State {
    mutable std::mutex mutex;
    int32_t width = 0;
    int32_t height = 0;
    uint32_t transformFlags = 0;
    std::vector<SyntheticLayer> layers;  // bottom to top
    uint32_t nextContextID = 1;
    uint64_t version = 0;
    uint64_t nextObserverToken = 1;
    std::map<uint64_t, std::shared_ptr<LayersObserver>> observers;
    std::vector<std::weak_ptr<PacedCaptureController>> controllers;
    // Held while observers run: removal waits for a call on another thread.
    std::recursive_mutex notifyMutex;

    void notifyLayersChanged() {
        std::lock_guard notifying(notifyMutex);
        std::vector<std::pair<uint64_t, std::shared_ptr<LayersObserver>>> list;
        {
            std::lock_guard lock(mutex);
            list.assign(observers.begin(), observers.end());
        }
        for (auto& [token, observer] : list) {
            {
                // Removed by an earlier observer of this round.
                std::lock_guard lock(mutex);
                if (!observers.contains(token)) continue;
            }
            (*observer)();
        }
    }
};

SyntheticDisplay::SyntheticDisplay(Options options) : state_(std::make_shared<State>()) {
    state_->width = std::clamp(options.width, 1, kMaxDisplaySide);
    state_->height = std::clamp(options.height, 1, kMaxDisplaySide);
    state_->transformFlags = options.transformFlags & 7u;
}

int32_t SyntheticDisplay::width() const {
    std::lock_guard lock(state_->mutex);
    return state_->width;
}

int32_t SyntheticDisplay::height() const {
    std::lock_guard lock(state_->mutex);
    return state_->height;
}

bool SyntheticDisplay::setSize(int32_t width, int32_t height) {
    if (width < 1 || height < 1 || width > kMaxDisplaySide || height > kMaxDisplaySide) {
        log::error("Synthetic display: refusing size %ix%i", width, height);
        return false;
    }
    std::lock_guard lock(state_->mutex);
    state_->width = width;
    state_->height = height;
    ++state_->version;
    return true;
}

uint32_t SyntheticDisplay::transformFlags() const {
    std::lock_guard lock(state_->mutex);
    return state_->transformFlags;
}

void SyntheticDisplay::setTransformFlags(uint32_t flags) {
    std::lock_guard lock(state_->mutex);
    state_->transformFlags = flags & 7u;
    ++state_->version;
}

bool SyntheticDisplay::addLayer(SyntheticLayer layer) {
    if (layer.contextID == 0 || layer.width < 0 || layer.height < 0) {
        log::error("Synthetic display: refusing layer %u of %ix%i", layer.contextID, layer.width,
                   layer.height);
        return false;
    }
    {
        std::lock_guard lock(state_->mutex);
        auto& layers = state_->layers;
        std::erase_if(layers,
                      [&](const SyntheticLayer& l) { return l.contextID == layer.contextID; });
        layers.push_back(std::move(layer));
        ++state_->version;
    }
    state_->notifyLayersChanged();
    return true;
}

bool SyntheticDisplay::removeLayer(uint32_t contextID) {
    {
        std::lock_guard lock(state_->mutex);
        if (std::erase_if(state_->layers,
                          [&](const SyntheticLayer& l) { return l.contextID == contextID; }) == 0)
            return false;
        ++state_->version;
    }
    state_->notifyLayersChanged();
    return true;
}

std::vector<SyntheticLayer> SyntheticDisplay::layers() const {
    std::lock_guard lock(state_->mutex);
    return state_->layers;
}

uint32_t SyntheticDisplay::makeContextID() {
    std::lock_guard lock(state_->mutex);
    for (;;) {
        uint32_t id = state_->nextContextID++;
        if (id == 0) continue;
        bool used = std::any_of(state_->layers.begin(), state_->layers.end(),
                                [&](const SyntheticLayer& l) { return l.contextID == id; });
        if (!used) return id;
    }
}

uint64_t SyntheticDisplay::addLayersObserver(LayersObserver observer) {
    std::lock_guard lock(state_->mutex);
    uint64_t token = state_->nextObserverToken++;
    state_->observers.emplace(token, std::make_shared<LayersObserver>(std::move(observer)));
    return token;
}

void SyntheticDisplay::removeLayersObserver(uint64_t token) {
    {
        std::lock_guard lock(state_->mutex);
        state_->observers.erase(token);
    }
    // Waits for a round of calls running on another thread; from inside an
    // observer the recursive lock is already ours.
    std::lock_guard wait(state_->notifyMutex);
}

void SyntheticDisplay::injectFailure(SyntheticScreenFailure failure, int32_t statusForFailed) {
    std::vector<std::shared_ptr<PacedCaptureController>> running;
    {
        std::lock_guard lock(state_->mutex);
        std::erase_if(state_->controllers, [](const auto& weak) { return weak.expired(); });
        for (const auto& weak : state_->controllers)
            if (auto c = weak.lock()) running.push_back(std::move(c));
    }
    CaptureFailure f;
    switch (failure) {
        case SyntheticScreenFailure::Failed:
            f = {CaptureFailure::Kind::Failed, statusForFailed};
            break;
        case SyntheticScreenFailure::Preempted:
            f = {CaptureFailure::Kind::Preempted, kScreenCaptureNoError};
            break;
        case SyntheticScreenFailure::MediaServicesReset:
            f = {CaptureFailure::Kind::MediaServicesReset, kScreenCaptureNoError};
            break;
    }
    for (auto& c : running) c->injectFailure(f);
}

SyntheticScene SyntheticDisplay::scene(int32_t cloneMirroringMode,
                                       const std::set<uint32_t>& cloned) const {
    std::lock_guard lock(state_->mutex);
    SyntheticScene scene;
    scene.displayWidth = state_->width;
    scene.displayHeight = state_->height;
    scene.transformFlags = state_->transformFlags;
    if (cloneMirroringMode == kCloneMirroringModeMirror) {
        scene.layers = state_->layers;
    } else if (cloneMirroringMode == kCloneMirroringModeClone) {
        scene.showsBackground = false;
        for (const auto& layer : state_->layers)
            if (cloned.contains(layer.contextID)) scene.layers.push_back(layer);
    } else {
        scene.showsBackground = false;
    }
    return scene;
}

uint64_t SyntheticDisplay::version() const {
    std::lock_guard lock(state_->mutex);
    return state_->version;
}

namespace {

// Draws the display for one controller. The scene is rebuilt only when the
// display or the mirroring service changed since the last frame.
class SyntheticFrameSource final : public FrameSource {
  public:
    SyntheticFrameSource(std::shared_ptr<SyntheticDisplay> display,
                         std::shared_ptr<BasicDisplayMirroringService> mirroring)
        : display_(std::move(display)), mirroring_(std::move(mirroring)) {}

    GrabResult grab(const GrabRequest& request, SurfacePool& pool) override {
        const uint64_t displayVersion = display_->version();
        const uint64_t mirroringVersion = mirroring_->version();
        if (!haveScene_ || displayVersion != displayVersion_ ||
            mirroringVersion != mirroringVersion_) {
            auto mirroring = mirroring_->snapshot();
            mode_ = mirroring.mode;
            scene_ = display_->scene(mode_, mirroring.contextIDs);
            displayVersion_ = displayVersion;
            mirroringVersion_ = mirroring.version;
            haveScene_ = true;
        }
        GrabResult result;
        if (mode_ != kCloneMirroringModeMirror && mode_ != kCloneMirroringModeClone) return result;
        auto surface = pool.acquire();
        if (!surface) {
            log::error("Synthetic screen: no surface for a frame: %@", surface.error().message());
            result.failure =
                CaptureFailure{CaptureFailure::Kind::Failed, kScreenCaptureSurfaceUnavailable};
            return result;
        }
        drawSyntheticFrame(**surface, scene_, FrameStamp{request.frameIndex, request.deadline});
        result.surface = std::move(*surface);
        result.presentationTime = request.deadline;
        result.transformFlags = scene_.transformFlags;
        return result;
    }

  private:
    std::shared_ptr<SyntheticDisplay> display_;
    std::shared_ptr<BasicDisplayMirroringService> mirroring_;
    bool haveScene_ = false;
    uint64_t displayVersion_ = 0;
    uint64_t mirroringVersion_ = 0;
    int32_t mode_ = kCloneMirroringModeEnded;
    SyntheticScene scene_;
};

}  // namespace

SyntheticScreenBackend::SyntheticScreenBackend(std::shared_ptr<SyntheticDisplay> display)
    : display_(display ? std::move(display) : std::make_shared<SyntheticDisplay>()),
      mirroring_(std::make_shared<BasicDisplayMirroringService>()) {}

std::shared_ptr<ScreenCaptureController> SyntheticScreenBackend::makeCaptureController(
    WindowSize frameSize, MediaTime minimumFrameInterval) {
    auto controller = std::make_shared<PacedCaptureController>(
        frameSize, minimumFrameInterval,
        std::make_shared<SyntheticFrameSource>(display_, mirroring_));
    std::lock_guard lock(display_->state()->mutex);
    auto& controllers = display_->state()->controllers;
    std::erase_if(controllers, [](const auto& weak) { return weak.expired(); });
    controllers.push_back(controller);
    return controller;
}

std::shared_ptr<DisplayMirroringService> SyntheticScreenBackend::mirroringService() {
    return mirroring_;
}

WindowSize SyntheticScreenBackend::displaySize() const {
    return {float(display_->width()), float(display_->height())};
}

}  // namespace sv
