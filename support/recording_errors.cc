#include "support/recording_errors.h"

namespace sv {

const char* recordingErrorMessage(int64_t code) {
    switch (code) {
        case -5800:
            return "Uknown recording error";
        case -5801:
            return "The user declined application recording";
        case -5802:
            return "Recording has been restricted in settings";
        case -5803:
            return "Recording failed to start";
        case -5804:
            return "Failed during recording";
        case -5805:
            return "Insufficient storage for recording";
        case -5806:
            return "Recording interrupted by another application";
        case -5807:
            return "Recording interrupted by multitasking and content resizing";
        default:
            return "Unknown recording error";
    }
}

Error _svUserErrorForCode(int64_t code, const Value* userInfo) {
    Value info = (userInfo && userInfo->is_object()) ? *userInfo : Value::object();
    info[kLocalizedDescriptionKey] = recordingErrorMessage(code);
    return Error{kSVRecordingErrorDomain, code, std::move(info)};
}

}  // namespace sv
