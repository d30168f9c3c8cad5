// Display mirroring service: what screen capture controllers of the same
// backend capture. Mirror mode (0) shows the whole display; clone mode (3)
// composes only the layers of the contexts being cloned, in stacking order,
// so no other application's layer ever reaches a frame, even one lying on
// top; mode 2 ends mirroring, and running controllers deliver no frames
// until a mode of 0 or 3 is set again. Any other value is refused (false).
//
// One service per backend, shared by every controller the backend makes.
// Thread-safe: the setters may be called from any thread and take effect from
// the next frame on.
#pragma once

#include <cstdint>
#include <mutex>
#include <set>

namespace sv {

enum CloneMirroringMode : int32_t {
    kCloneMirroringModeMirror = 0,
    kCloneMirroringModeEnded = 2,
    kCloneMirroringModeClone = 3,
};

class DisplayMirroringService {
  public:
    virtual ~DisplayMirroringService() = default;

    // Initially kCloneMirroringModeEnded. False (and no change) for a value
    // other than 0, 2 or 3.
    virtual bool setCloneMirroringMode(int32_t mode) = 0;
    virtual int32_t cloneMirroringMode() const = 0;
    // The layer contexts that clone mode shows; initially empty.
    virtual void setLayerContextsToClone(std::set<uint32_t> contextIDs) = 0;
    virtual std::set<uint32_t> layerContextsToClone() const = 0;
};

// The service as both backends keep it: the mode and the clone set, read by
// capture threads once per frame. `version` grows with every change that
// alters what is captured, so a reader can keep work derived from a
// snapshot (resolved windows, a filtered layer list) until it moves.
class BasicDisplayMirroringService final : public DisplayMirroringService {
  public:
    struct Snapshot {
        int32_t mode = kCloneMirroringModeEnded;
        std::set<uint32_t> contextIDs;
        uint64_t version = 0;
    };

    bool setCloneMirroringMode(int32_t mode) override;
    int32_t cloneMirroringMode() const override;
    void setLayerContextsToClone(std::set<uint32_t> contextIDs) override;
    std::set<uint32_t> layerContextsToClone() const override;

    uint64_t version() const;
    // The whole state at one instant.
    Snapshot snapshot() const;

  private:
    mutable std::mutex mutex_;
    Snapshot state_;
};

}  // namespace sv
