#include "support/recording_errors.h"

namespace sv {

const char* recordingErrorMessage(int64_t code) {
    switch (code) {
        case kSVRecordingErrorUnknown:
            return "Uknown recording error";
        case kSVRecordingErrorUserDeclined:
            return "The user declined application recording";
        case kSVRecordingErrorRestricted:
            return "Recording has been restricted in settings";
        case kSVRecordingErrorFailedToStart:
            return "Recording failed to start";
        case kSVRecordingErrorFailedDuringRecording:
            return "Failed during recording";
        case kSVRecordingErrorInsufficientStorage:
            return "Insufficient storage for recording";
        case kSVRecordingErrorInterruptedByOtherApp:
            return "Recording interrupted by another application";
        case kSVRecordingErrorContentResized:
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
