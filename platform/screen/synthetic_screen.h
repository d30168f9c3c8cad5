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
//
// Thread-safety: every method of SyntheticDisplay may be called from any
// thread; controllers read the display's state once per frame.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "platform/screen/screen_backend.h"

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
    void setSize(int32_t width, int32_t height);
    // The orientation as transform flags (ScreenTransformFlags).
    uint32_t transformFlags() const;
    void setTransformFlags(uint32_t flags);

    // Adds or replaces the layer of layer.contextID (stacked on top).
    void addLayer(SyntheticLayer layer);
    // False when no layer has that identifier.
    bool removeLayer(uint32_t contextID);
    // Bottom to top.
    std::vector<SyntheticLayer> layers() const;
    // A context identifier not used by any layer yet (never 0).
    uint32_t makeContextID();

    // Called (on the thread that changed them) after the layers change.
    // Returns a token for removeLayersObserver.
    using LayersObserver = std::function<void()>;
    uint64_t addLayersObserver(LayersObserver observer);
    void removeLayersObserver(uint64_t token);

    // Every running controller of this display delivers the failure once, on
    // its delivery thread, and stops delivering frames until started again.
    // With `statusForFailed` for SyntheticScreenFailure::Failed.
    void injectFailure(SyntheticScreenFailure failure,
                       int32_t statusForFailed = kScreenCaptureGrabFailed);

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
    std::shared_ptr<DisplayMirroringService> mirroring_;
};

}  // namespace sv
