#include "platform/screen/display_mirroring.h"

namespace sv {

bool BasicDisplayMirroringService::setCloneMirroringMode(int32_t mode) {
    if (mode != kCloneMirroringModeMirror && mode != kCloneMirroringModeEnded &&
        mode != kCloneMirroringModeClone)
        return false;
    std::lock_guard lock(mutex_);
    if (state_.mode != mode) {
        state_.mode = mode;
        ++state_.version;
    }
    return true;
}

int32_t BasicDisplayMirroringService::cloneMirroringMode() const {
    std::lock_guard lock(mutex_);
    return state_.mode;
}

void BasicDisplayMirroringService::setLayerContextsToClone(std::set<uint32_t> contextIDs) {
    std::lock_guard lock(mutex_);
    if (state_.contextIDs != contextIDs) {
        state_.contextIDs = std::move(contextIDs);
        ++state_.version;
    }
}

std::set<uint32_t> BasicDisplayMirroringService::layerContextsToClone() const {
    std::lock_guard lock(mutex_);
    return state_.contextIDs;
}

uint64_t BasicDisplayMirroringService::version() const {
    std::lock_guard lock(mutex_);
    return state_.version;
}

BasicDisplayMirroringService::Snapshot BasicDisplayMirroringService::snapshot() const {
    std::lock_guard lock(mutex_);
    return state_;
}

}  // namespace sv
