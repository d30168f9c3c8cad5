#include "session/recording_session.h"

namespace sv {

std::string SVRecordingSession::description() const {
    return std::string("<SVRecordingSession recording=") + (isRecording() ? "1" : "0") + ">";
}

}  // namespace sv
