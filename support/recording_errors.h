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

// The recording-error factory: a copy of `userInfo` (or an empty dictionary)
// with the code's message set as its localized description; the caller's
// dictionary is never modified and its other entries are kept.
Error _svUserErrorForCode(int64_t code, const Value* userInfo = nullptr);

// The fixed message of a code ("Unknown recording error" for codes outside
// the table).
const char* recordingErrorMessage(int64_t code);

}  // namespace sv
