// Error values of every domain: a domain string, an integer code and a
// user-info dictionary whose localized-description entry carries the
// human-readable message. Failures of platform calls use their own domains;
// recording errors (support/recording_errors.h) are what clients see.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "platform/value.h"

namespace sv {

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

}  // namespace sv
