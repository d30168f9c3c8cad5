// The in-process notification centre: named notifications posted by one
// part of the process and observed by others. Observers run synchronously on
// the thread that posts, in the order they were added; removing an observer
// guarantees that it is not called by posts that begin afterwards.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "platform/value.h"

namespace sv {

// Posted when the device's lock button is pressed (the shell channel posts it).
inline constexpr const char* kLockButtonPressedNotification = "org.sorvel.LockButtonPressed";

struct Notification {
    std::string name;
    Value userInfo = Value::object();
};

class NotificationCenter {
  public:
    using Observer = std::function<void(const Notification&)>;

    static NotificationCenter& defaultCenter();

    // Adds `observer` for `name` (empty: every name) on behalf of `owner`,
    // which only identifies the registration for removal.
    void addObserver(const void* owner, std::string name, Observer observer);
    // Removes every registration of `owner` (for `name`, when given).
    void removeObserver(const void* owner, const std::string& name = {});
    void post(const std::string& name, Value userInfo = Value::object());

  private:
    struct Entry {
        const void* owner;
        std::string name;
        std::shared_ptr<Observer> observer;
    };
    std::mutex mutex_;
    std::vector<Entry> entries_;
};

}  // namespace sv
