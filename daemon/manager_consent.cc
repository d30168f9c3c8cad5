// SVRecordingManager: the consent alert and its exemptions. The alert is
// shown through the process's alert presenter (the registered consent agent
// in the daemon) in the agent's languages, and answered without holding the
// manager's queue: the start request waits, its application's later
// requests wait behind it, everything else goes on.
#include "daemon/recording_manager.h"
#include "platform/log.h"
#include "platform/system/languages.h"
#include "support/localization.h"

namespace sv {
namespace {

// The alert's texts in the first of `languages` whose table has them, else
// in the daemon's own languages.
class AlertTexts {
  public:
    AlertTexts(std::vector<std::string> languages, std::string bundleID)
        : languages_(std::move(languages)), bundleID_(std::move(bundleID)) {}

    std::string string(const char* key) const {
        for (const auto& language : languages_) {
            for (const auto& l : {language, baseLanguage(language)}) {
                auto table = localizedDictionaryForLanguage(l);
                if (!table) continue;
                if (auto s = stringAt(*table, key)) return *s;
            }
        }
        return _svLocalizedStringFromFrameworkBundleWithKey(key, bundleID_).value_or(key);
    }

    // The application's display name in the first of the languages its
    // bundle has a name for, else as the daemon names it; "(null)" for an
    // application the platform does not know.
    std::string appName() const {
        auto bundle = Bundle::bundleWithIdentifier(bundleID_);
        if (!bundle) return "(null)";
        if (const Value* localized = dictAt(bundle->infoDictionary(), kLocalizedInfoKey)) {
            for (const auto& language : languages_) {
                for (const auto& l : {language, baseLanguage(language)}) {
                    if (const Value* entry = dictAt(*localized, l.c_str()))
                        if (auto name = stringAt(*entry, kBundleDisplayNameKey)) return *name;
                }
            }
        }
        return _svLocalizedAppName(*bundle);
    }

  private:
    std::vector<std::string> languages_;
    std::string bundleID_;
};

}  // namespace

void SVRecordingManager::showAcknowledgementAlert(
    const std::shared_ptr<SVClientConnection>& client,
    const std::shared_ptr<SVRecordingSession>& session, bool systemRecording,
    std::function<void(ConsentAnswer answer)> completion) {
    log::info("SVRecordingManager:showAcknowledgementAlert");
    const bool microphone = isMicrophoneRecording(), camera = isCameraRecording();
    if (!systemRecording && isExemptFromAcknowledgementAlert(session)) {
        completion({true, microphone, camera});
        return;
    }
    const std::string bundleID = session->bundleID();
    if (auto it = lastDeclineDateByBundleIdentifier_.find(bundleID);
        it != lastDeclineDateByBundleIdentifier_.end()) {
        const double since = std::chrono::duration<double>(now() - it->second).count();
        if (since < kReaskAfterDeclineSeconds) {
            static log::RateLimit limit;
            log::error(limit,
                       "SVRecordingManager: %@ asked again %f s after the user declined; refused "
                       "without asking",
                       bundleID, since);
            completion({});
            return;
        }
        lastDeclineDateByBundleIdentifier_.erase(it);
    }
    // The consent agent answers for the user, never for itself.
    if (options_.consentAgents && options_.consentAgents->agentProcessIdentifier() == client->pid) {
        log::error(
            "SVRecordingManager: %@ (pid %i) is the consent agent; it cannot answer for "
            "its own recording",
            bundleID, int32_t(client->pid));
        completion({});
        return;
    }
    AlertTexts texts(options_.consentAgents ? options_.consentAgents->preferredLanguages()
                                            : std::vector<std::string>{},
                     bundleID);
    const std::string title =
        log::format(texts.string("ACKNOWLEDGEMENT_ALERT_TITLE"), texts.appName());
    std::string message = texts.string("ACKNOWLEDGEMENT_ALERT_BODY");
    if (camera)
        message += " " + texts.string("ACKNOWLEDGEMENT_ALERT_BODY_CAMERA");
    else if (microphone)
        message += " " + texts.string("ACKNOWLEDGEMENT_ALERT_BODY_MIC");
    const std::string decline = texts.string("ACKNOWLEDGEMENT_ALERT_DECLINE_BUTTON");
    std::optional<std::string> alternate, other;
    if (microphone || camera) {
        alternate = texts.string(camera ? "ACKNOWLEDGEMENT_ALERT_ACCEPT_BUTTON_1_CAMERA"
                                        : "ACKNOWLEDGEMENT_ALERT_ACCEPT_BUTTON_1");
        other = texts.string("ACKNOWLEDGEMENT_ALERT_ACCEPT_BUTTON_2");
    } else {
        other = texts.string("ACKNOWLEDGEMENT_ALERT_ACCEPT_BUTTON_1_MICROPHONE_DISABLED");
    }
    std::string why;
    auto alert =
        SystemAlert::create(title, message, decline, alternate, other, kAlertLevelDefault, &why);
    if (!alert) {
        log::error("error showing acknowledgement alert");
        completion({});
        return;
    }
    // The alert lives with the request until answered; the client's later
    // requests wait behind it. A client that goes away cancels it.
    client->pendingAlert = alert;
    std::weak_ptr<SVRecordingManager> weak = weak_from_this();
    alert->notifyOnResponse([weak, client, session, alert = alert.get(), microphone, camera,
                             systemRecording,
                             completion = std::move(completion)](AlertResponse response) {
        auto self = weak.lock();
        if (!self) return;
        self->queue_->async([self, client, session, alert, response, microphone, camera,
                             systemRecording, completion] {
            if (client->pendingAlert.get() == alert) client->pendingAlert.reset();
            ConsentAnswer answer{false, microphone, camera};
            switch (response) {
                case AlertResponse::Alternate:
                    log::info("user acknowledged recording");
                    answer.allowed = true;
                    break;
                case AlertResponse::Other:
                    if (camera) {
                        log::info("user acknowledged recording, but camera recording is disabled");
                        answer.camera = false;
                    } else {
                        log::info(
                            "user acknowledged recording, but microphone recording is disabled");
                    }
                    answer.microphone = false;
                    answer.allowed = true;
                    break;
                case AlertResponse::Default:
                case AlertResponse::Cancelled:
                    log::info("user refused recording");
                    // Only the user's own decline holds the next question
                    // back; a question withdrawn or left by a vanished agent
                    // does not.
                    if (response == AlertResponse::Default)
                        self->lastDeclineDateByBundleIdentifier_[session->bundleID()] = self->now();
                    break;
            }
            if (answer.allowed && !systemRecording)
                self->updateExemptionList(session, answer.microphone);
            completion(answer);
        });
    });
}

bool SVRecordingManager::isExemptFromAcknowledgementAlert(
    const std::shared_ptr<SVRecordingSession>& session) {
    return exemptBundleIdentifiers().count(session->bundleID()) > 0;
}

void SVRecordingManager::updateExemptionList(const std::shared_ptr<SVRecordingSession>& session,
                                             bool microphone) {
    const std::string bundleID = session->bundleID();
    if (microphone) exemptWithMicRecordingEnabledBundleIdentifiers_.insert(bundleID);
    exemptBundleIdentifiers_.insert(bundleID);
}

void SVRecordingManager::expireAcknowledgementExemptionsForBundleID(const std::string& bundleID) {
    if (bundleID.empty()) return;
    log::info("SVRecordingManager:removeAcknowledgementExemptionIfOverThreshholdForBundleID:");
    auto it = lastBackgroundDateByBundleIdentifier_.find(bundleID);
    if (it == lastBackgroundDateByBundleIdentifier_.end()) return;
    const double inBackground = std::chrono::duration<double>(now() - it->second).count();
    if (inBackground <= kAcknowledgementExemptionThreshold) return;
    // Both sets: an application long in the background is asked again
    // whatever it records, also when the last start asked for the
    // microphone (the switching getter would then leave the plain set).
    exemptBundleIdentifiers().erase(bundleID);
    exemptWithMicRecordingEnabledBundleIdentifiers_.erase(bundleID);
    exemptBundleIdentifiers_.erase(bundleID);
    log::info("removedExemption");
    lastBackgroundDateByBundleIdentifier_.erase(it);
}

}  // namespace sv
