#include "platform/system/display_layout.h"

#include <algorithm>

#include "platform/log.h"

namespace sv {

std::string DisplayLayoutElement::description() const {
    std::string s = "<element level " + std::to_string(level);
    if (identifier) s += " id " + std::to_string(identifier);
    if (pid > 0) s += " pid " + std::to_string(pid);
    if (!bundleIdentifier.empty()) s += " " + bundleIdentifier;
    return s + ">";
}

size_t DisplayLayout::countBelowSharedLevel() const {
    return size_t(std::count_if(elements.begin(), elements.end(),
                                [](const auto& e) { return e.level < kDisplayLayoutSharedLevel; }));
}

std::string DisplayLayout::description() const {
    std::string s = "<layout " + std::to_string(elements.size()) + " elements";
    for (const auto& e : elements) s += " " + e.description();
    return s + ">";
}

DisplayLayoutMonitor::DisplayLayoutMonitor(DisplayLayout initial)
    : queue_(DispatchQueue::serial("org.sorvel.display-layout")), current_(std::move(initial)) {}

DisplayLayoutMonitor::~DisplayLayoutMonitor() = default;

DisplayLayout DisplayLayoutMonitor::currentLayout() const {
    std::lock_guard lock(mutex_);
    return valid_ ? current_ : DisplayLayout{};
}

void DisplayLayoutMonitor::addObserver(const std::shared_ptr<DisplayLayoutObserver>& observer) {
    if (!observer) return;
    std::lock_guard lock(mutex_);
    std::erase_if(observers_, [](const ObserverEntry& e) { return e.observer.expired(); });
    for (const auto& e : observers_)
        if (e.key == observer.get()) return;
    observers_.push_back({observer.get(), observer});
}

void DisplayLayoutMonitor::removeObserver(const DisplayLayoutObserver* observer) {
    std::lock_guard lock(mutex_);
    std::erase_if(observers_, [&](const ObserverEntry& e) {
        return e.key == observer || e.observer.expired();
    });
}

size_t DisplayLayoutMonitor::observerCount() const {
    std::lock_guard lock(mutex_);
    return size_t(std::count_if(observers_.begin(), observers_.end(),
                                [](const ObserverEntry& e) { return !e.observer.expired(); }));
}

void DisplayLayoutMonitor::invalidate() {
    {
        std::lock_guard lock(mutex_);
        if (!valid_) return;
        valid_ = false;
        observers_.clear();
    }
    didInvalidate();
}

bool DisplayLayoutMonitor::isValid() const {
    std::lock_guard lock(mutex_);
    return valid_;
}

void DisplayLayoutMonitor::updateLayout(DisplayLayout layout) {
    uint64_t generation;
    {
        std::lock_guard lock(mutex_);
        if (!valid_ || layout == current_) return;
        current_ = layout;
        generation = ++generation_;
    }
    log::debug("DisplayLayoutMonitor: %@", layout.description());
    // The task holds the monitor weakly: a monitor released by its owner
    // stops delivering, even with updates still queued.
    std::weak_ptr<DisplayLayoutMonitor> weak = weak_from_this();
    queue_->async([weak, layout = std::move(layout), generation] {
        if (auto self = weak.lock()) self->deliver(layout, generation);
    });
}

void DisplayLayoutMonitor::deliver(const DisplayLayout& layout, uint64_t generation) {
    DisplayLayoutTransitionContext context{generation};
    std::vector<ObserverEntry> targets;
    {
        std::lock_guard lock(mutex_);
        if (!valid_) return;
        targets = observers_;
    }
    for (const auto& target : targets) {
        // Checked again before each call, so that an observer removed by an
        // earlier observer's call (or from another thread) is not called.
        std::shared_ptr<DisplayLayoutObserver> observer;
        {
            std::lock_guard lock(mutex_);
            if (!valid_) return;
            bool registered =
                std::any_of(observers_.begin(), observers_.end(),
                            [&](const ObserverEntry& e) { return e.key == target.key; });
            if (registered) observer = target.observer.lock();
        }
        if (observer) observer->layoutMonitorDidUpdateDisplayLayout(*this, layout, context);
    }
}

}  // namespace sv
