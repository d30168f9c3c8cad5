// Error values that the recorder client hands to applications.
//
// Part of the installed client library (libsorvel-client); this header is
// self-contained and needs only the C++20 standard library.
//
// Two domains reach an application:
// - kRecordingDomain: the recording service's own errors (codes -5800 to
//   -5809), passed on unchanged with the message the service attached;
// - kClientDomain: failures of the link to the service that the library
//   detects itself (service not running, connection interrupted, ...), with
//   a message in the user's preferred language (English, German or French).
// Values are plain data: copy them, compare them, keep them on any thread.
#pragma once

#include <cstdint>
#include <string>

namespace sv {

struct SVRecorderError {
    static constexpr const char* kRecordingDomain = "org.sorvel.SVRecordingErrorDomain";
    static constexpr const char* kClientDomain = "org.sorvel.SVRecorderClientErrorDomain";

    // Codes of kRecordingDomain, as the service sends them.
    enum RecordingCode : int64_t {
        kRecordingUnknown = -5800,                    // capture source preempted
        kRecordingUserDeclined = -5801,               // the user refused the consent alert
        kRecordingRestricted = -5802,                 // not raised by this service
        kRecordingFailedToStart = -5803,              // the application is not in the foreground
        kRecordingFailedDuringRecording = -5804,      // screen capture failed
        kRecordingInsufficientStorage = -5805,        // not enough free space, or storage ran short
        kRecordingInterruptedByOtherApp = -5806,      // another application started recording
        kRecordingInterruptedByLayoutChange = -5807,  // the screen is shared with other content
        kRecordingBroadcastFailed = -5808,  // the broadcast link failed, or no broadcast set-up
        kRecordingLockButton = -5809,       // the device was locked
    };

    // Codes of kClientDomain.
    enum ClientCode : int64_t {
        kClientServiceNotRunning = 1,      // nothing listens on the service's socket
        kClientConnectionInterrupted = 2,  // the service went away before it answered
        kClientRequestQueueFull = 3,       // the service does not read; the request was not sent
        kClientRequestRejected = 4,        // the request does not fit the protocol or its limits
        kClientInvalidReply = 5,           // the service answered something unreadable
        kClientInvalidated = 6,            // the client was closed before the answer came
        kClientInvalidArgument = 7,        // an argument cannot be sent (e.g. malformed JSON)
    };

    std::string domain;
    int64_t code = 0;
    // The human-readable message; never empty for values made by the
    // library (a recording error that arrives without one gets the standard
    // message of its code).
    std::string localizedDescription;

    bool isRecordingError() const { return domain == kRecordingDomain; }
    bool isClientError() const { return domain == kClientDomain; }
    // "<message> (<domain> <code>)", the form command-line tools print.
    std::string description() const {
        return localizedDescription + " (" + domain + " " + std::to_string(code) + ")";
    }
    friend bool operator==(const SVRecorderError&, const SVRecorderError&) = default;

    // An error of kClientDomain with its message in the user's language
    // (from the environment's preferred languages, as the service chooses
    // them).
    static SVRecorderError clientError(ClientCode code);
};

}  // namespace sv
