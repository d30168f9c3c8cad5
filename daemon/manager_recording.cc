// SVRecordingManager: recording control. The start request with its checks
// in order, stops with and without trimming, pause, resume, discard, the
// microphone switch, the interruption of other sessions, and the sessions'
// own reports. Everything here runs on the manager's queue; the sessions'
// handlers are posted back to it.
#include "daemon/recording_manager.h"
#include "platform/log.h"
#include "support/movie_store.h"

namespace sv {
namespace {

// The longest a start request waits for the window system to see the
// display as it is (one round trip to the display server, normally).
constexpr std::chrono::milliseconds kWindowSystemCatchUp{500};

std::string describeIDs(const std::vector<uint32_t>& ids) {
    std::string s;
    for (uint32_t id : ids) s += (s.empty() ? "" : ", ") + std::to_string(id);
    return "[" + s + "]";
}

}  // namespace

// ---- Start

void SVRecordingManager::startRecordingWindowLayerContextIDs(
    const std::shared_ptr<SVClientConnection>& client, std::vector<uint32_t> contextIDs,
    WindowSize windowSize, bool microphoneEnabled, bool cameraEnabled, bool broadcast,
    bool systemRecording, StartHandler handler) {
    log::info(
        "SVRecordingManager:startRecordingWindowLayerContextID:windowSize:microphoneEnabled:"
        "streaming:withHandler:");
    auto answer = [&handler](OptionalError error, bool microphone, bool camera) {
        if (handler) handler(std::move(error), microphone, camera);
    };
    auto session = sessionOfClient(*client);
    if (session && session->isRecording()) {
        answer(std::nullopt, isMicrophoneRecording(), isCameraRecording());
        return;
    }
    if (!MovieStore::shared()._srDeviceHasSufficientFreeSpaceForRecording()) {
        log::info("insufficient disk space for recording, calling handler with error");
        answer(_svUserErrorForCode(kSVRecordingErrorInsufficientStorage), false, false);
        return;
    }
    // A process outside any bundle has no session to record with: even a
    // system recording would start nothing and never be answered.
    const std::string bundleID = session ? session->bundleID() : std::string();
    if (session && !systemRecording) platform_->synchronizeWindowSystem(kWindowSystemCatchUp);
    if (!session ||
        (!systemRecording && !isApplicationInForegroundWithBundleIdentifier(bundleID))) {
        log::info("app is not in the foreground, calling handler with error");
        answer(_svUserErrorForCode(kSVRecordingErrorFailedToStart), false, false);
        return;
    }
    if (!systemRecording) {
        // Only the application's own layers: the display would clone any
        // layer it is given, another application's too. A request left with
        // none of its own would record nothing of the application, so it
        // fails like an application that is not on the screen, before the
        // user is asked anything.
        std::vector<uint32_t> dropped;
        contextIDs = platform_->layerContextIDsOwnedByProcess(client->pid, contextIDs, &dropped);
        if (!dropped.empty())
            log::error("SVRecordingManager: layers %@ do not belong to %@ (pid %i); not recorded",
                       describeIDs(dropped), bundleID, int32_t(client->pid));
        if (contextIDs.empty()) {
            log::info("app is not in the foreground, calling handler with error");
            answer(_svUserErrorForCode(kSVRecordingErrorFailedToStart), false, false);
            return;
        }
    }
    setMicrophoneRecording(microphoneEnabled);
    setCameraRecording(cameraEnabled);
    // A system recording goes without asking only for a trusted executable
    // (the operating system's own side); anyone else's is asked about like
    // any recording, and every time.
    const bool askForSystem = systemRecording && !client->trusted;
    if (broadcast || (systemRecording && !askForSystem)) {
        continueStart(client, session, std::move(contextIDs), windowSize, broadcast,
                      systemRecording, std::move(handler));
        return;
    }
    std::weak_ptr<SVRecordingManager> weak = weak_from_this();
    showAcknowledgementAlert(
        client, session, askForSystem,
        [weak, client, session, contextIDs = std::move(contextIDs), windowSize, broadcast,
         systemRecording, handler = std::move(handler)](ConsentAnswer answer) mutable {
            auto self = weak.lock();
            if (!self) return;
            if (client->ended) {
                // Nobody is left to answer, and the application's session is
                // gone or belongs to a newer connection.
                log::info(
                    "SVRecordingManager: start abandoned, the application went away "
                    "while the user was asked");
                return;
            }
            if (!answer.allowed) {
                log::info("user declined");
                if (handler)
                    handler(_svUserErrorForCode(kSVRecordingErrorUserDeclined), false, false);
            } else {
                // This request's sources as the user allowed them, whatever
                // other starts set meanwhile.
                self->setMicrophoneRecording(answer.microphone);
                self->setCameraRecording(answer.camera);
                self->continueStart(client, session, std::move(contextIDs), windowSize, broadcast,
                                    systemRecording, std::move(handler));
            }
            self->releaseHeldRequests(client->bundleID);
        });
}

void SVRecordingManager::continueStart(const std::shared_ptr<SVClientConnection>&,
                                       const std::shared_ptr<SVRecordingSession>& session,
                                       std::vector<uint32_t> contextIDs, WindowSize windowSize,
                                       bool broadcast, bool systemRecording, StartHandler handler) {
    log::info("starting...");
    if (!layoutMonitor_) layoutMonitor_ = platform_->makeMainDisplayLayoutMonitor();
    layoutMonitor_->addObserver(shared_from_this());
    setPreviousElementCount(int32_t(layoutMonitor_->currentLayout().elementCount()));

    auto& b = book(session);
    const uint64_t generation = ++b.generation;
    beginTransaction();
    b.openTransactions.insert(generation);

    if (broadcast) {
        log::info("broadcast requested");
        auto it = hostBundleIDtoExtensionInfoLookup_.find(session->bundleID());
        if (it == hostBundleIDtoExtensionInfoLookup_.end()) {
            log::info("attempted to start broadcast without a session, bailing out");
            // Nothing will reset this session, so the transaction this
            // start opened ends here.
            closeTransaction(session, generation);
            if (handler)
                handler(Error{kSVRecordingErrorDomain, kSVRecordingErrorBroadcast, Value::object()},
                        false, false);
            return;
        }
        log::info("found broadcast info, enabling for session");
        const auto info = it->second;
        session->setBroadcastConfiguration(info->configuration);
        session->enableBroadcastWithExtension(info->extension, info->processMode, info->userInfo);
    } else {
        log::info("broadcast disabled");
        session->disableBroadcast();
    }

    session->setRecording(true);
    b.microphoneAllowed = isMicrophoneRecording();
    interruptOtherRecordingSessions(session);
    session->setSystemRecording(systemRecording);
    session->setContextIDs(std::move(contextIDs));
    session->setWindowSize(windowSize);
    session->setMicrophoneEnabled(isMicrophoneRecording());
    session->setDelegate(book(session).delegate);

    // The answer names this recording's sources, not the flags of whatever
    // start comes last.
    const bool microphone = isMicrophoneRecording(), camera = isCameraRecording();
    std::weak_ptr<SVRecordingManager> weak = weak_from_this();
    frontmostApplicationPID(session, [weak, session, systemRecording, generation, microphone,
                                      camera, handler = std::move(handler)](int32_t pid) {
        auto self = weak.lock();
        if (!self) return;
        // Stopped (or stopped and started again) before the process was
        // known: this start has nothing left to do.
        if (!session->isRecording() || self->generationOf(session) != generation) return;
        session->setFrontmostPIDForAudioTap(pid);
        session->startSessionWithHandler(
            [weak, session, systemRecording, generation, microphone, camera, handler] {
                // On the delivery thread of the first frame: never blocked.
                auto manager = weak.lock();
                if (!manager) return;
                manager->queue_->async(
                    [manager, session, systemRecording, generation, microphone, camera, handler] {
                        log::info("recording session started");
                        if (handler) handler(std::nullopt, microphone, camera);
                        if (manager->generationOf(session) != generation || !session->isRecording())
                            return;
                        if (systemRecording)
                            manager->startFollowingFrontmostApplication();
                        else if (manager->applicationStateMonitor_)
                            manager->applicationStateMonitor_->setChangeHandler(nullptr);
                    });
            });
    });
}

std::string SVRecordingManager::broadcastBaseIdentifier(const std::string& extensionBundleID) {
    const auto dot = extensionBundleID.rfind('.');
    return dot == std::string::npos ? std::string() : extensionBundleID.substr(0, dot);
}

void SVRecordingManager::loadBroadcastUploadExtensionWithBaseIdentifier(
    const std::string& baseIdentifier, LookupHandler handler, std::function<void()> notFound) {
    log::info("looking for upload extension");
    AppExtension::extensionsWithMatchingPointName(
        kBroadcastServicesExtensionPoint,
        [baseIdentifier, handler = std::move(handler), notFound = std::move(notFound)](
            std::vector<std::shared_ptr<AppExtension>> extensions, OptionalError) {
            for (const auto& extension : extensions) {
                if (extension->attributes().contains(kExtensionMainInterfaceKey)) continue;
                if (baseIdentifier.empty() || extension->identifier().rfind(baseIdentifier, 0) != 0)
                    continue;
                log::info("found upload extension");
                int32_t mode = kBroadcastProcessModeUpload;
                if (stringAt(extension->attributes(), kSVBroadcastProcessModeAttribute) ==
                    kSVBroadcastProcessModeSampleBuffer) {
                    log::info("broadcast extension expects sample buffers");
                    mode = kBroadcastProcessModeSampleBuffer;
                }
                if (handler) handler(extension, mode);
                return;
            }
            if (notFound) notFound();
        });
}

void SVRecordingManager::setupBroadcastWithHostBundleID(
    const std::shared_ptr<SVClientConnection>& client, const std::string& hostBundleID,
    const std::string& extensionBundleID, std::optional<Bytes> configurationData,
    std::optional<Value> userInfo, SetupHandler handler) {
    log::info("SVRecordingManager:setupBroadcastWithHostBundleID:broadcastExtensionBundleID:");
    if (hostBundleID != client->bundleID) {
        static log::RateLimit limit;
        log::error(limit,
                   "SVRecordingManager: pid %i set up a broadcast for %@, not its own; "
                   "refused",
                   int32_t(client->pid), hostBundleID);
        if (handler) handler(_svUserErrorForCode(kSVRecordingErrorBroadcast));
        return;
    }
    auto session = recordingSessionForBundleID(hostBundleID);
    // The application's further requests wait for the lookup (it reads a
    // few small files), so its start finds the record.
    if (session) beginFinishing(session);
    std::weak_ptr<SVRecordingManager> weak = weak_from_this();
    auto finishLookup = [weak, session](std::shared_ptr<const SVBroadcastInfo> info) {
        auto self = weak.lock();
        if (!self) return;
        self->queue_->async([self, session, info] {
            if (info && session)
                self->hostBundleIDtoExtensionInfoLookup_[session->bundleID()] = info;
            if (session) self->endFinishing(session);
        });
    };
    loadBroadcastUploadExtensionWithBaseIdentifier(
        broadcastBaseIdentifier(extensionBundleID),
        [finishLookup, configurationData = std::move(configurationData),
         userInfo = std::move(userInfo)](std::shared_ptr<AppExtension> extension, int32_t mode) {
            auto info = std::make_shared<SVBroadcastInfo>();
            info->extension = std::move(extension);
            info->processMode = mode;
            info->userInfo = userInfo;
            info->configuration = SVBroadcastConfiguration::decodeFromData(
                configurationData ? std::span<const uint8_t>(*configurationData)
                                  : std::span<const uint8_t>());
            finishLookup(std::move(info));
        },
        [finishLookup] { finishLookup(nullptr); });
    if (session) setCurrentRecordingSession(session);
    if (handler) handler(std::nullopt);
}

void SVRecordingManager::broadcastSessionDidUpdateServiceInfo(const Value& serviceInfo) {
    log::info("SVRecordingManager:broadcastSessionDidUpdateServiceInfo:");
    auto proxy = currentRecordingSession_ ? currentRecordingSession_->clientProxy() : nullptr;
    if (!proxy) {
        log::error("SVRecordingManager: no application to pass service information to");
        return;
    }
    proxy->updateBroadcastServiceInfo(serviceInfo);
}

// ---- Other sessions

void SVRecordingManager::interruptOtherRecordingSessions(
    const std::shared_ptr<SVRecordingSession>& starting) {
    log::info("SVRecordingManager:interruptRecordingSessions");
    std::vector<std::shared_ptr<SVRecordingSession>> others;
    for (const auto& [bundleID, session] : bundleIDToRecordingSessionLookup_)
        if (session != starting && session->isRecording()) others.push_back(session);
    std::weak_ptr<SVRecordingManager> weak = weak_from_this();
    for (const auto& session : others) {
        const uint64_t generation = generationOf(session);
        beginFinishing(session);
        const bool taken = session->finishSessionWithHandler(
            [weak, session, generation](std::optional<URL> movieURL, OptionalError error) {
                auto self = weak.lock();
                if (!self) return;
                self->queue_->async([self, session, generation, movieURL, error] {
                    log::info("interrupted session");
                    self->recordingSessionInterrupted(session, error, movieURL);
                    session->setInterruptedMovieURL(movieURL);
                    self->resetStatesForSession(session);
                    self->closeTransaction(session, generation);
                    self->endFinishing(session);
                });
            });
        // It stopped itself on a capture failure since the check above: its
        // own report tells the application; nothing is left to finish.
        if (!taken) endFinishing(session);
    }
}

// ---- Stop

void SVRecordingManager::stopRecordingWithHandler(const std::shared_ptr<SVClientConnection>& client,
                                                  StopHandler handler) {
    log::info("SVRecordingManager: stopRecordingWithHandler:");
    stopRecordingWithStartClipDuration(client, 0.0, 0.0, std::move(handler));
}

void SVRecordingManager::stopRecordingWithStartClipDuration(
    const std::shared_ptr<SVClientConnection>& client, double startClipDuration,
    double endClipDuration, StopHandler handler) {
    log::info("SVRecordingManager: stopRecordingWithStartTimeOffset:endTimeOffset:handler:");
    auto session = sessionOfClient(*client);
    if (!session) return;
    stopRecordingSession(session, startClipDuration, endClipDuration, std::move(handler));
}

void SVRecordingManager::stopRecordingWithHandler(
    const std::shared_ptr<SVRecordingSession>& session, StopHandler handler) {
    log::info("SVRecordingManager: stopRecordingWithHandler:");
    log::info("SVRecordingManager: stopRecordingWithStartTimeOffset:endTimeOffset:handler:");
    if (!session) return;
    stopRecordingSession(session, 0.0, 0.0, std::move(handler));
}

void SVRecordingManager::stopRecordingSession(const std::shared_ptr<SVRecordingSession>& session,
                                              double startClipDuration, double endClipDuration,
                                              StopHandler handler) {
    log::info("SVRecordingManager: stopRecordingSession:handler:");
    if (session->isSystemRecording() && session->isRecording()) {
        log::info("stop monitoring foreground apps");
        if (applicationStateMonitor_) applicationStateMonitor_->setChangeHandler(nullptr);
    }
    if (!session->isRecording()) return;
    if (layoutMonitor_) layoutMonitor_->removeObserver(this);
    const uint64_t generation = generationOf(session);
    beginFinishing(session);
    std::weak_ptr<SVRecordingManager> weak = weak_from_this();
    if (!handler && session->broadcastExtensionID().empty()) {
        log::info("recording stopped without handler!");
        session->finishAndCleanupSessionFilesWithHandler([weak, session, generation] {
            if (auto self = weak.lock())
                self->queue_->async([self, session, generation] {
                    self->resetStatesForSession(session);
                    self->closeTransaction(session, generation);
                    self->endFinishing(session);
                });
        });
        return;
    }
    const bool taken = session->finishSessionWithStartClipDuration(
        startClipDuration, endClipDuration,
        [weak, session, generation, handler](std::optional<URL> movieURL, OptionalError error) {
            auto self = weak.lock();
            if (!self) return;
            self->queue_->async([self, session, generation, handler, movieURL, error] {
                if (handler) handler(movieURL, error);
                self->resetStatesForSession(session);
                self->closeTransaction(session, generation);
                self->endFinishing(session);
            });
        });
    // The session stopped itself on a capture failure between the check
    // above and now: like a stop after that failure, it is not answered, and
    // the application's later requests must not wait for a finish that never
    // comes.
    if (!taken) endFinishing(session);
}

void SVRecordingManager::resetStatesForSession(const std::shared_ptr<SVRecordingSession>& session) {
    log::info("SVRecordingManager:resetStatesForSession:");
    session->setRecording(false);
    session->setPaused(false);
    hostBundleIDtoExtensionInfoLookup_.erase(session->bundleID());
    // The keep-alive transaction of the recording is closed by the caller,
    // which knows which recording ended (closeTransaction).
}

// ---- Pause, resume, discard, microphone

void SVRecordingManager::pauseRecording(const std::shared_ptr<SVClientConnection>& client) {
    log::info("SVRecordingManager:pauseRecording");
    auto session = sessionOfClient(*client);
    if (!session || session->isSystemRecording() || !session->isRecording() || session->isPaused())
        return;
    session->pauseSession();
}

void SVRecordingManager::resumeRecordingWithWindowLayerContextID(
    const std::shared_ptr<SVClientConnection>& client, uint32_t contextID) {
    log::info("SVRecordingManager: resumeRecording");
    auto session = sessionOfClient(*client);
    if (!session || session->isSystemRecording() || !session->isRecording() || !session->isPaused())
        return;
    std::vector<uint32_t> dropped;
    auto own = platform_->layerContextIDsOwnedByProcess(client->pid, {contextID}, &dropped);
    if (own.empty()) {
        // The recording stays paused rather than show another's layer.
        log::error("SVRecordingManager: layer %u does not belong to %@ (pid %i); not resumed",
                   contextID, client->bundleID, int32_t(client->pid));
        return;
    }
    session->resumeSessionWithContextID(contextID);
}

void SVRecordingManager::setMicrophoneEnabled(const std::shared_ptr<SVClientConnection>& client,
                                              bool enabled) {
    log::info("SVRecordingManager: setMicrophoneEnabled:%i", int32_t(enabled));
    auto session = sessionOfClient(*client);
    if (!session || !session->isRecording()) return;
    if (enabled && !book(session).microphoneAllowed) {
        // The user allowed this recording without the microphone; turning it
        // on now (and a resume would start it) would go around that answer.
        log::error("SVRecordingManager: %@ may not record the microphone; not enabled",
                   session->bundleID());
        return;
    }
    session->setMicrophoneEnabled(enabled);
}

void SVRecordingManager::discardRecordingWithHandler(
    const std::shared_ptr<SVClientConnection>& client, DiscardHandler handler) {
    log::info("SVRecordingManager: discardRecording");
    auto session = sessionOfClient(*client);
    if (!session) return;
    if (session->isRecording()) {
        log::error("can't discard recording while recording is in progress");
        return;
    }
    // The application's requests wait for the removal: a start meanwhile
    // would write the file being removed.
    beginFinishing(session);
    std::weak_ptr<SVRecordingManager> weak = weak_from_this();
    session->finishAndCleanupSessionFilesWithHandler([weak, session, handler] {
        auto self = weak.lock();
        if (!self) {
            if (handler) handler();
            return;
        }
        self->queue_->async([self, session, handler] {
            if (handler) handler();
            self->endFinishing(session);
        });
    });
}

// ---- Reports to the application

void SVRecordingManager::recordingSessionStoppedWithError(const Error& error) {
    auto self = shared_from_this();
    queue_->async([self, error] { self->recordingSessionStoppedWithError(error, std::nullopt); });
}

void SVRecordingManager::sessionStoppedWithError(const std::shared_ptr<SVRecordingSession>& session,
                                                 const Error& error) {
    // The session stopped itself (capture failed): the application is told.
    // The partial movie is left as it is, and the session is not reset; the
    // recording's keep-alive transaction ends, as nothing else would end it.
    recordingSessionStoppedWithError(error, std::nullopt, session);
    closeTransaction(session, generationOf(session));
    if (layoutMonitor_) layoutMonitor_->removeObserver(this);
    if (session->isSystemRecording() && applicationStateMonitor_)
        applicationStateMonitor_->setChangeHandler(nullptr);
}

void SVRecordingManager::recordingSessionStoppedWithError(
    const OptionalError& error, const std::optional<URL>& movieURL,
    std::shared_ptr<SVRecordingSession> session) {
    log::info("SVRecordingManager:recordingSessionStoppedWithError:movieURL:");
    if (!session) session = currentRecordingSession_;
    auto proxy = session ? session->clientProxy() : nullptr;
    if (!proxy) {
        log::error("SVRecordingManager: no application to tell of error %li",
                   error ? error->code : int64_t(0));
        return;
    }
    proxy->stopRecordingWithError(error, movieURL);
}

void SVRecordingManager::recordingSessionInterrupted(
    const std::shared_ptr<SVRecordingSession>& session, const OptionalError& error,
    const std::optional<URL>& movieURL) {
    if (auto proxy = session->clientProxy()) proxy->stopRecordingWithError(error, movieURL);
}

}  // namespace sv
