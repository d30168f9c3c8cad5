// Stand-in for the screen service's process backend while no backend
// library is built: the process backend is the one set, or none.
#include <mutex>

#include "platform/screen/screen_backend.h"

namespace sv {

namespace {
std::mutex gBackendMutex;
std::shared_ptr<ScreenBackend> gBackend;
}  // namespace

std::shared_ptr<ScreenBackend> processScreenBackend() {
    std::lock_guard lock(gBackendMutex);
    return gBackend;
}

void setProcessScreenBackend(std::shared_ptr<ScreenBackend> backend) {
    std::lock_guard lock(gBackendMutex);
    gBackend = std::move(backend);
}

int32_t ScreenCaptureController::evenPixelLength(float length) {
    int32_t n = (length > 2.0f && length < 1e6f) ? int32_t(length) : 2;
    return (n + 1) / 2 * 2;
}

}  // namespace sv
