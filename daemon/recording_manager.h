// SVRecordingManager: the daemon's one central object. It owns every piece of
// daemon-wide state, listens on the daemon's service, observes the lock
// button and answers the purgeable-space callbacks.
//
// Lifetime: created once by startRecordingManager() and kept in the
// process-wide reference (sharedRecordingManager()); the purge callback holds
// it strongly, so in practice it lives as long as the process.
//
// Threads: the listener delegate runs on the listener's queue, the lock
// button observer on the thread that posts the notification (the shell
// channel's connection queue), the purgeable-space callbacks on whichever
// thread calls them. The manager takes no locks: each field has the writers
// its operations name.
#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <string>

#include "platform/ipc/ipc.h"
#include "platform/process/notification_center.h"
#include "platform/url.h"
#include "session/recording_session.h"
#include "session/recording_session_delegate.h"
#include "support/recording_errors.h"

namespace sv {

class SVRecordingManager : public ipc::ListenerDelegate,
                           public SVRecordingSessionDelegate,
                           public std::enable_shared_from_this<SVRecordingManager> {
  public:
    // Called with the movie location (or nothing) and an error (or nothing).
    using StopHandler = std::function<void(std::optional<URL> movieURL, OptionalError error)>;
    using Date = std::chrono::system_clock::time_point;

    // Cache-delete service name under which the purge callbacks register.
    static std::string cacheDeleteServiceName();

    // `init`: builds the manager in the documented order. The listener is
    // created but not resumed.
    static std::shared_ptr<SVRecordingManager> create();
    ~SVRecordingManager() override;

    // Resumes publicListener; called once, after the manager is stored in
    // the process-wide reference.
    void finishStartup();

    // The lock-button observer (notification ignored).
    void _handleLockButtonWasPressedNotification(const Notification& notification);

    // Keep-alive: one transaction per recording that got past its checks.
    void beginTransaction();
    void endTransaction();

    // Listener delegate. Refuses a peer whose process identifier reads as 0
    // (another PID namespace); accepts anyone else.
    bool listenerShouldAcceptNewConnection(
        ipc::Listener& listener, const std::shared_ptr<ipc::Connection>& connection) override;

    // Recording control that start-up needs. Pending: the session stop and
    // the client callback are completed by the recording-control work; until
    // then a stop does nothing past its log lines and calls no handler, and
    // a stop error reaches no client (there is no client proxy yet).
    void stopRecordingWithHandler(StopHandler handler);
    void stopRecordingWithStartClipDuration(double startClipDuration, double endClipDuration,
                                            StopHandler handler);
    void recordingSessionStoppedWithError(const Error& error) override;
    void recordingSessionStoppedWithError(const Error& error, std::optional<URL> movieURL);

    // The purgeable-space callbacks as registered; only the purge callback
    // needs the manager. The cancel callback does nothing.
    static int64_t purgeableSpaceCallback(int32_t urgency);
    int64_t purgeCallback(int64_t amount, int32_t urgency);
    static int64_t periodicCallback(int64_t amount, int32_t urgency);

    // Fields, in declared order.
    bool isMicrophoneRecording() const { return microphoneRecording_; }
    void setMicrophoneRecording(bool v) { microphoneRecording_ = v; }
    bool isCameraRecording() const { return cameraRecording_; }
    void setCameraRecording(bool v) { cameraRecording_ = v; }
    const std::shared_ptr<ipc::Listener>& publicListener() const { return publicListener_; }
    void setPublicListener(std::shared_ptr<ipc::Listener> l) { publicListener_ = std::move(l); }
    std::set<std::string>& exemptBundleIdentifiers() { return exemptBundleIdentifiers_; }
    std::set<std::string>& exemptWithMicRecordingEnabledBundleIdentifiers() {
        return exemptWithMicRecordingEnabledBundleIdentifiers_;
    }
    std::map<std::string, Date>& lastBackgroundDateByBundleIdentifier() {
        return lastBackgroundDateByBundleIdentifier_;
    }
    std::map<std::string, std::shared_ptr<SVRecordingSession>>& bundleIDToRecordingSessionLookup() {
        return bundleIDToRecordingSessionLookup_;
    }
    std::map<std::string, Value>& hostBundleIDtoExtensionInfoLookup() {
        return hostBundleIDtoExtensionInfoLookup_;
    }
    const std::shared_ptr<SVRecordingSession>& currentRecordingSession() const {
        return currentRecordingSession_;
    }
    void setCurrentRecordingSession(std::shared_ptr<SVRecordingSession> s) {
        currentRecordingSession_ = std::move(s);
    }
    int32_t previousElementCount() const { return previousElementCount_; }
    void setPreviousElementCount(int32_t v) { previousElementCount_ = v; }

  private:
    SVRecordingManager() = default;
    void init();

    bool microphoneRecording_ = false;
    bool cameraRecording_ = false;
    std::shared_ptr<ipc::Listener> publicListener_;
    std::set<std::string> exemptBundleIdentifiers_;
    std::set<std::string> exemptWithMicRecordingEnabledBundleIdentifiers_;
    std::map<std::string, Date> lastBackgroundDateByBundleIdentifier_;
    std::map<std::string, std::shared_ptr<SVRecordingSession>> bundleIDToRecordingSessionLookup_;
    std::map<std::string, Value> hostBundleIDtoExtensionInfoLookup_;
    std::shared_ptr<SVRecordingSession> currentRecordingSession_;
    // The display-layout monitor (created by the first start request) and
    // the application-state monitor join with foreground tracking.
    int32_t previousElementCount_ = 0;
};

// The process-wide reference to the one manager (null before start-up).
std::shared_ptr<SVRecordingManager> sharedRecordingManager();
// The start-up function: creates the manager, stores it in the process-wide
// reference (releasing any previous one) and sends it finishStartup.
void startRecordingManager();

}  // namespace sv
