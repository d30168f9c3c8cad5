// SVRecordingSessionDelegate: how a recording session tells its owner (the
// recording manager) that it ended on its own.
//
// The session holds its delegate weakly; a delegate that is gone is not
// called.
#pragma once

#include "platform/error.h"
#include "platform/value.h"

namespace sv {

class SVRecordingSessionDelegate {
  public:
    virtual ~SVRecordingSessionDelegate() = default;

    // The session stopped all capture because its screen source failed, was
    // preempted or lost the platform's media services, and is no longer
    // recording. `error` is a recording error (-5800 or -5804). The movie
    // writer was not finished: what becomes of the partial movie is the
    // delegate's decision. Called once per stop, on the thread that stopped
    // the session: the screen capture controller's delivery thread for the
    // failures above.
    virtual void recordingSessionStoppedWithError(const Error& error) = 0;

    // Service information from the session's broadcast extension (a
    // dictionary), for the application. Called on the extension handle's
    // queue; must not block.
    virtual void broadcastSessionDidUpdateServiceInfo(const Value& serviceInfo) {
        (void)serviceInfo;
    }
};

}  // namespace sv
