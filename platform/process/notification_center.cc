#include "platform/process/notification_center.h"

#include <algorithm>

namespace sv {

NotificationCenter& NotificationCenter::defaultCenter() {
    static NotificationCenter* c = new NotificationCenter;
    return *c;
}

void NotificationCenter::addObserver(const void* owner, std::string name, Observer observer) {
    std::lock_guard lock(mutex_);
    entries_.push_back({owner, std::move(name), std::make_shared<Observer>(std::move(observer))});
}

void NotificationCenter::removeObserver(const void* owner, const std::string& name) {
    std::lock_guard lock(mutex_);
    std::erase_if(entries_, [&](const Entry& e) {
        return e.owner == owner && (name.empty() || e.name == name);
    });
}

void NotificationCenter::post(const std::string& name, Value userInfo) {
    std::vector<std::shared_ptr<Observer>> targets;
    {
        std::lock_guard lock(mutex_);
        for (const auto& e : entries_)
            if (e.name.empty() || e.name == name) targets.push_back(e.observer);
    }
    Notification n{name, std::move(userInfo)};
    for (const auto& t : targets) (*t)(n);
}

}  // namespace sv
