// SVRecordingManager: the daemon's one central object. It owns every piece of
// daemon-wide state (the sessions by application, the consent exemptions and
// background dates, the broadcast set-ups, the monitors of foreground state
// and display layout), listens on the daemon's service, exports
// SVDaemonProtocol on every accepted application connection, observes the
// lock button and the display layout, and answers the purgeable-space
// callbacks. Its operations are split by concern:
//   recording_manager.cc   start-up, lock button, purge, keep-alive, registry
//   manager_connections.cc acceptance, the exported protocol, disconnects
//   manager_recording.cc   start, stop, pause, resume, discard, microphone,
//                          interruptions and the sessions' reports
//   manager_consent.cc     the consent alert and the exemptions
//   manager_foreground.cc  activity reports, layout changes, frontmost process
//
// Lifetime: created once by startRecordingManager() and kept in the
// process-wide reference (sharedRecordingManager()); the purge callback holds
// it strongly, so in practice it lives as long as the process.
//
// Threads: the manager's state lives on its own serial queue (queue()),
// which runs on a thread of its own and never blocks: no wait for a user,
// a client or a session happens on it. Everything reaches the manager there:
// requests hop onto it from their connection's queue (waiting for it, so a
// client that floods requests is held back by its own connection), the
// listener's acceptance, the lock button and the purge callbacks wait for it
// too (they answer synchronously); the sessions' handlers, the monitors'
// updates and consent answers are posted to it. The queue having a thread of
// its own means a caller waiting for it never holds a thread the queue
// itself needs. Methods documented "on the queue" must be called there;
// calls out of the manager (sessions, IPC sends, alert creation) never wait
// for anything that needs the queue.
//
// Identity: every request acts on the session of the application that sent
// it, identified by its connection (the peer process's executable inside a
// bundle), never on another application's. In the usual flow that is
// currentRecordingSession, the application that last connected or became
// active; an application that is not current cannot stop, pause, start or
// take the movie of another's recording by sending requests, and activity
// reports naming another application than the sender are dropped. The lock
// button, storage pressure and layout changes act on the session that
// records (at most one does).
#pragma once

#include <sys/types.h>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "capture/capture_manager.h"
#include "daemon/client_proxy.h"
#include "daemon/consent_agent.h"
#include "daemon/daemon_platform.h"
#include "daemon/trust.h"
#include "platform/dispatch.h"
#include "platform/extension/app_extension.h"
#include "platform/geometry.h"
#include "platform/ipc/ipc.h"
#include "platform/process/notification_center.h"
#include "platform/system/application_state.h"
#include "platform/system/bundle.h"
#include "platform/system/display_layout.h"
#include "platform/system/system_alert.h"
#include "platform/url.h"
#include "session/recording_session.h"
#include "session/recording_session_delegate.h"
#include "support/recording_errors.h"

namespace sv {

// Background time after which a consent exemption expires (strictly more).
inline constexpr double kAcknowledgementExemptionThreshold = 480.0;
// After the user declined, how long the same application's starts are
// refused without asking again (seconds, the manager's clock).
inline constexpr double kReaskAfterDeclineSeconds = 10.0;
// Requests one application may have waiting while its start waits for the
// user or its last recording is being finished; one more ends its connection.
inline constexpr size_t kMaxHeldRequests = 256;

// One accepted application connection, as the manager keeps it. Manager
// queue only, except the immutable fields.
struct SVClientConnection {
    std::weak_ptr<ipc::Connection> connection;
    pid_t pid = 0;
    std::string bundleID;  // empty: the process lies in no bundle (or is not trusted to name it)
    // Its executable is a trusted one (SVTrustedExecutables): it may start
    // a system recording without asking the user.
    bool trusted = false;
    // The connection has ended, or was replaced by a newer one.
    bool ended = false;
    // A start request of this connection waits for the user's answer.
    std::shared_ptr<SystemAlert> pendingAlert;
    // The application understands recordingWarning: (it sent
    // enableRecordingWarnings on this connection).
    bool acceptsWarnings = false;
    // Its system recordings take the desktop's sound
    // (setSystemRecordingDesktopAudio:); manager queue.
    bool desktopAudio = false;
    // Requests that arrived while the connection was held (see above), in
    // order.
    std::deque<std::function<void()>> heldRequests;
};

// The broadcast record of one host application, stored by a set-up whose
// extension lookup found an extension; immutable once stored.
struct SVBroadcastInfo {
    // The chosen extension ("SVBroadcastInfoExtensionKey").
    std::shared_ptr<AppExtension> extension;
    // "SVBroadcastInfoExtensionProcessModeKey": 0 upload, 1 sample buffers.
    int32_t processMode = 0;
    // "SVBroadcastInfoExtensionUserInfoKey": the application's dictionary, or nothing.
    std::optional<Value> userInfo;
    // "SVBroadcastInfoExtensionConfigurationKey": never null (defaults for
    // absent or undecodable data).
    std::shared_ptr<SVBroadcastConfiguration> configuration;
};

// The process-mode attribute of broadcast extensions and its sample-buffer value.
inline constexpr const char* kSVBroadcastProcessModeAttribute = "SVBroadcastProcessMode";
inline constexpr const char* kSVBroadcastProcessModeSampleBuffer =
    "SVBroadcastProcessModeSampleBuffer";

// How the manager is made (SVRecordingManager::create).
struct SVRecordingManagerOptions {
    // Null: the process's window system and screen.
    std::shared_ptr<SVDaemonPlatform> platform;
    // Where the consent alert's languages come from (the registered
    // agent's); null or without an agent: the daemon's own languages.
    // Alerts themselves go to the process's alert presenter.
    std::shared_ptr<SVConsentAgentRegistry> consentAgents;
    // Whether advanceClockBy is allowed (tests).
    bool adjustableClock = false;
    // Trusted executables and bundle manifests; null: no executable is
    // trusted and every bundle manifest is taken at its word.
    std::shared_ptr<const SVTrustedExecutables> trust;
};

class SVRecordingManager : public ipc::ListenerDelegate,
                           public SVRecordingSessionDelegate,
                           public DisplayLayoutObserver,
                           public std::enable_shared_from_this<SVRecordingManager> {
  public:
    // Called with the movie location (or nothing) and an error (or nothing).
    using StopHandler = std::function<void(std::optional<URL> movieURL, OptionalError error)>;
    // Called with an error (or nothing) and the microphone and camera flags.
    using StartHandler =
        std::function<void(OptionalError error, bool microphoneRecording, bool cameraRecording)>;
    using DiscardHandler = std::function<void()>;
    using SetupHandler = std::function<void(OptionalError error)>;
    // The manager's clock: steady, so exemptions do not expire when the wall
    // clock is set; tests may move it forward (advanceClockBy).
    using Clock = std::chrono::steady_clock;
    using Date = Clock::time_point;

    using Options = SVRecordingManagerOptions;

    // Cache-delete service name under which the purge callbacks register.
    static std::string cacheDeleteServiceName();

    // `init`: builds the manager in the documented order. The listener is
    // created but not resumed.
    static std::shared_ptr<SVRecordingManager> create(Options options = {});
    ~SVRecordingManager() override;

    // Resumes publicListener; called once, after the manager is stored in
    // the process-wide reference.
    void finishStartup();

    // The manager's serial queue.
    const std::shared_ptr<DispatchQueue>& queue() const { return queue_; }
    const std::shared_ptr<SVDaemonPlatform>& platform() const { return platform_; }
    // The trusted executables (null: none).
    const std::shared_ptr<const SVTrustedExecutables>& trust() const { return options_.trust; }

    // The lock-button observer (notification ignored); any thread, returns
    // once the manager has acted.
    void _handleLockButtonWasPressedNotification(const Notification& notification);
    // The user's session is ending (SIGTERM at logout, or the service being
    // stopped): a recording in progress is finished as the lock button
    // finishes it, its client told with the movie. `done` is called once,
    // when that has happened (at once when nothing records), on the queue.
    void finishRecordingsForTermination(std::function<void()> done);

    // Keep-alive: one transaction per recording that got past its checks.
    // On the queue.
    void beginTransaction();
    void endTransaction();

    // Listener delegate, on the listener's queue. Refuses a peer whose
    // process identifier reads as 0 (another PID namespace); accepts anyone
    // else, attaching the application's session (none when its executable
    // lies in no bundle).
    bool listenerShouldAcceptNewConnection(
        ipc::Listener& listener, const std::shared_ptr<ipc::Connection>& connection) override;
    // The bundle enclosing the executable of `pid`, or null. Any thread.
    static std::shared_ptr<Bundle> bundleWithPID(pid_t pid);
    // The application identity of the process `pidfd` describes (number
    // `pid`): its trusted bundle's identifier, "" for none; with it, whether
    // its executable is a trusted one. Reads the file system; any thread.
    std::pair<std::string, bool> identityOfProcess(pid_t pid, int pidfd) const;
    // On the queue: the application of `client` went away.
    void applicationDisconnectedWithBundleID(const std::shared_ptr<SVClientConnection>& client);

    // --- Session registry (on the queue) ---------------------------------
    // The registered session of `bundleID`, created on demand; null for an
    // empty identifier.
    std::shared_ptr<SVRecordingSession> recordingSessionForBundleID(const std::string& bundleID);
    void removeSessionForBundleID(const std::string& bundleID);
    // Finishes every registered session but `starting` that records.
    void interruptOtherRecordingSessions(const std::shared_ptr<SVRecordingSession>& starting);
    // The session of `client`'s application (null without a bundle).
    std::shared_ptr<SVRecordingSession> sessionOfClient(const SVClientConnection& client);
    // The session that records: the current one when it does, else the
    // registered one that does; null when none records.
    std::shared_ptr<SVRecordingSession> recordingSession() const;

    // --- SVDaemonProtocol (on the queue; `client` made the request) ------
    void startRecordingWindowLayerContextIDs(const std::shared_ptr<SVClientConnection>& client,
                                             std::vector<uint32_t> contextIDs,
                                             WindowSize windowSize, bool microphoneEnabled,
                                             bool cameraEnabled, bool broadcast,
                                             bool systemRecording, StartHandler handler);
    // Looks up the broadcast extension (asynchronously), makes the caller's
    // session current and answers at once with no error, found or not. The
    // record is stored when the lookup finds an extension; the caller's
    // further requests wait for the lookup, so a start right after the
    // set-up sees its record. A host other than the caller is refused.
    void setupBroadcastWithHostBundleID(const std::shared_ptr<SVClientConnection>& client,
                                        const std::string& hostBundleID,
                                        const std::string& extensionBundleID,
                                        std::optional<Bytes> configurationData,
                                        std::optional<Value> userInfo, SetupHandler handler);
    // The extension lookup: walks the broadcast-services extensions in the
    // platform's order, skips those with a main interface and calls
    // `handler` with the first whose identifier begins with `baseIdentifier`
    // and its process mode; `notFound` (may be null) otherwise. Both run on
    // a global queue; an empty base finds nothing.
    using LookupHandler = std::function<void(std::shared_ptr<AppExtension>, int32_t processMode)>;
    static void loadBroadcastUploadExtensionWithBaseIdentifier(const std::string& baseIdentifier,
                                                               LookupHandler handler,
                                                               std::function<void()> notFound);
    // The identifier without its last dot-separated component ("" without a dot).
    static std::string broadcastBaseIdentifier(const std::string& extensionBundleID);
    // SVRecordingSessionDelegate's service information, on the queue: to
    // the client of the current session.
    void broadcastSessionDidUpdateServiceInfo(const Value& serviceInfo);
    void stopRecordingWithHandler(const std::shared_ptr<SVClientConnection>& client,
                                  StopHandler handler);
    void stopRecordingWithStartClipDuration(const std::shared_ptr<SVClientConnection>& client,
                                            double startClipDuration, double endClipDuration,
                                            StopHandler handler);
    void pauseRecording(const std::shared_ptr<SVClientConnection>& client);
    void resumeRecordingWithWindowLayerContextID(const std::shared_ptr<SVClientConnection>& client,
                                                 uint32_t contextID);
    void setMicrophoneEnabled(const std::shared_ptr<SVClientConnection>& client, bool enabled);
    void discardRecordingWithHandler(const std::shared_ptr<SVClientConnection>& client,
                                     DiscardHandler handler);
    void clientDidBecomeActiveWithBundleID(const std::shared_ptr<SVClientConnection>& client,
                                           const std::string& bundleID);
    void clientDidResignActiveWithBundleID(const std::shared_ptr<SVClientConnection>& client,
                                           const std::string& bundleID);

    // --- Recording control (on the queue) --------------------------------
    // The stop without a client: logs the two stop lines and stops `session`.
    void stopRecordingWithHandler(const std::shared_ptr<SVRecordingSession>& session,
                                  StopHandler handler);
    void stopRecordingSession(const std::shared_ptr<SVRecordingSession>& session,
                              double startClipDuration, double endClipDuration,
                              StopHandler handler);
    void resetStatesForSession(const std::shared_ptr<SVRecordingSession>& session);
    // SVRecordingSessionDelegate, for the current session. Sessions report
    // through a delegate of their own (the manager then knows which one
    // stopped); any thread, posted to the queue.
    void recordingSessionStoppedWithError(const Error& error,
                                          const std::optional<URL>& movieURL) override;
    // Tells the application of `session` (the current one when null).
    void recordingSessionStoppedWithError(const OptionalError& error,
                                          const std::optional<URL>& movieURL,
                                          std::shared_ptr<SVRecordingSession> session = nullptr);
    void recordingSessionInterrupted(const std::shared_ptr<SVRecordingSession>& session,
                                     const OptionalError& error,
                                     const std::optional<URL>& movieURL);

    // Hears of the audio server of the recordings going away and coming
    // back, from the first recording on; idempotent. On the queue.
    void watchAudioServer();
    // The audio server went away (false) or is back (true): the recording's
    // application is warned when it asked for warnings. On the queue.
    void audioServerChanged(bool available);
    // Manager queue: a source of the current recording could not start.
    void audioSourceUnavailable(SVCaptureManager::Source source, int32_t status);

    // --- Consent (on the queue) ------------------------------------------
    // What the user allowed for one request.
    struct ConsentAnswer {
        bool allowed = false;
        bool microphone = false;
        bool camera = false;
    };
    // Asks the user about `session`'s recording unless it is exempt. The
    // question is about the sources asked for when it is called (the
    // manager's microphone and camera flags at that moment): other
    // applications' starts while the user thinks change nothing of it.
    // `completion` (on the queue) gets whether the recording may go ahead
    // and with which of those sources. The alert is kept in `client` until
    // answered.
    // A system recording asked for by an untrusted process is asked about
    // every time (`systemRecording`): no exemption answers for it and its
    // answer exempts nothing. After a decline the same application is not
    // asked again for kReaskAfterDeclineSeconds (refused at once), and the
    // consent agent's own process is never asked about its own recording.
    void showAcknowledgementAlert(const std::shared_ptr<SVClientConnection>& client,
                                  const std::shared_ptr<SVRecordingSession>& session,
                                  bool systemRecording,
                                  std::function<void(ConsentAnswer answer)> completion);
    bool isExemptFromAcknowledgementAlert(const std::shared_ptr<SVRecordingSession>& session);
    // Exempts `session`'s application, with the microphone when `microphone`.
    void updateExemptionList(const std::shared_ptr<SVRecordingSession>& session, bool microphone);
    void expireAcknowledgementExemptionsForBundleID(const std::string& bundleID);

    // --- Foreground (on the queue, except the observer) --------------------
    // DisplayLayoutObserver, on the monitor's queue: posted to the queue.
    void layoutMonitorDidUpdateDisplayLayout(
        DisplayLayoutMonitor& monitor, const DisplayLayout& layout,
        const DisplayLayoutTransitionContext& context) override;
    void layoutMonitorDidUpdateDisplayLayout(const DisplayLayout& layout);
    bool isApplicationInForegroundWithBundleIdentifier(const std::string& bundleID) const;
    // Calls `handler` on the queue with the process whose audio `session`
    // records: the client's for an application recording (at once), the
    // frontmost application's for a system recording (-1 when none).
    void frontmostApplicationPID(const std::shared_ptr<SVRecordingSession>& session,
                                 std::function<void(int32_t pid)> handler);

    // --- Purgeable space --------------------------------------------------
    // The callbacks as registered; only the purge callback needs the
    // manager, and it returns once the manager has acted. The cancel
    // callback does nothing.
    static int64_t purgeableSpaceCallback(int32_t urgency);
    int64_t purgeCallback(int64_t amount, int32_t urgency);
    static int64_t periodicCallback(int64_t amount, int32_t urgency);

    // --- Clock --------------------------------------------------------------
    Date now() const;
    // Moves the clock forward by `seconds` (>= 0); an error unless the
    // manager was made with adjustableClock. Any thread.
    OptionalError advanceClockBy(double seconds);

    // --- Status for the shell channel (any thread; waits for the queue) ---
    // The recording of the application of process `pid`: null when its
    // process lies in no bundle or the application has no session.
    Value recordingStatusForProcess(pid_t pid);

    // --- Fields, in declared order (on the queue) ---------------------------
    bool isMicrophoneRecording() const { return microphoneRecording_; }
    void setMicrophoneRecording(bool v) { microphoneRecording_ = v; }
    bool isCameraRecording() const { return cameraRecording_; }
    void setCameraRecording(bool v) { cameraRecording_ = v; }
    const std::shared_ptr<ipc::Listener>& publicListener() const { return publicListener_; }
    void setPublicListener(std::shared_ptr<ipc::Listener> l) { publicListener_ = std::move(l); }
    // The set that exemption checks use: the with-microphone set while
    // microphoneRecording is true, the plain one otherwise.
    std::set<std::string>& exemptBundleIdentifiers() {
        return microphoneRecording_ ? exemptWithMicRecordingEnabledBundleIdentifiers_
                                    : exemptBundleIdentifiers_;
    }
    void setExemptBundleIdentifiers(std::set<std::string> s) {
        exemptBundleIdentifiers_ = std::move(s);
    }
    std::set<std::string>& exemptWithMicRecordingEnabledBundleIdentifiers() {
        return exemptWithMicRecordingEnabledBundleIdentifiers_;
    }
    std::map<std::string, Date>& lastBackgroundDateByBundleIdentifier() {
        return lastBackgroundDateByBundleIdentifier_;
    }
    std::map<std::string, std::shared_ptr<SVRecordingSession>>& bundleIDToRecordingSessionLookup() {
        return bundleIDToRecordingSessionLookup_;
    }
    std::map<std::string, std::shared_ptr<const SVBroadcastInfo>>&
    hostBundleIDtoExtensionInfoLookup() {
        return hostBundleIDtoExtensionInfoLookup_;
    }
    const std::shared_ptr<SVRecordingSession>& currentRecordingSession() const {
        return currentRecordingSession_;
    }
    void setCurrentRecordingSession(std::shared_ptr<SVRecordingSession> s) {
        currentRecordingSession_ = std::move(s);
    }
    const std::shared_ptr<DisplayLayoutMonitor>& layoutMonitor() const { return layoutMonitor_; }
    int32_t previousElementCount() const { return previousElementCount_; }
    void setPreviousElementCount(int32_t v) { previousElementCount_ = v; }
    const std::shared_ptr<ApplicationStateMonitor>& applicationStateMonitor() const {
        return applicationStateMonitor_;
    }

  private:
    bool watchingAudioServer_ = false;
    class SessionDelegate;
    class ManagerThread;
    // What the manager keeps about one session besides the session itself.
    struct SessionBook {
        std::shared_ptr<SVRecordingSessionDelegate> delegate;
        // Recordings started (past the checks) so far; the keep-alive
        // transaction each holds until its end.
        uint64_t generation = 0;
        std::set<uint64_t> openTransactions;
        // Whether the current recording may use the microphone (the user's
        // answer, or the exemption it went by).
        bool microphoneAllowed = false;
        // Finishes and clean-ups in flight; the application's requests wait
        // for them (a start would reuse the movie's file name).
        int finishing = 0;
    };

    explicit SVRecordingManager(Options options);
    void init();

    // Runs `request` for `client` now, or later when the client is held.
    void submit(const std::shared_ptr<SVClientConnection>& client, std::function<void()> request);
    bool isHeld(const SVClientConnection& client);
    // Runs the held requests of the clients of `bundleID` that are free now.
    void releaseHeldRequests(const std::string& bundleID);
    std::shared_ptr<SVClientConnection> clientOfBundle(const std::string& bundleID) const;
    std::shared_ptr<ipc::ExportedObject> makeExportedObject(
        const std::shared_ptr<SVClientConnection>& client);
    // The client behind `connection`, identified from its peer process; null
    // for a peer whose process identifier reads as 0. Reads the file system:
    // on the listener's queue, never the manager's.
    std::shared_ptr<SVClientConnection> identifyClient(
        const std::shared_ptr<ipc::Connection>& connection) const;
    // On the queue: exports the daemon's protocol on the client's connection,
    // whose end reaches applicationDisconnectedWithBundleID.
    void exportDaemonProtocol(const std::shared_ptr<SVClientConnection>& client,
                              const std::shared_ptr<ipc::Connection>& connection);
    // On the queue: the client becomes the one of its application's session;
    // an older connection of the application is replaced without the
    // handlers of a disconnect.
    void attachClientToSession(const std::shared_ptr<SVClientConnection>& client,
                               const std::shared_ptr<ipc::Connection>& connection,
                               const std::shared_ptr<SVRecordingSession>& session);

    SessionBook& book(const std::shared_ptr<SVRecordingSession>& session);
    // The number of the session's latest recording (0: none, or no book).
    uint64_t generationOf(const std::shared_ptr<SVRecordingSession>& session) const;
    void beginFinishing(const std::shared_ptr<SVRecordingSession>& session);
    void endFinishing(const std::shared_ptr<SVRecordingSession>& session);
    void closeTransaction(const std::shared_ptr<SVRecordingSession>& session, uint64_t generation);
    void sessionStoppedWithError(const std::shared_ptr<SVRecordingSession>& session,
                                 const Error& error, const std::optional<URL>& movieURL);
    void continueStart(const std::shared_ptr<SVClientConnection>& client,
                       const std::shared_ptr<SVRecordingSession>& session,
                       std::vector<uint32_t> contextIDs, WindowSize windowSize, bool broadcast,
                       bool systemRecording, StartHandler handler);
    void startFollowingFrontmostApplication();
    void applicationStateDidChange(const Value& info);
    // Drops the book of a session that left the registry and holds nothing.
    void pruneBook(const std::shared_ptr<SVRecordingSession>& session);

    // Fields, in declared order.
    bool microphoneRecording_ = false;
    bool cameraRecording_ = false;
    std::shared_ptr<ipc::Listener> publicListener_;
    std::set<std::string> exemptBundleIdentifiers_;
    std::set<std::string> exemptWithMicRecordingEnabledBundleIdentifiers_;
    std::map<std::string, Date> lastBackgroundDateByBundleIdentifier_;
    std::map<std::string, std::shared_ptr<SVRecordingSession>> bundleIDToRecordingSessionLookup_;
    std::map<std::string, std::shared_ptr<const SVBroadcastInfo>>
        hostBundleIDtoExtensionInfoLookup_;
    std::shared_ptr<SVRecordingSession> currentRecordingSession_;
    std::shared_ptr<DisplayLayoutMonitor> layoutMonitor_;
    int32_t previousElementCount_ = 0;
    std::shared_ptr<ApplicationStateMonitor> applicationStateMonitor_;

    // Implementation state.
    Options options_;
    std::shared_ptr<SVDaemonPlatform> platform_;
    std::unique_ptr<ManagerThread> thread_;
    std::shared_ptr<DispatchQueue> queue_;
    std::atomic<int64_t> clockOffsetNanoseconds_{0};
    // The newest connection of each application (bundle identifier).
    std::map<std::string, std::shared_ptr<SVClientConnection>> clients_;
    // When the user last declined each application's recording.
    std::map<std::string, Date> lastDeclineDateByBundleIdentifier_;
    // Registered sessions, and removed ones still finishing or holding a
    // transaction.
    std::map<std::shared_ptr<SVRecordingSession>, SessionBook> books_;
};

// The process-wide reference to the one manager (null before start-up).
std::shared_ptr<SVRecordingManager> sharedRecordingManager();
// The start-up function: creates the manager, stores it in the process-wide
// reference (releasing any previous one) and sends it finishStartup.
void startRecordingManager(SVRecordingManager::Options options = {});

}  // namespace sv
