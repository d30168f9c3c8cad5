// Messages of the client library's own error domain, and the conversion of
// the service's error values into the public form.
#include <string_view>
#include <utility>

#include "client/recorder_internal.h"
#include "sorvel/recorder_error.h"
#include "support/localization.h"
#include "support/recording_errors.h"

// The public header mirrors the service's codes: one list, checked here.
static_assert(std::string_view(sv::SVRecorderError::kRecordingDomain) ==
              sv::kSVRecordingErrorDomain);
#define SV_SAME_CODE(pub, internal) \
    static_assert(int64_t(sv::SVRecorderError::pub) == int64_t(sv::internal))
SV_SAME_CODE(kRecordingUnknown, kSVRecordingErrorUnknown);
SV_SAME_CODE(kRecordingUserDeclined, kSVRecordingErrorUserDeclined);
SV_SAME_CODE(kRecordingRestricted, kSVRecordingErrorRestricted);
SV_SAME_CODE(kRecordingFailedToStart, kSVRecordingErrorFailedToStart);
SV_SAME_CODE(kRecordingFailedDuringRecording, kSVRecordingErrorFailedDuringRecording);
SV_SAME_CODE(kRecordingInsufficientStorage, kSVRecordingErrorInsufficientStorage);
SV_SAME_CODE(kRecordingInterruptedByOtherApp, kSVRecordingErrorInterruptedByOtherApp);
SV_SAME_CODE(kRecordingInterruptedByLayoutChange, kSVRecordingErrorContentResized);
SV_SAME_CODE(kRecordingBroadcastFailed, kSVRecordingErrorBroadcast);
SV_SAME_CODE(kRecordingLockButton, kSVRecordingErrorLocked);
#undef SV_SAME_CODE

namespace sv {
namespace {

struct ClientMessage {
    SVRecorderError::ClientCode code;
    const char* key;      // in the client framework's string tables
    const char* english;  // when no table has the key
};

constexpr ClientMessage kClientMessages[] = {
    {SVRecorderError::kClientServiceNotRunning, "RECORDER_CLIENT_ERROR_SERVICE_NOT_RUNNING",
     "The screen recording service is not running."},
    {SVRecorderError::kClientConnectionInterrupted, "RECORDER_CLIENT_ERROR_CONNECTION_INTERRUPTED",
     "The connection to the screen recording service was interrupted."},
    {SVRecorderError::kClientRequestQueueFull, "RECORDER_CLIENT_ERROR_REQUEST_QUEUE_FULL",
     "The screen recording service is not accepting requests; the request was not sent."},
    {SVRecorderError::kClientRequestRejected, "RECORDER_CLIENT_ERROR_REQUEST_REJECTED",
     "The request could not be sent to the screen recording service."},
    {SVRecorderError::kClientInvalidReply, "RECORDER_CLIENT_ERROR_INVALID_REPLY",
     "The screen recording service sent an answer that could not be read."},
    {SVRecorderError::kClientInvalidated, "RECORDER_CLIENT_ERROR_INVALIDATED",
     "The request was cancelled because the recorder was closed."},
    {SVRecorderError::kClientInvalidArgument, "RECORDER_CLIENT_ERROR_INVALID_ARGUMENT",
     "The request has an argument that cannot be sent."},
};

}  // namespace

SVRecorderError SVRecorderError::clientError(ClientCode code) {
    std::string message = "Unknown error";
    for (const auto& m : kClientMessages) {
        if (m.code != code) continue;
        message = m.english;
        // The table lookup answers the key itself when no table has it.
        auto localized = _svLocalizedStringFromFrameworkBundleWithKey(m.key, "");
        if (localized && !localized->empty() && *localized != m.key) message = *localized;
        break;
    }
    return SVRecorderError{kClientDomain, code, std::move(message)};
}

namespace client {

SVRecorderError publicError(const Error& error) {
    SVRecorderError e{error.domain, error.code, error.localizedDescription().value_or("")};
    if (e.localizedDescription.empty()) {
        // The broadcast set-up error comes without a message; give every
        // error the standard text of its code so that users see something.
        e.localizedDescription = error.domain == kSVRecordingErrorDomain
                                     ? recordingErrorMessage(error.code)
                                     : "Unknown error";
    }
    return e;
}

}  // namespace client
}  // namespace sv
