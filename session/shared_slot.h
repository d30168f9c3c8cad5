// SharedSlot<T>: a shared pointer that several threads load, store and
// exchange, the session's atomic shared pointer. libstdc++ 12's
// std::atomic<std::shared_ptr> is lock-based as well, but its internal lock
// is invisible to ThreadSanitizer; this one takes a private mutex for the
// pointer copy only and never calls out while holding it, so it can be used
// from any thread, including inside other locks.
#pragma once

#include <memory>
#include <mutex>
#include <utility>

namespace sv {

template <typename T>
class SharedSlot {
  public:
    SharedSlot() = default;
    SharedSlot(const SharedSlot&) = delete;
    SharedSlot& operator=(const SharedSlot&) = delete;

    std::shared_ptr<T> load() const {
        std::lock_guard lock(mutex_);
        return value_;
    }
    void store(std::shared_ptr<T> value) { exchange(std::move(value)); }
    // The previous value is released by the caller, outside the lock.
    std::shared_ptr<T> exchange(std::shared_ptr<T> value) {
        std::lock_guard lock(mutex_);
        std::swap(value, value_);
        return value;
    }
    // Empties the slot when it still holds `expected`; true when it did.
    bool clearIf(const std::shared_ptr<T>& expected) {
        std::shared_ptr<T> released;  // dies outside the lock
        std::lock_guard lock(mutex_);
        if (value_ != expected) return false;
        released.swap(value_);
        return true;
    }
    explicit operator bool() const { return load() != nullptr; }

  private:
    mutable std::mutex mutex_;
    std::shared_ptr<T> value_;
};

}  // namespace sv
