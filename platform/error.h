// Error values of every domain: a domain string, an integer code and a
// user-info dictionary whose localized-description entry carries the
// human-readable message. Failures of platform calls use their own domains;
// recording errors (support/recording_errors.h) are what clients see.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <utility>
#include <variant>

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
    // The sentence for a log line or a user: the localized description, else
    // description().
    std::string message() const;

    // Wire form {"domain", "code", "userInfo"} and back (nullopt for a value
    // that is not such a record).
    Value toValue() const;
    static std::optional<Error> fromValue(const Value& v);
    // An error of `domain` with `code` and a sentence for whoever reads it
    // (under kLocalizedDescriptionKey).
    static Error make(std::string domain, int64_t code, const std::string& message);

    friend bool operator==(const Error&, const Error&) = default;
};

// "error or nothing"
using OptionalError = std::optional<Error>;

// A value or the error that stands in its place: what every fallible
// operation returns. Move-only values (descriptors, handles) move through it.
//   Result<UniqueFd> r = open(...);
//   if (!r) return r.error();
//   use(*r);
template <typename T>
class [[nodiscard]] Result {
  public:
    Result(T value) : v_(std::in_place_index<0>, std::move(value)) {}
    Result(Error error) : v_(std::in_place_index<1>, std::move(error)) {}

    bool ok() const { return v_.index() == 0; }
    explicit operator bool() const { return ok(); }
    // Only when ok().
    T& value() & { return std::get<0>(v_); }
    const T& value() const& { return std::get<0>(v_); }
    T&& value() && { return std::get<0>(std::move(v_)); }
    T& operator*() & { return value(); }
    const T& operator*() const& { return value(); }
    T&& operator*() && { return std::move(*this).value(); }
    T* operator->() { return &value(); }
    const T* operator->() const { return &value(); }
    T valueOr(T fallback) const& { return ok() ? value() : std::move(fallback); }
    T valueOr(T fallback) && { return ok() ? std::move(*this).value() : std::move(fallback); }
    // Only when !ok().
    const Error& error() const { return std::get<1>(v_); }
    // nullopt when ok().
    OptionalError optionalError() const { return ok() ? OptionalError() : error(); }

  private:
    std::variant<T, Error> v_;
};

// An operation that gives nothing back but may fail.
template <>
class [[nodiscard]] Result<void> {
  public:
    Result() = default;
    Result(Error error) : error_(std::move(error)) {}
    static Result success() { return Result(); }

    bool ok() const { return !error_; }
    explicit operator bool() const { return ok(); }
    const Error& error() const { return *error_; }
    const OptionalError& optionalError() const { return error_; }

  private:
    OptionalError error_;
};

}  // namespace sv
