// Internals of the recorder client library shared between its source files.
// Not installed.
#pragma once

#include <optional>
#include <string>

#include "platform/error.h"
#include "platform/value.h"
#include "sorvel/recorder_error.h"

namespace sv::client {

// The public form of an error value received from the service.
SVRecorderError publicError(const Error& error);

// JSON text of a value received from the service; byte strings become
// base64 text and invalid UTF-8 is replaced, so any value converts.
std::string jsonText(const Value& value);

}  // namespace sv::client
