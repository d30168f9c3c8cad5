#include "platform/ui/synthetic_window_system.h"

#include <algorithm>

#include "platform/log.h"
#include "platform/screen/synthetic_screen.h"

namespace sv {

// ---- monitors

class SyntheticWindowSystem::StateMonitor : public ApplicationStateMonitor {
  public:
    explicit StateMonitor(std::shared_ptr<SyntheticWindowSystem> system)
        : system_(std::move(system)) {}
    void report(const ApplicationState& state) { applicationStateDidChange(state); }

  protected:
    ApplicationState stateOfApplication(const std::string& bundleID) const override {
        std::lock_guard lock(system_->mutex_);
        return system_->stateLocked(bundleID);
    }

  private:
    // Kept for the monitor's lifetime: queries after invalidate() still need
    // it (they answer "unknown" through the base class without asking it).
    std::shared_ptr<SyntheticWindowSystem> system_;
};

class SyntheticWindowSystem::LayoutMonitor : public DisplayLayoutMonitor {
  public:
    LayoutMonitor(std::shared_ptr<SyntheticWindowSystem> system, DisplayLayout initial)
        : DisplayLayoutMonitor(std::move(initial)), system_(std::move(system)) {}
    void publish(DisplayLayout layout) { updateLayout(std::move(layout)); }
    DisplayLayout currentLayout() const override {
        return isValid() ? system_->computeLayout() : DisplayLayout{};
    }

  private:
    std::shared_ptr<SyntheticWindowSystem> system_;
};

// ---- the window system

std::shared_ptr<SyntheticWindowSystem> SyntheticWindowSystem::create(
    std::shared_ptr<SyntheticDisplay> display) {
    if (!display) display = std::make_shared<SyntheticDisplay>();
    auto system = std::shared_ptr<SyntheticWindowSystem>(new SyntheticWindowSystem(display));
    std::weak_ptr<SyntheticWindowSystem> weak = system;
    system->layersObserverToken_ = display->addLayersObserver([weak] {
        if (auto s = weak.lock()) s->scheduleLayoutUpdate();
    });
    return system;
}

SyntheticWindowSystem::SyntheticWindowSystem(std::shared_ptr<SyntheticDisplay> display)
    : display_(std::move(display)),
      layoutQueue_(DispatchQueue::serial("org.sorvel.synthetic-window-system")) {}

SyntheticWindowSystem::~SyntheticWindowSystem() {
    display_->removeLayersObserver(layersObserverToken_);
    // The layers of the applications leave the display with the window system.
    for (const auto& [bundleID, app] : apps_) hideLayersLocked(app);
}

namespace {
bool validBundleID(const std::string& bundleID) {
    return !bundleID.empty() && bundleID.size() <= kSyntheticMaxBundleIDBytes;
}
}  // namespace

const std::string* SyntheticWindowSystem::frontmostLocked() const {
    // The foreground application activated last.
    const std::string* frontmost = nullptr;
    uint64_t latest = 0;
    for (const auto& [bundleID, app] : apps_) {
        if (app.foreground && (!frontmost || app.activation > latest)) {
            frontmost = &bundleID;
            latest = app.activation;
        }
    }
    return frontmost;
}

ApplicationState SyntheticWindowSystem::stateOf(const std::string& bundleID, const App& app,
                                                const std::string* frontmost) const {
    ApplicationState s;
    s.bundleIdentifier = bundleID;
    s.pid = app.pid;
    s.state = kApplicationStateRunning;
    if (app.foreground) s.state |= kApplicationStateForeground;
    if (frontmost && *frontmost == bundleID) s.state |= kApplicationStateFrontmost;
    return s;
}

ApplicationState SyntheticWindowSystem::stateLocked(const std::string& bundleID) const {
    auto it = apps_.find(bundleID);
    if (it == apps_.end()) {
        ApplicationState s;
        s.bundleIdentifier = bundleID;
        return s;
    }
    return stateOf(bundleID, it->second, frontmostLocked());
}

std::map<std::string, ApplicationState> SyntheticWindowSystem::affectedLocked(
    const std::string& bundleID) const {
    // A change of one application can alter only its own state and that of
    // the frontmost application, so only those are compared: the cost of a
    // change does not grow with the number of applications.
    std::map<std::string, ApplicationState> states;
    const std::string* frontmost = frontmostLocked();
    if (auto it = apps_.find(bundleID); it != apps_.end())
        states.emplace(bundleID, stateOf(bundleID, it->second, frontmost));
    if (frontmost) states.emplace(*frontmost, stateOf(*frontmost, apps_.at(*frontmost), frontmost));
    return states;
}

void SyntheticWindowSystem::reportChangesLocked(
    const std::string& bundleID, const std::map<std::string, ApplicationState>& before) {
    auto after = affectedLocked(bundleID);
    const std::string* frontmost = frontmostLocked();
    for (const auto& [id, old] : before)
        if (auto it = apps_.find(id); it != apps_.end() && !after.count(id))
            after.emplace(id, stateOf(id, it->second, frontmost));
    std::vector<ApplicationState> losers, others;
    auto rank = [](const ApplicationState& s) {
        return (s.isFrontmost() ? 2 : 0) + (s.isForeground() ? 1 : 0);
    };
    for (const auto& [id, old] : before) {
        auto it = after.find(id);
        if (it == after.end()) {
            // Gone: its last process, no longer running.
            ApplicationState gone = old;
            gone.state = kApplicationStateNotRunning;
            losers.push_back(gone);
        } else if (!(it->second == old)) {
            (rank(it->second) < rank(old) ? losers : others).push_back(it->second);
        }
    }
    for (const auto& [id, now] : after)
        if (!before.count(id)) others.push_back(now);
    if (losers.empty() && others.empty()) return;

    std::erase_if(stateMonitors_, [](const auto& w) { return w.expired(); });
    for (const auto& weak : stateMonitors_) {
        auto monitor = weak.lock();
        if (!monitor) continue;
        for (const auto& s : losers) monitor->report(s);
        for (const auto& s : others) monitor->report(s);
    }
}

void SyntheticWindowSystem::showLayersLocked(App& app, const std::string& bundleID) {
    if (app.layers.empty()) return;
    // Layers that are on the display already are moved to the top too.
    for (uint32_t id : app.layers) {
        SyntheticLayer layer;
        layer.contextID = id;
        layer.ownerPID = app.pid;
        layer.ownerBundleID = bundleID;
        layer.level = kDisplayLayoutLevelNormal;
        layer.width = display_->width();
        layer.height = display_->height();
        display_->addLayer(layer);
    }
}

void SyntheticWindowSystem::hideLayersLocked(const App& app) {
    for (uint32_t id : app.layers) display_->removeLayer(id);
}

std::vector<uint32_t> SyntheticWindowSystem::launchApplication(const std::string& bundleID,
                                                               int32_t pid) {
    if (!validBundleID(bundleID) || pid <= 0) return {};
    std::lock_guard lock(mutex_);
    auto before = affectedLocked(bundleID);
    auto it = apps_.find(bundleID);
    if (it == apps_.end()) {
        if (apps_.size() >= kSyntheticMaxApplications) {
            log::error("SyntheticWindowSystem: too many applications, not launching %@", bundleID);
            return {};
        }
        it = apps_.emplace(bundleID, App{}).first;
    }
    App& app = it->second;
    if (app.pid != pid) {
        hideLayersLocked(app);
        app.layers.clear();
        app.pid = pid;
    }
    if (app.layers.empty()) app.layers.push_back(display_->makeContextID());
    app.foreground = true;
    app.activation = ++activationCounter_;
    showLayersLocked(app, bundleID);
    log::info("SyntheticWindowSystem: launched %@ (pid %i)", bundleID, pid);
    reportChangesLocked(bundleID, before);
    return app.layers;
}

bool SyntheticWindowSystem::setForeground(const std::string& bundleID, bool foreground,
                                          int32_t pid) {
    if (!validBundleID(bundleID)) return false;
    std::lock_guard lock(mutex_);
    auto before = affectedLocked(bundleID);
    auto it = apps_.find(bundleID);
    if (it == apps_.end()) {
        if (pid <= 0 || apps_.size() >= kSyntheticMaxApplications) return false;
        it = apps_.emplace(bundleID, App{}).first;
    }
    App& app = it->second;
    if (pid > 0 && app.pid != pid) {
        hideLayersLocked(app);
        app.layers.clear();
        app.pid = pid;
    }
    if (foreground) {
        app.foreground = true;
        app.activation = ++activationCounter_;
        showLayersLocked(app, bundleID);
    } else {
        app.foreground = false;
        hideLayersLocked(app);
    }
    reportChangesLocked(bundleID, before);
    return true;
}

bool SyntheticWindowSystem::terminate(const std::string& bundleID) {
    std::lock_guard lock(mutex_);
    auto it = apps_.find(bundleID);
    if (it == apps_.end()) return false;
    auto before = affectedLocked(bundleID);
    hideLayersLocked(it->second);
    apps_.erase(it);
    reportChangesLocked(bundleID, before);
    return true;
}

std::vector<uint32_t> SyntheticWindowSystem::layerContextIDs(const std::string& bundleID) const {
    std::lock_guard lock(mutex_);
    auto it = apps_.find(bundleID);
    return it == apps_.end() ? std::vector<uint32_t>{} : it->second.layers;
}

std::vector<uint32_t> SyntheticWindowSystem::layerContextIDsForProcess(int32_t pid) const {
    std::lock_guard lock(mutex_);
    std::vector<uint32_t> ids;
    if (pid <= 0) return ids;
    for (const auto& [bundleID, app] : apps_)
        if (app.pid == pid) ids.insert(ids.end(), app.layers.begin(), app.layers.end());
    return ids;
}

std::optional<ApplicationState> SyntheticWindowSystem::applicationState(
    const std::string& bundleID) const {
    std::lock_guard lock(mutex_);
    auto it = apps_.find(bundleID);
    if (it == apps_.end()) return std::nullopt;
    return stateOf(bundleID, it->second, frontmostLocked());
}

std::vector<ApplicationState> SyntheticWindowSystem::applications() const {
    std::lock_guard lock(mutex_);
    std::vector<ApplicationState> list;
    const std::string* frontmost = frontmostLocked();
    for (const auto& [bundleID, app] : apps_) list.push_back(stateOf(bundleID, app, frontmost));
    return list;
}

std::optional<std::string> SyntheticWindowSystem::frontmostApplicationBundleIdentifier() {
    std::lock_guard lock(mutex_);
    if (const std::string* frontmost = frontmostLocked()) return *frontmost;
    return std::nullopt;
}

// ---- layout

bool SyntheticWindowSystem::setLayoutLevels(std::optional<std::vector<int32_t>> levels) {
    if (levels && levels->size() > kSyntheticMaxLayoutElements) return false;
    {
        std::lock_guard lock(layoutMutex_);
        layoutOverride_ = std::move(levels);
    }
    scheduleLayoutUpdate();
    return true;
}

std::optional<std::vector<int32_t>> SyntheticWindowSystem::layoutLevels() const {
    std::lock_guard lock(layoutMutex_);
    return layoutOverride_;
}

DisplayLayout SyntheticWindowSystem::currentLayout() const {
    return computeLayout();
}

DisplayLayout SyntheticWindowSystem::computeLayout() const {
    DisplayLayout layout;
    {
        std::lock_guard lock(layoutMutex_);
        if (layoutOverride_) {
            for (int32_t level : *layoutOverride_) {
                DisplayLayoutElement e;
                e.level = level;
                layout.elements.push_back(e);
            }
            return layout;
        }
    }
    for (const auto& layer : display_->layers()) {
        DisplayLayoutElement e;
        e.level = layer.level;
        e.identifier = layer.contextID;
        e.pid = layer.ownerPID > 0 ? layer.ownerPID : -1;
        e.bundleIdentifier = layer.ownerBundleID;
        layout.elements.push_back(std::move(e));
    }
    return layout;
}

void SyntheticWindowSystem::scheduleLayoutUpdate() {
    // Recomputed on one serial queue from the state at that moment, so the
    // last layout delivered is always the current one, whichever threads
    // changed the display, and the display is never called back into from
    // inside its own observer.
    std::weak_ptr<SyntheticWindowSystem> weak = weak_from_this();
    layoutQueue_->async([weak] {
        auto self = weak.lock();
        if (!self) return;
        std::vector<std::shared_ptr<LayoutMonitor>> monitors;
        {
            std::lock_guard lock(self->layoutMutex_);
            std::erase_if(self->layoutMonitors_, [](const auto& w) { return w.expired(); });
            for (const auto& w : self->layoutMonitors_)
                if (auto m = w.lock()) monitors.push_back(std::move(m));
        }
        if (monitors.empty()) return;
        DisplayLayout layout = self->computeLayout();
        for (const auto& m : monitors) m->publish(layout);
    });
}

// ---- UiBackend

std::shared_ptr<ApplicationStateMonitor> SyntheticWindowSystem::makeApplicationStateMonitor() {
    auto monitor = std::make_shared<StateMonitor>(shared_from_this());
    std::lock_guard lock(mutex_);
    stateMonitors_.push_back(monitor);
    return monitor;
}

std::shared_ptr<DisplayLayoutMonitor> SyntheticWindowSystem::makeMainDisplayLayoutMonitor() {
    auto monitor = std::make_shared<LayoutMonitor>(shared_from_this(), computeLayout());
    {
        std::lock_guard lock(layoutMutex_);
        layoutMonitors_.push_back(monitor);
    }
    // A change between computeLayout() and the registration above would
    // otherwise go unseen until the next one.
    scheduleLayoutUpdate();
    return monitor;
}

}  // namespace sv
