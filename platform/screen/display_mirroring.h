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

}  // namespace sv
