// The synthetic screen: a display of configurable size and orientation that
// holds layers, each with a layer context identifier and an owner, and a
// backend whose controllers draw it deterministically. The default in tests,
// demos and benchmarks; needs no display server.
//
// Every frame is a pure function of (display state, frame index, capture
// time): a background, each shown layer as a filled rectangle with a pattern
// derived from its context identifier, and a frame stamp
// (platform/screen/frame_stamp.h) carrying the frame index and its capture
// time on the host clock, so a finished movie can be checked frame by frame.
// Mirror mode shows the display's background and every layer; clone mode
// shows only the cloned layers, on black; while mirroring is ended no frame
// is drawn. Frames are drawn straight at the controller's pixel size: layer
// geometry is scaled (each axis on its own), pixels never are.
//
// The display's width and height are the pixel size of what it shows; its
// transform flags do not turn the pixels, they only travel with every frame
// to say how a viewer should turn them.
//
// Thread-safety: every method of SyntheticDisplay may be called from any
// thread; controllers read the display's state once per frame.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "platform/screen/frame_stamp.h"
#include "platform/screen/screen_backend.h"
#include "platform/shared_surface.h"

namespace sv {

struct SyntheticLayer {
    uint32_t contextID = 0;  // layer context identifier (unique on the display)
    int32_t ownerPID = 0;    // process that owns the layer
    std::string ownerBundleID;
    int32_t level = 0;  // window level; see the layout monitor for the scale
    // Position and size in display pixels (natural orientation).
    int32_t x = 0, y = 0, width = 0, height = 0;
};

// Failures a test or the shell channel can inject into running controllers.
enum class SyntheticScreenFailure { Failed, Preempted, MediaServicesReset };

// Pixel values as a little-endian 32-bit word of a BGRA surface (0xAARRGGBB).
inline constexpr uint32_t kSyntheticBackgroundColor = 0xFF203040;  // mirror mode, under the layers
inline constexpr uint32_t kSyntheticCloneBackgroundColor = 0xFF000000;  // clone mode
inline constexpr uint32_t kSyntheticMarkerColor = 0xFFFFFFFF;  // the moving block of each layer
// The fill of a layer: opaque, each channel in [48, 207], so it differs from
// both backgrounds and from the marker; distinct for neighbouring identifiers.
uint32_t syntheticLayerColor(uint32_t contextID);

// What one synthetic frame shows.
struct SyntheticScene {
    int32_t displayWidth = 0;
    int32_t displayHeight = 0;
    bool showsBackground = true;         // mirror mode; clone mode draws on black
    std::vector<SyntheticLayer> layers;  // the layers shown, bottom to top
    uint32_t transformFlags = 0;
};

// Draws `scene` scaled to `surface` (a writable BGRA surface): the
// background, each layer's fill with a marker block in the upper quarter of
// the layer whose position moves with the frame index, and the stamp in the
// top rows (when the surface is large enough for one). Deterministic: the
// same scene and stamp give the same pixels. False for a read-only surface.
bool drawSyntheticFrame(SharedSurface& surface, const SyntheticScene& scene,
                        const FrameStamp& stamp);

class SyntheticDisplay {
  public:
    struct Options {
        int32_t width = 1600;
        int32_t height = 900;
        uint32_t transformFlags = 0;  // ScreenTransformFlags of every frame
    };
    SyntheticDisplay() : SyntheticDisplay(Options{}) {}
    explicit SyntheticDisplay(Options options);

    int32_t width() const;
    int32_t height() const;
    // False (and no change) unless each side is in [1, 16384].
    bool setSize(int32_t width, int32_t height);
    // The orientation as transform flags (ScreenTransformFlags); bits other
    // than the three defined ones are dropped.
    uint32_t transformFlags() const;
    void setTransformFlags(uint32_t flags);

    // Adds or replaces the layer of layer.contextID (stacked on top). False
    // (and no change) for context 0 or a negative width or height. Layers may
    // reach beyond the display; what lies outside is not drawn.
    bool addLayer(SyntheticLayer layer);
    // False when no layer has that identifier.
    bool removeLayer(uint32_t contextID);
    // Bottom to top.
    std::vector<SyntheticLayer> layers() const;
    // A context identifier not used by any layer yet (never 0).
    uint32_t makeContextID();

    // Called (on the thread that changed them, without any lock of the
    // display held, so it may read the display) after the layers change.
    // Returns a token for removeLayersObserver. Once removeLayersObserver
    // returns, the observer is not running on another thread and is not
    // called again; it may remove itself from inside its call.
    using LayersObserver = std::function<void()>;
    uint64_t addLayersObserver(LayersObserver observer);
    void removeLayersObserver(uint64_t token);

    // Every running controller of this display delivers the failure once, on
    // its delivery thread, and stops delivering frames until started again.
    // With `statusForFailed` for SyntheticScreenFailure::Failed.
    void injectFailure(SyntheticScreenFailure failure,
                       int32_t statusForFailed = kScreenCaptureGrabFailed);

    // What a frame shows in a mirroring mode with a clone set (mode 2 gives
    // an empty scene).
    SyntheticScene scene(int32_t cloneMirroringMode, const std::set<uint32_t>& cloned) const;
    // Grows with every change of size, orientation or layers.
    uint64_t version() const;

    struct State;
    const std::shared_ptr<State>& state() const { return state_; }

  private:
    std::shared_ptr<State> state_;
};

class SyntheticScreenBackend : public ScreenBackend {
  public:
    explicit SyntheticScreenBackend(
        std::shared_ptr<SyntheticDisplay> display = std::make_shared<SyntheticDisplay>());

    std::string name() const override { return "synthetic"; }
    std::shared_ptr<ScreenCaptureController> makeCaptureController(
        WindowSize frameSize, MediaTime minimumFrameInterval) override;
    std::shared_ptr<DisplayMirroringService> mirroringService() override;
    WindowSize displaySize() const override;

    const std::shared_ptr<SyntheticDisplay>& display() const { return display_; }

  private:
    std::shared_ptr<SyntheticDisplay> display_;
    std::shared_ptr<BasicDisplayMirroringService> mirroring_;
};

}  // namespace sv
