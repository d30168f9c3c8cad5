// Error values. Every failure the daemon reports to a client application is a
// recording error: domain "org.sorvel.SVRecordingErrorDomain", a code from
// -5800 to -5809 and a fixed English message under the localized-description
// key of its user info.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "platform/value.h"

namespace sv {

inline constexpr const char* kSVRecordingErrorDomain = "org.sorvel.SVRecordingErrorDomain";
// The user-info key of an error's human-readable message.
inline constexpr const char* kLocalizedDescriptionKey = "SVLocalizedDescription";

struct Error {
    std::string domain;
    int64_t code = 0;
    Value userInfo = Value::object();

    // The message under kLocalizedDescriptionKey, or nullopt.
    std::optional<std::string> localizedDescription() const;
    std::string description() const;

    // Wire form {"domain", "code", "userInfo"} and back (nullopt for a value
    // that is not such a record).
    Value toValue() const;
    static std::optional<Error> fromValue(const Value& v);

    friend bool operator==(const Error&, const Error&) = default;
};

// "error or nothing"
using OptionalError = std::optional<Error>;

// The recording-error factory: a copy of `userInfo` (or an empty dictionary)
// with the code's message set as its localized description; the caller's
// dictionary is never modified and its other entries are kept.
Error _svUserErrorForCode(int64_t code, const Value* userInfo = nullptr);

// The fixed message of a code ("Unknown recording error" for codes outside
// the table).
const char* recordingErrorMessage(int64_t code);

}  // namespace sv
