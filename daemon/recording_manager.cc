#include "daemon/recording_manager.h"

#include <mutex>

#include "daemon/protocol/service_names.h"
#include "platform/log.h"
#include "platform/process/keep_alive.h"
#include "platform/process/purgeable_space.h"
#include "support/movie_store.h"

namespace sv {
namespace {

constexpr double kMovieTimeToLive = 86400.0;  // one day
constexpr int32_t kUrgentPurgeLevel = 3;

std::mutex gManagerMutex;
std::shared_ptr<SVRecordingManager> gManager;

}  // namespace

std::string SVRecordingManager::cacheDeleteServiceName() {
    return std::string(kDaemonServiceName) + "-cache-delete";
}

std::shared_ptr<SVRecordingManager> SVRecordingManager::create() {
    std::shared_ptr<SVRecordingManager> m(new SVRecordingManager);
    m->init();
    return m;
}

void SVRecordingManager::init() {
    MovieStore::shared()._srSetupTempDirectory();

    std::weak_ptr<SVRecordingManager> weak = weak_from_this();
    NotificationCenter::defaultCenter().addObserver(
        this, kLockButtonPressedNotification, [weak](const Notification& n) {
            if (auto self = weak.lock()) self->_handleLockButtonWasPressedNotification(n);
        });

    std::string error;
    publicListener_ = ipc::Listener::named(kDaemonServiceName, &error);
    if (publicListener_) publicListener_->setDelegate(weak);

    exemptBundleIdentifiers_.clear();
    exemptWithMicRecordingEnabledBundleIdentifiers_.clear();
    lastBackgroundDateByBundleIdentifier_.clear();
    bundleIDToRecordingSessionLookup_.clear();
    hostBundleIDtoExtensionInfoLookup_.clear();

    // Only the purge callback refers to the manager, strongly.
    auto self = shared_from_this();
    PurgeableSpaceCallbacks callbacks;
    callbacks.purgeable = [](int32_t urgency) { return purgeableSpaceCallback(urgency); };
    callbacks.purge = [self](int64_t amount, int32_t urgency) {
        return self->purgeCallback(amount, urgency);
    };
    callbacks.cancel = [] {};  // nothing runs long enough to cancel
    callbacks.periodic = [](int64_t amount, int32_t urgency) {
        return periodicCallback(amount, urgency);
    };
    PurgeableSpaceService::shared().registerService(cacheDeleteServiceName(), std::move(callbacks));
}

SVRecordingManager::~SVRecordingManager() {
    // No layout monitor exists yet to stop observing or invalidate.
    NotificationCenter::defaultCenter().removeObserver(this);
    currentRecordingSession_.reset();
    hostBundleIDtoExtensionInfoLookup_.clear();
    bundleIDToRecordingSessionLookup_.clear();
    lastBackgroundDateByBundleIdentifier_.clear();
    exemptWithMicRecordingEnabledBundleIdentifiers_.clear();
    exemptBundleIdentifiers_.clear();
    publicListener_.reset();
}

void SVRecordingManager::finishStartup() {
    if (publicListener_) publicListener_->resume();
}

void SVRecordingManager::_handleLockButtonWasPressedNotification(const Notification&) {
    log::info("SVRecordingManager: _handleLockButtonWasPressedNotification");
    auto session = currentRecordingSession_;
    if (!session || !session->isRecording()) return;
    auto self = shared_from_this();
    stopRecordingWithHandler([self](std::optional<URL> movieURL, OptionalError) {
        self->recordingSessionStoppedWithError(_svUserErrorForCode(-5809), std::move(movieURL));
    });
}

void SVRecordingManager::beginTransaction() {
    KeepAlive::shared().beginTransaction();
}

void SVRecordingManager::endTransaction() {
    KeepAlive::shared().endTransaction();
}

bool SVRecordingManager::listenerShouldAcceptNewConnection(
    ipc::Listener&, const std::shared_ptr<ipc::Connection>& connection) {
    log::info("SVRecordingManager: shouldAcceptNewConnection:");
    pid_t pid = connection->processIdentifier();
    if (pid == 0) return false;
    log::info("accepted client connection PID: %d", int(pid));
    // The daemon protocol, the application's session and its client proxy
    // are attached by the client-connection work; until then the connection
    // is served with no exported interface, and its end is only logged.
    connection->setInterruptionHandler([] { log::info("connection INTERRUPTED"); });
    connection->setInvalidationHandler([] { log::info("connection INVALID"); });
    connection->resume();
    return true;
}

void SVRecordingManager::stopRecordingWithHandler(StopHandler handler) {
    log::info("SVRecordingManager: stopRecordingWithHandler:");
    stopRecordingWithStartClipDuration(0.0, 0.0, std::move(handler));
}

void SVRecordingManager::stopRecordingWithStartClipDuration(double, double, StopHandler) {
    log::info("SVRecordingManager: stopRecordingWithStartTimeOffset:endTimeOffset:handler:");
    // Pending: stopping the current session arrives with recording control.
}

void SVRecordingManager::recordingSessionStoppedWithError(const Error& error) {
    recordingSessionStoppedWithError(error, std::nullopt);
}

void SVRecordingManager::recordingSessionStoppedWithError(const Error& error,
                                                          std::optional<URL> movieURL) {
    log::info("SVRecordingManager:recordingSessionStoppedWithError:movieURL:");
    // Pending: delivery to the client proxy of the current session arrives
    // with client connections.
    log::debug("stop error %li for %@ not delivered: no client proxy yet", error.code,
               movieURL ? movieURL->absoluteString() : std::string("(null)"));
}

int64_t SVRecordingManager::purgeableSpaceCallback(int32_t) {
    log::info("SVRecordingManager: cache delete purgeable space callback");
    return MovieStore::shared()._srSizeOfTempDir();
}

int64_t SVRecordingManager::purgeCallback(int64_t, int32_t urgency) {
    log::info("SVRecordingManager: cache delete purge callback");
    auto session = currentRecordingSession_;
    bool recording = session && session->isRecording();
    if (urgency < kUrgentPurgeLevel) {
        if (recording) return 0;
        return MovieStore::shared()._srDeleteFilesOlderThanTimeToLiveInSeconds(kMovieTimeToLive);
    }
    if (recording) {
        stopRecordingWithHandler(nullptr);
        recordingSessionStoppedWithError(_svUserErrorForCode(-5805));
    }
    return MovieStore::shared()._srDeleteAllTempFiles();
}

int64_t SVRecordingManager::periodicCallback(int64_t, int32_t) {
    log::info("SVRecordingManager: cache delete periodic callback");
    return MovieStore::shared()._srDeleteFilesOlderThanTimeToLiveInSeconds(kMovieTimeToLive);
}

std::shared_ptr<SVRecordingManager> sharedRecordingManager() {
    std::lock_guard lock(gManagerMutex);
    return gManager;
}

void startRecordingManager() {
    auto manager = SVRecordingManager::create();
    std::shared_ptr<SVRecordingManager> previous;
    {
        std::lock_guard lock(gManagerMutex);
        previous = std::move(gManager);
        gManager = manager;
    }
    previous.reset();
    if (manager) manager->finishStartup();
}

}  // namespace sv
