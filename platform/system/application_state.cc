#include "platform/system/application_state.h"

#include "platform/log.h"

namespace sv {

Value ApplicationState::toInfo() const {
    Value info = Value::object();
    info[kApplicationInfoBundleIDKey] = bundleIdentifier;
    info[kApplicationInfoPIDKey] = pid;
    info[kApplicationInfoFrontmostKey] = isFrontmost();
    info[kApplicationInfoStateKey] = state;
    return info;
}

ApplicationStateMonitor::ApplicationStateMonitor()
    : queue_(DispatchQueue::serial("org.sorvel.application-state")) {}

ApplicationStateMonitor::~ApplicationStateMonitor() = default;

uint32_t ApplicationStateMonitor::applicationStateForApplication(
    const std::string& bundleID) const {
    if (!isValid() || bundleID.empty()) return kApplicationStateNotRunning;
    return stateOfApplication(bundleID).state;
}

void ApplicationStateMonitor::applicationInfoForApplication(const std::string& bundleID,
                                                            InfoHandler handler) {
    if (!handler) return;
    // Holds the monitor strongly: a request is answered even when the caller
    // lets go of the monitor meanwhile.
    auto self = shared_from_this();
    queue_->async([self, bundleID, handler = std::move(handler)] {
        ApplicationState state;
        if (self->isValid() && !bundleID.empty()) state = self->stateOfApplication(bundleID);
        state.bundleIdentifier = bundleID;
        handler(state.toInfo());
    });
}

void ApplicationStateMonitor::setChangeHandler(ChangeHandler handler) {
    std::lock_guard lock(mutex_);
    handler_ = handler ? std::make_shared<const ChangeHandler>(std::move(handler)) : nullptr;
}

bool ApplicationStateMonitor::hasChangeHandler() const {
    std::lock_guard lock(mutex_);
    return handler_ != nullptr;
}

void ApplicationStateMonitor::invalidate() {
    {
        std::lock_guard lock(mutex_);
        if (!valid_) return;
        valid_ = false;
        handler_.reset();
    }
    didInvalidate();
}

bool ApplicationStateMonitor::isValid() const {
    std::lock_guard lock(mutex_);
    return valid_;
}

void ApplicationStateMonitor::applicationStateDidChange(const ApplicationState& state) {
    {
        std::lock_guard lock(mutex_);
        if (!valid_) return;
    }
    log::debug("ApplicationStateMonitor: %@ pid %i state %u", state.bundleIdentifier, state.pid,
               state.state);
    std::weak_ptr<ApplicationStateMonitor> weak = weak_from_this();
    queue_->async([weak, info = state.toInfo()] {
        auto self = weak.lock();
        if (!self) return;
        // The handler installed when the delivery begins, so that one removed
        // or replaced meanwhile is not called.
        std::shared_ptr<const ChangeHandler> handler;
        {
            std::lock_guard lock(self->mutex_);
            handler = self->handler_;
        }
        if (handler) (*handler)(info);
    });
}

}  // namespace sv
