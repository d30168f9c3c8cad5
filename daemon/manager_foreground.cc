// SVRecordingManager: foreground tracking. The applications' activity
// reports, display layout changes, the foreground check of the start request
// and the process whose audio a recording taps (following the frontmost
// application during a system recording).
#include <algorithm>
#include <climits>

#include "daemon/recording_manager.h"
#include "platform/log.h"

namespace sv {
namespace {

// The process identifier of an application-state information dictionary.
int32_t pidOfInfo(const Value& info) {
    auto pid = intAt(info, kApplicationInfoPIDKey);
    return pid && *pid >= INT32_MIN && *pid <= INT32_MAX ? int32_t(*pid) : -1;
}

}  // namespace

void SVRecordingManager::clientDidBecomeActiveWithBundleID(
    const std::shared_ptr<SVClientConnection>& client, const std::string& bundleID) {
    log::info("SVRecordingManager:clientDidBecomeActiveWithBundleID:");
    if (bundleID.empty() || bundleID != client->bundleID) {
        // An application speaks for itself only: another's report would
        // make that one current or move its exemptions.
        static log::RateLimit limit;
        log::error(limit, "SVRecordingManager: pid %i reported %@ active, not its own; dropped",
                   int32_t(client->pid), bundleID);
        return;
    }
    auto session = recordingSessionForBundleID(bundleID);
    setCurrentRecordingSession(session);
    expireAcknowledgementExemptionsForBundleID(bundleID);
    // An application whose recording another application's start ended got
    // that movie at once; once it records again, coming back to the
    // foreground tells it, once, that the earlier movie was cut short by
    // another application. A session that does not record keeps the movie
    // for that moment.
    if (auto movie = session->interruptedMovieURL(); movie && session->isRecording()) {
        log::info("current session was interrupted - notify client app of error");
        recordingSessionStoppedWithError(
            _svUserErrorForCode(kSVRecordingErrorInterruptedByOtherApp), movie, session);
        session->setInterruptedMovieURL(std::nullopt);
    }
}

void SVRecordingManager::clientDidResignActiveWithBundleID(
    const std::shared_ptr<SVClientConnection>& client, const std::string& bundleID) {
    log::info("SVRecordingManager:clientDidResignActiveWithBundleID:");
    if (bundleID.empty() || bundleID != client->bundleID) {
        static log::RateLimit limit;
        log::error(limit, "SVRecordingManager: pid %i reported %@ inactive, not its own; dropped",
                   int32_t(client->pid), bundleID);
        return;
    }
    if (!currentRecordingSession_ || currentRecordingSession_->bundleID() != bundleID) return;
    lastBackgroundDateByBundleIdentifier_.try_emplace(bundleID, now());
}

void SVRecordingManager::layoutMonitorDidUpdateDisplayLayout(
    DisplayLayoutMonitor&, const DisplayLayout& layout, const DisplayLayoutTransitionContext&) {
    std::weak_ptr<SVRecordingManager> weak = weak_from_this();
    queue_->async([weak, layout] {
        if (auto self = weak.lock()) self->layoutMonitorDidUpdateDisplayLayout(layout);
    });
}

void SVRecordingManager::layoutMonitorDidUpdateDisplayLayout(const DisplayLayout& layout) {
    const int32_t previous = previousElementCount();
    const size_t count = layout.elementCount();
    bool interrupt = false;
    int32_t newCount = 0;
    if (previous > 1 && count == 1) {
        interrupt = true;
    } else if (count == 1) {
        interrupt = false;
    } else {
        newCount = int32_t(layout.countBelowSharedLevel());
        interrupt = std::none_of(
            layout.elements.begin(), layout.elements.end(),
            [](const DisplayLayoutElement& e) { return e.level >= kDisplayLayoutSharedLevel; });
    }
    setPreviousElementCount(newCount);
    if (!interrupt) return;
    auto session = recordingSession();
    if (!session || session->isSystemRecording()) return;
    if (!platform_->isSynthetic()) {
        // A desktop application's recording shows its own windows and
        // nothing else, at their own size: another window on top, a
        // minimised window or another workspace change nothing that the
        // movie shows, so the layout ends no recording (the picture pauses
        // while the windows are hidden; a destroyed window ends it).
        log::debug("SVRecordingManager: display layout %@ on a desktop keeps the recording of %@",
                   layout.description(), session->bundleID());
        return;
    }
    log::info("SVRecordingManager: display layout %@ interrupts the recording of %@",
              layout.description(), session->bundleID());
    const uint64_t generation = generationOf(session);
    beginFinishing(session);
    std::weak_ptr<SVRecordingManager> weak = weak_from_this();
    const bool taken = session->finishSessionWithHandler(
        [weak, session, generation](std::optional<URL> movieURL, OptionalError) {
            auto self = weak.lock();
            if (!self) return;
            self->queue_->async([self, session, generation, movieURL] {
                self->recordingSessionStoppedWithError(
                    _svUserErrorForCode(kSVRecordingErrorContentResized), movieURL, session);
                // The session is not reset here; the recording's keep-alive
                // transaction ends with it all the same.
                self->closeTransaction(session, generation);
                self->endFinishing(session);
            });
        });
    // Stopped itself on a capture failure an instant ago: its own report
    // tells the application.
    if (!taken) endFinishing(session);
}

bool SVRecordingManager::isApplicationInForegroundWithBundleIdentifier(
    const std::string& bundleID) const {
    if (bundleID.empty() || !applicationStateMonitor_) return false;
    return (applicationStateMonitor_->applicationStateForApplication(bundleID) &
            kApplicationStateForeground) != 0;
}

void SVRecordingManager::frontmostApplicationPID(const std::shared_ptr<SVRecordingSession>& session,
                                                 std::function<void(int32_t pid)> handler) {
    if (!session->isSystemRecording()) {
        auto proxy = session->clientProxy();
        handler(proxy ? int32_t(proxy->processIdentifier()) : -1);
        return;
    }
    auto frontmost = platform_->frontmostApplicationBundleIdentifier();
    if (!frontmost || !applicationStateMonitor_) {
        handler(-1);
        return;
    }
    std::weak_ptr<SVRecordingManager> weak = weak_from_this();
    applicationStateMonitor_->applicationInfoForApplication(
        *frontmost, [weak, handler = std::move(handler)](Value info) {
            auto self = weak.lock();
            if (!self) return;
            const int32_t pid = pidOfInfo(info);
            self->queue_->async([handler, pid] { handler(pid); });
        });
}

void SVRecordingManager::startFollowingFrontmostApplication() {
    if (!applicationStateMonitor_) return;
    std::weak_ptr<SVRecordingManager> weak = weak_from_this();
    applicationStateMonitor_->setChangeHandler([weak](const Value& info) {
        if (auto self = weak.lock())
            self->queue_->async([self, info] { self->applicationStateDidChange(info); });
    });
}

void SVRecordingManager::applicationStateDidChange(const Value& info) {
    auto session = recordingSession();
    if (!session || !session->isSystemRecording()) return;
    const int32_t pid = pidOfInfo(info);
    const bool frontmost = boolAt(info, kApplicationInfoFrontmostKey).value_or(false);
    if (frontmost)
        session->updateAudioCaptureToProcessWithPID(pid);
    else if (pid == session->frontmostPIDForAudioTap())
        session->updateAudioCaptureToProcessWithPID(-1);
}

}  // namespace sv
