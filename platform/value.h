// The system's dictionaries, arrays, numbers, strings and byte strings as one
// value type, and its encoded form (CBOR, RFC 8949) used for records and IPC.
#pragma once

#include <concepts>
#include <cstddef>
#include <cstdint>
#include <limits>
#include <optional>
#include <span>
#include <string>
#include <utility>
#include <vector>

#include <nlohmann/json.hpp>

namespace sv {

using Value = nlohmann::json;  // byte strings are its binary type
using Bytes = std::vector<uint8_t>;

struct CborLimits {
    size_t maxBytes = 16 * 1024 * 1024;  // whole encoded input
    size_t maxDepth = 64;                // nesting of arrays and maps
    size_t maxItems = 1 << 20;           // data items in total
};

struct CborDecodeResult {
    std::optional<Value> value;
    std::string error;  // empty on success
    explicit operator bool() const { return value.has_value(); }
};

Bytes encodeCbor(const Value& v);
// Decodes untrusted bytes: never throws, never recurses without bound; input
// that breaks a limit or is not one well-formed CBOR item gives an error.
// Tags are accepted and dropped; map keys must be text strings.
CborDecodeResult decodeCbor(std::span<const uint8_t> bytes, const CborLimits& limits = {});

Value bytesValue(std::span<const uint8_t> bytes);
Value bytesValue(Bytes&& bytes);
// The bytes of a binary value, or nullptr when `v` is not a byte string.
const Bytes* bytesOf(const Value& v);

// The integer `v` holds when it is one and fits T (no clamping, no
// wrapping); nullopt otherwise. Booleans and floats are not integers here.
template <std::integral T>
requires(!std::same_as<T, bool>) std::optional<T> integerOf(const Value& v) {
    if (v.is_number_unsigned()) {
        auto u = v.get<uint64_t>();
        if (u > uint64_t(std::numeric_limits<T>::max())) return std::nullopt;
        return static_cast<T>(u);
    }
    if (!v.is_number_integer()) return std::nullopt;
    auto i = v.get<int64_t>();
    if (!std::in_range<T>(i)) return std::nullopt;
    return static_cast<T>(i);
}

// Typed lookups that never throw: nullopt when absent or of another type.
std::optional<std::string> stringAt(const Value& dict, const char* key);
std::optional<int64_t> intAt(const Value& dict, const char* key);
std::optional<double> numberAt(const Value& dict, const char* key);
std::optional<bool> boolAt(const Value& dict, const char* key);
const Value* dictAt(const Value& dict, const char* key);

// The text form used by "%@" in log lines.
std::string describe(const Value& v);

}  // namespace sv
