// Error values. Every failure the daemon reports to a client application is a
// recording error: domain "org.sorvel.SVRecordingErrorDomain", a code from
// -5800 to -5809 and a fixed English message under the localized-description
// key of its user info.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "platform/error.h"

namespace sv {

inline constexpr const char* kSVRecordingErrorDomain = "org.sorvel.SVRecordingErrorDomain";

// Every code of the domain, for the daemon, the session and (mirrored with
// a check in client/recorder_error.cc) the client library's public header.
enum SVRecordingErrorCode : int64_t {
    kSVRecordingErrorUnknown = -5800,                // capture source preempted
    kSVRecordingErrorUserDeclined = -5801,           // the user refused the consent alert
    kSVRecordingErrorRestricted = -5802,             // not raised by this service
    kSVRecordingErrorFailedToStart = -5803,          // not in the foreground, nothing to record
    kSVRecordingErrorFailedDuringRecording = -5804,  // screen capture failed
    kSVRecordingErrorInsufficientStorage = -5805,    // free space, a full disk
    kSVRecordingErrorInterruptedByOtherApp = -5806,  // another application's start
    kSVRecordingErrorContentResized = -5807,         // the display layout changed
    kSVRecordingErrorBroadcast = -5808,              // broadcast set-up or link failed
    kSVRecordingErrorLocked = -5809,                 // the lock button, the session ended
};

// The recording-error factory: a copy of `userInfo` (or an empty dictionary)
// with the code's message set as its localized description; the caller's
// dictionary is never modified and its other entries are kept.
Error _svUserErrorForCode(int64_t code, const Value* userInfo = nullptr);

// The fixed message of a code ("Unknown recording error" for codes outside
// the table).
const char* recordingErrorMessage(int64_t code);

}  // namespace sv
