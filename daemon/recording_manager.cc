// SVRecordingManager: start-up, teardown, the manager's queue, the lock
// button, the purgeable-space callbacks, the keep-alive transaction, the
// session registry and the bookkeeping shared by the other parts.
#include "daemon/recording_manager.h"

#include <malloc.h>

#include <fcntl.h>
#include <pthread.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cmath>
#include <mutex>

#include <asio/executor_work_guard.hpp>
#include <asio/io_context.hpp>

#include "movie/movie_recovery.h"
#include "platform/log.h"
#include "platform/process/keep_alive.h"
#include "platform/process/purgeable_space.h"
#include "platform/unique_fd.h"
#include "protocol/recording_protocol.h"
#include "protocol/service_names.h"
#include "support/movie_store.h"

namespace sv {
namespace {

constexpr double kMovieTimeToLive = 86400.0;  // one day
constexpr int32_t kUrgentPurgeLevel = 3;

std::mutex gManagerMutex;
std::shared_ptr<SVRecordingManager> gManager;

}  // namespace

// The thread behind the manager's queue. Stopped and joined with the
// manager; a manager released by a task of its own queue leaves the thread
// to end by itself (and the few bytes of this object behind).
class SVRecordingManager::ManagerThread {
  public:
    ManagerThread() : guard_(asio::make_work_guard(io_)) {
        thread_ = std::thread([this] {
            pthread_setname_np(pthread_self(), "sv-manager");
            io_.run();
        });
        queue_ =
            std::make_shared<DispatchQueue>("org.sorvel.sorveld.manager", true, io_.get_executor());
    }
    ~ManagerThread() {
        guard_.reset();
        io_.stop();
        thread_.join();
    }
    bool isCurrent() const { return std::this_thread::get_id() == thread_.get_id(); }
    // From a task of the queue itself: the thread ends after that task.
    static void retireFromInside(std::unique_ptr<ManagerThread> self) {
        self->guard_.reset();
        self->io_.stop();
        self->thread_.detach();
        (void)self.release();
    }
    const std::shared_ptr<DispatchQueue>& queue() const { return queue_; }

  private:
    asio::io_context io_;
    asio::executor_work_guard<asio::io_context::executor_type> guard_;
    std::thread thread_;
    std::shared_ptr<DispatchQueue> queue_;
};

// A session's delegate: tells the manager which session stopped.
class SVRecordingManager::SessionDelegate : public SVRecordingSessionDelegate {
  public:
    SessionDelegate(std::weak_ptr<SVRecordingManager> manager,
                    std::weak_ptr<SVRecordingSession> session)
        : manager_(std::move(manager)), session_(std::move(session)) {}
    // On the session's thread (a global queue, or the screen capture
    // controller's delivery thread): never blocks it.
    void recordingSessionStoppedWithError(const Error& error,
                                          const std::optional<URL>& movieURL) override {
        auto manager = manager_.lock();
        auto session = session_.lock();
        if (!manager || !session) return;
        manager->queue()->async([manager, session, error, movieURL] {
            manager->sessionStoppedWithError(session, error, movieURL);
        });
    }
    // On the extension handle's queue.
    void broadcastSessionDidUpdateServiceInfo(const Value& serviceInfo) override {
        auto manager = manager_.lock();
        if (!manager) return;
        manager->queue()->async(
            [manager, serviceInfo] { manager->broadcastSessionDidUpdateServiceInfo(serviceInfo); });
    }
    // On the live link's queue: to the session's own application.
    void broadcastSessionLinkDidUpdateServiceInfo(const Value& serviceInfo) override {
        auto session = session_.lock();
        auto proxy = session ? session->clientProxy() : nullptr;
        if (!proxy) {
            log::error("SVRecordingManager: no application to pass service information to");
            return;
        }
        proxy->updateBroadcastServiceInfo(serviceInfo);
    }

  private:
    std::weak_ptr<SVRecordingManager> manager_;
    std::weak_ptr<SVRecordingSession> session_;
};

std::string SVRecordingManager::cacheDeleteServiceName() {
    return std::string(kDaemonServiceName) + "-cache-delete";
}

SVRecordingManager::SVRecordingManager(Options options)
    : options_(std::move(options)), thread_(std::make_unique<ManagerThread>()) {
    queue_ = thread_->queue();
    platform_ = options_.platform ? options_.platform : SVDaemonPlatform::processPlatform();
}

std::shared_ptr<SVRecordingManager> SVRecordingManager::create(Options options) {
    std::shared_ptr<SVRecordingManager> m(new SVRecordingManager(std::move(options)));
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

    auto listener = ipc::Listener::named(kDaemonServiceName);
    if (listener) {
        publicListener_ = std::move(*listener);
        publicListener_->setDelegate(weak);
        // The only instance on this store: movies that an instance before it
        // could not finish are recovered before a recording can reuse their
        // names (the listener takes no request until finishStartup).
        recoverUnfinishedMovies(MovieStore::shared()._srTempPath());
    } else {
        log::error("SVRecordingManager: cannot listen on %@: %@", kDaemonServiceName,
                   listener.error().message());
    }

    exemptBundleIdentifiers_.clear();
    exemptWithMicRecordingEnabledBundleIdentifiers_.clear();
    lastBackgroundDateByBundleIdentifier_.clear();
    bundleIDToRecordingSessionLookup_.clear();
    hostBundleIDtoExtensionInfoLookup_.clear();

    applicationStateMonitor_ = platform_->makeApplicationStateMonitor();
    log::info("SVRecordingManager: recording on the %@", platform_->description());

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
    if (layoutMonitor_) {
        layoutMonitor_->removeObserver(this);
        layoutMonitor_->invalidate();
    }
    NotificationCenter::defaultCenter().removeObserver(this);
    // The application-state monitor is not invalidated; its handler goes.
    if (applicationStateMonitor_) applicationStateMonitor_->setChangeHandler(nullptr);
    applicationStateMonitor_.reset();
    layoutMonitor_.reset();
    currentRecordingSession_.reset();
    hostBundleIDtoExtensionInfoLookup_.clear();
    bundleIDToRecordingSessionLookup_.clear();
    lastBackgroundDateByBundleIdentifier_.clear();
    exemptWithMicRecordingEnabledBundleIdentifiers_.clear();
    exemptBundleIdentifiers_.clear();
    publicListener_.reset();
    queue_.reset();
    if (thread_ && thread_->isCurrent()) ManagerThread::retireFromInside(std::move(thread_));
    thread_.reset();
}

void SVRecordingManager::finishStartup() {
    if (publicListener_) publicListener_->resume();
}

// ---- Lock button

void SVRecordingManager::_handleLockButtonWasPressedNotification(const Notification&) {
    queue_->sync([this] {
        log::info("SVRecordingManager: _handleLockButtonWasPressedNotification");
        // The session that records, whichever application is current: the
        // device is locked for all of them.
        auto session = recordingSession();
        if (!session) return;
        auto self = shared_from_this();
        stopRecordingWithHandler(
            session, [self, session](std::optional<URL> movieURL, OptionalError) {
                self->recordingSessionStoppedWithError(_svUserErrorForCode(kSVRecordingErrorLocked),
                                                       movieURL, session);
            });
    });
}

void SVRecordingManager::finishRecordingsForTermination(std::function<void()> done) {
    auto self = shared_from_this();
    queue_->async([self, done = std::move(done)] {
        auto session = self->recordingSession();
        if (!session) {
            done();
            return;
        }
        log::info("SVRecordingManager: finishing the recording before the service ends");
        self->stopRecordingWithHandler(
            session, [self, session, done](std::optional<URL> movieURL, OptionalError) {
                self->recordingSessionStoppedWithError(_svUserErrorForCode(kSVRecordingErrorLocked),
                                                       movieURL, session);
                done();
            });
    });
}

// ---- Keep-alive

void SVRecordingManager::beginTransaction() {
    KeepAlive::shared().beginTransaction();
}

void SVRecordingManager::endTransaction() {
    KeepAlive::shared().endTransaction();
    if (KeepAlive::shared().openTransactionCount() > 0) return;
    // Idle again: once the recording's encoders and buffers are gone, the
    // heap they used goes back to the system (glibc keeps freed memory of
    // its arenas otherwise, some hundred MB after a 1600x900 recording).
    DispatchQueue::global(QueuePriority::Background)->asyncAfter(std::chrono::seconds(2), [] {
        if (KeepAlive::shared().openTransactionCount() == 0) malloc_trim(0);
    });
}

// ---- Purgeable space

int64_t SVRecordingManager::purgeableSpaceCallback(int32_t) {
    log::info("SVRecordingManager: cache delete purgeable space callback");
    return MovieStore::shared()._srSizeOfTempDir().valueOr(0);
}

namespace {

// The size of the file open as `movie`, once it is removed from `path`: at
// once when it is gone already, else after removing it here (so the store's
// listing, which counts what it removes, does not count it again). 0 when
// it was never there or cannot be removed.
int64_t removedBytes(const UniqueFd& movie, const std::string& path) {
    if (!movie.valid()) return 0;
    struct stat st {};
    if (fstat(movie.get(), &st) != 0) return 0;
    if (st.st_nlink > 0 && unlink(path.c_str()) != 0) return 0;
    if (fstat(movie.get(), &st) != 0) return 0;
    return int64_t(st.st_size);
}

}  // namespace

int64_t SVRecordingManager::purgeCallback(int64_t, int32_t urgency) {
    log::info("SVRecordingManager: cache delete purge callback");
    bool recording = false;
    int64_t recordingBytes = 0;
    queue_->sync([&] {
        auto session = recordingSession();
        recording = session != nullptr;
        if (!recording || urgency < kUrgentPurgeLevel) return;
        // The stop throws the partial movie away before the store is listed:
        // hold it open to learn its size once its writer has closed it.
        const std::string path = session->outputURL().path;
        UniqueFd movie(open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW));
        stopRecordingWithHandler(session, nullptr);
        recordingSessionStoppedWithError(_svUserErrorForCode(kSVRecordingErrorInsufficientStorage),
                                         std::nullopt, session);
        recordingBytes = removedBytes(movie, path);
    });
    if (urgency < kUrgentPurgeLevel) {
        if (recording) return 0;
        return MovieStore::shared()._srDeleteFilesOlderThanTimeToLiveInSeconds(kMovieTimeToLive);
    }
    return recordingBytes + MovieStore::shared()._srDeleteAllTempFiles();
}

int64_t SVRecordingManager::periodicCallback(int64_t, int32_t) {
    log::info("SVRecordingManager: cache delete periodic callback");
    return MovieStore::shared()._srDeleteFilesOlderThanTimeToLiveInSeconds(kMovieTimeToLive);
}

// ---- Session registry

std::shared_ptr<SVRecordingSession> SVRecordingManager::recordingSessionForBundleID(
    const std::string& bundleID) {
    log::info("SVRecordingManager:recordingSessionForBundleID");
    if (bundleID.empty()) return nullptr;
    auto it = bundleIDToRecordingSessionLookup_.find(bundleID);
    if (it != bundleIDToRecordingSessionLookup_.end()) return it->second;
    log::info("no session, creating a new one");
    auto session = SVRecordingSession::initWithBundleID(bundleID);
    bundleIDToRecordingSessionLookup_.emplace(bundleID, session);
    book(session);
    return session;
}

void SVRecordingManager::removeSessionForBundleID(const std::string& bundleID) {
    log::info("SVRecordingManager:removeSessionForBundleID");
    auto it = bundleIDToRecordingSessionLookup_.find(bundleID);
    if (it == bundleIDToRecordingSessionLookup_.end()) return;
    auto session = it->second;
    bundleIDToRecordingSessionLookup_.erase(it);
    pruneBook(session);
}

std::shared_ptr<SVRecordingSession> SVRecordingManager::sessionOfClient(
    const SVClientConnection& client) {
    if (client.bundleID.empty() || client.ended) return nullptr;
    auto it = bundleIDToRecordingSessionLookup_.find(client.bundleID);
    return it == bundleIDToRecordingSessionLookup_.end() ? nullptr : it->second;
}

std::shared_ptr<SVRecordingSession> SVRecordingManager::recordingSession() const {
    if (currentRecordingSession_ && currentRecordingSession_->isRecording())
        return currentRecordingSession_;
    for (const auto& [bundleID, session] : bundleIDToRecordingSessionLookup_)
        if (session->isRecording()) return session;
    return nullptr;
}

SVRecordingManager::SessionBook& SVRecordingManager::book(
    const std::shared_ptr<SVRecordingSession>& session) {
    auto [it, inserted] = books_.try_emplace(session);
    if (inserted)
        it->second.delegate = std::make_shared<SessionDelegate>(weak_from_this(), session);
    return it->second;
}

uint64_t SVRecordingManager::generationOf(
    const std::shared_ptr<SVRecordingSession>& session) const {
    auto it = books_.find(session);
    return it == books_.end() ? 0 : it->second.generation;
}

void SVRecordingManager::pruneBook(const std::shared_ptr<SVRecordingSession>& session) {
    auto it = books_.find(session);
    if (it == books_.end()) return;
    auto registered = bundleIDToRecordingSessionLookup_.find(session->bundleID());
    if (registered != bundleIDToRecordingSessionLookup_.end() && registered->second == session)
        return;
    if (it->second.finishing > 0 || !it->second.openTransactions.empty() || session->isRecording())
        return;
    books_.erase(it);
}

void SVRecordingManager::beginFinishing(const std::shared_ptr<SVRecordingSession>& session) {
    ++book(session).finishing;
}

void SVRecordingManager::endFinishing(const std::shared_ptr<SVRecordingSession>& session) {
    auto& b = book(session);
    if (b.finishing > 0) --b.finishing;
    releaseHeldRequests(session->bundleID());
    pruneBook(session);
}

void SVRecordingManager::closeTransaction(const std::shared_ptr<SVRecordingSession>& session,
                                          uint64_t generation) {
    auto it = books_.find(session);
    if (it == books_.end() || it->second.openTransactions.erase(generation) == 0) return;
    endTransaction();
}

// ---- Held requests

bool SVRecordingManager::isHeld(const SVClientConnection& client) {
    if (client.pendingAlert) return true;
    if (client.bundleID.empty()) return false;
    auto it = bundleIDToRecordingSessionLookup_.find(client.bundleID);
    if (it == bundleIDToRecordingSessionLookup_.end()) return false;
    auto b = books_.find(it->second);
    return b != books_.end() && b->second.finishing > 0;
}

void SVRecordingManager::submit(const std::shared_ptr<SVClientConnection>& client,
                                std::function<void()> request) {
    if (client->ended) {
        static log::RateLimit limit;
        log::debug(limit, "SVRecordingManager: request of an ended connection dropped");
        return;
    }
    if (client->heldRequests.empty() && !isHeld(*client)) {
        request();
        return;
    }
    if (client->heldRequests.size() >= kMaxHeldRequests) {
        static log::RateLimit limit;
        log::error(limit,
                   "SVRecordingManager: pid %i sent more than %lu requests while held; "
                   "ending its connection",
                   int32_t(client->pid), kMaxHeldRequests);
        client->heldRequests.clear();
        if (auto c = client->connection.lock()) c->invalidate();
        return;
    }
    client->heldRequests.push_back(std::move(request));
}

std::shared_ptr<SVClientConnection> SVRecordingManager::clientOfBundle(
    const std::string& bundleID) const {
    auto it = clients_.find(bundleID);
    return it == clients_.end() ? nullptr : it->second;
}

void SVRecordingManager::releaseHeldRequests(const std::string& bundleID) {
    auto client = clientOfBundle(bundleID);
    if (!client) return;
    while (!client->ended && !client->heldRequests.empty() && !isHeld(*client)) {
        auto request = std::move(client->heldRequests.front());
        client->heldRequests.pop_front();
        request();
    }
}

// ---- Clock

SVRecordingManager::Date SVRecordingManager::now() const {
    return Clock::now() + std::chrono::nanoseconds(clockOffsetNanoseconds_.load());
}

OptionalError SVRecordingManager::advanceClockBy(double seconds) {
    if (!options_.adjustableClock)
        return shellError(kSVShellErrorNotAllowed,
                          "The daemon's clock moves only in a daemon started with --test-clock.");
    // A century at most: far beyond any expiry, far below overflow.
    if (!std::isfinite(seconds) || seconds < 0 || seconds > 3.2e9)
        return shellError(kSVShellErrorInvalidArgument,
                          "The clock moves forward by 0 to 3.2e9 seconds.");
    clockOffsetNanoseconds_.fetch_add(int64_t(seconds * 1e9));
    log::info("SVRecordingManager: clock moved forward by %f seconds", seconds);
    return std::nullopt;
}

// ---- Status

Value SVRecordingManager::recordingStatusForProcess(pid_t pid) {
    // The bundle is read off the queue: it touches the file system. The
    // caller is asked about as it would be identified connecting now.
    UniqueFd pidfd(int(syscall(SYS_pidfd_open, pid, 0)));
    const std::optional<std::string> bundleID = identityOfProcess(pid, pidfd.get()).first;
    if (bundleID->empty()) return Value(nullptr);
    std::shared_ptr<SVRecordingSession> session;
    queue_->sync([&] {
        auto it = bundleIDToRecordingSessionLookup_.find(*bundleID);
        if (it != bundleIDToRecordingSessionLookup_.end()) session = it->second;
    });
    if (!session) return Value(nullptr);
    const auto progress = session->progress();
    int64_t movieBytes = 0;
    if (auto writer = session->movieWriter()) {
        struct stat st {};
        if (stat(writer->outputPath().c_str(), &st) == 0) movieBytes = int64_t(st.st_size);
    }
    Value status = Value::object();
    status["bundleID"] = *bundleID;
    status["recording"] = session->isRecording();
    status["paused"] = session->isPaused();
    status["microphoneEnabled"] = session->isMicrophoneEnabled();
    status["systemRecording"] = session->isSystemRecording();
    status["elapsed"] = progress.recordedSeconds;
    status["framesWritten"] = progress.framesWritten;
    status["framesDropped"] = progress.framesDropped;
    status["movieBytes"] = movieBytes;
    return status;
}

// ---- Start-up function

std::shared_ptr<SVRecordingManager> sharedRecordingManager() {
    std::lock_guard lock(gManagerMutex);
    return gManager;
}

void startRecordingManager(SVRecordingManager::Options options) {
    auto manager = SVRecordingManager::create(std::move(options));
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
