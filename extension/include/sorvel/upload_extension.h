// The extension SDK: writing a broadcast upload extension for sorveld.
//
// An upload extension is a program in a bundle whose bundle.json declares
// the broadcast-services extension point (docs/extension-sdk.md). The
// service starts it when an application broadcasts, and hands it every
// finished movie fragment of the broadcast (an MPEG-4 file of a few seconds:
// H.264 video, the application's audio, the microphone), in order. The
// extension uploads it and may answer with a new configuration (the length
// of the next fragments, video compression properties) and with service
// information, a JSON object that the service passes on to the application.
//
//   class Upload : public sv::SVUploadExtension {
//       void processFragment(sv::SVBroadcastFragment fragment,
//                            sv::SVUploadCompletion completion) override {
//           upload(fragment.fileDescriptor);
//           completion({.serviceInfoJSON = R"({"uploaded": true})"});
//       }
//   };
//   int main() { Upload u; return sv::SVRunUploadExtension(u); }
//
// Threads: processFragment runs on the SDK's request thread, one call at a
// time, in the order of the fragments; the extension may answer from any
// thread, later (the next fragment's call does not wait for the answer).
// SVRunUploadExtension blocks the calling thread until the service goes away.
//
// No dependency beyond the C++20 standard library in this header.
#pragma once

#include <functional>
#include <optional>
#include <string>

namespace sv {

// One finished fragment. The file stays readable until the completion of its
// call runs; afterwards the service removes it.
struct SVBroadcastFragment {
    // A read-only descriptor of the fragment's file, owned by the SDK: the
    // extension's only way to the file (read it with pread, or hand it to
    // a library as a descriptor; FFmpeg: a custom AVIOContext).
    int fileDescriptor = -1;
    // The file's location in the service's store, as a "file://" URL: for
    // logs only; the store is closed to extensions.
    std::string movieClipURL;
    // True for the last fragment of the broadcast.
    bool finished = false;
    // The user info the application set the broadcast up with, as a JSON
    // object ("{}" when it sent none).
    std::string userInfoJSON = "{}";
};

// What an extension answers for one fragment; every field is optional.
struct SVUploadResult {
    // A new configuration, for the fragments that follow: their length in
    // seconds (0 or less: the service's default of 5 s) ...
    std::optional<double> clipDuration;
    // ... and video compression properties, a JSON object (keys in the
    // service's docs/movie-settings.md).
    std::optional<std::string> videoCompressionPropertiesJSON;
    // Service information for the application: a JSON object.
    std::optional<std::string> serviceInfoJSON;
    // Set when the fragment could not be handled (the service logs it).
    std::optional<std::string> errorMessage;
};

// Called once per fragment, from any thread; later calls are ignored.
using SVUploadCompletion = std::function<void(SVUploadResult result)>;

class SVUploadExtension {
  public:
    virtual ~SVUploadExtension() = default;
    // On the SDK's request thread; see above.
    virtual void processFragment(SVBroadcastFragment fragment, SVUploadCompletion completion) = 0;
    // On the SDK's request thread, once, when the service has gone away (the
    // broadcast ended or the service stopped); the process should end soon.
    virtual void serviceDidGoAway() {}
};

// Connects to the service that started this process and hands `extension`
// the fragments until the service goes away. Returns 0 then, and 2 at once
// when this process was not started by the service as an extension.
int SVRunUploadExtension(SVUploadExtension& extension);

}  // namespace sv
