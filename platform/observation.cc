#include "platform/observation.h"

#include <algorithm>

namespace sv {

void Observable::addObserver(const std::shared_ptr<KeyValueObserver>& observer, std::string keyPath,
                             uint32_t options, void* context) {
    if (!observer) return;
    std::lock_guard lock(observersMutex_);
    observers_.push_back({observer, observer.get(), std::move(keyPath), options, context});
}

Result<void> Observable::removeObserver(const KeyValueObserver* observer,
                                        std::string_view keyPath) {
    std::lock_guard lock(observersMutex_);
    for (auto it = observers_.rbegin(); it != observers_.rend(); ++it) {
        if (it->identity == observer && it->keyPath == keyPath) {
            observers_.erase(std::next(it).base());
            return {};
        }
    }
    return Error::make(kObservationErrorDomain, kObservationErrorNotRegistered,
                       "Cannot remove an observer for the key path \"" + std::string(keyPath) +
                           "\" because it is not registered as an observer.");
}

size_t Observable::observationCount(std::string_view keyPath) const {
    std::lock_guard lock(observersMutex_);
    return size_t(std::count_if(observers_.begin(), observers_.end(),
                                [&](const Registration& r) { return r.keyPath == keyPath; }));
}

void Observable::didChangeValueForKey(std::string_view keyPath, const Value& oldValue,
                                      const Value& newValue) {
    struct Call {
        std::shared_ptr<KeyValueObserver> observer;
        uint32_t options;
        void* context;
    };
    std::vector<Call> calls;
    {
        std::lock_guard lock(observersMutex_);
        std::erase_if(observers_, [](const Registration& r) { return r.observer.expired(); });
        for (auto& r : observers_)
            if (r.keyPath == keyPath)
                if (auto o = r.observer.lock())
                    calls.push_back({std::move(o), r.options, r.context});
    }
    std::string path(keyPath);
    for (auto& c : calls) {
        KeyValueChange change;
        if (c.options & KeyValueObservingOptionOld) change.oldValue = oldValue;
        if (c.options & KeyValueObservingOptionNew) change.newValue = newValue;
        c.observer->observeValueForKeyPath(path, *this, change, c.context);
    }
}

}  // namespace sv
