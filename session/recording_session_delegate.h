// SVRecordingSessionDelegate: how a recording session tells its owner (the
// recording manager) that it ended on its own.
//
// The session holds its delegate weakly; a delegate that is gone is not
// called.
#pragma once

#include <optional>

#include "platform/error.h"
#include "platform/url.h"
#include "platform/value.h"

namespace sv {

class SVRecordingSessionDelegate {
  public:
    virtual ~SVRecordingSessionDelegate() = default;

    // The session stopped all capture because its screen source failed, was
    // preempted or lost the platform's media services, or its movie could
    // not be written (the disk is full), and is no longer recording.
    // `error` is a recording error (-5800, -5804 or -5805). The movie was
    // finished first: `movieURL` is what was recorded until then, or
    // nothing when no part of it plays. Called once per stop, on the default
    // global queue (where the movie finishes) or, without a movie to
    // finish, on the thread that stopped the session.
    virtual void recordingSessionStoppedWithError(const Error& error,
                                                  const std::optional<URL>& movieURL) = 0;

    // Service information from the session's broadcast extension (a
    // dictionary), for the application. Called on the extension handle's
    // queue; must not block.
    virtual void broadcastSessionDidUpdateServiceInfo(const Value& serviceInfo) {
        (void)serviceInfo;
    }

    // Service information from the session's processing extension over its
    // live link, for the session's own application. Called on the link's
    // queue; must not block.
    virtual void broadcastSessionLinkDidUpdateServiceInfo(const Value& serviceInfo) {
        (void)serviceInfo;
    }
};

}  // namespace sv
