// SVRecordingSession: one recording of one application. Only the recording
// state that the daemon's start-up code reads exists so far; the session's
// lifecycle (start, stop, pause, finish, capture and movie writing) is added
// by the session work that builds on it.
//
// Thread-safety: the recording flag may be read from any thread (purge
// callbacks read it without a lock while requests change it).
#pragma once

#include <atomic>
#include <string>

namespace sv {

class SVRecordingSession {
  public:
    SVRecordingSession() = default;
    virtual ~SVRecordingSession() = default;

    bool isRecording() const { return recording_.load(); }
    void setRecording(bool recording) { recording_.store(recording); }

    std::string description() const;

  private:
    std::atomic<bool> recording_{false};
};

}  // namespace sv
