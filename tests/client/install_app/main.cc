// A tiny application built against the installed client library: it asks
// for a recording and prints what the library answers. With no service
// running, that is the library's "not running" error (exit status 0 then).
#include <sorvel/recorder_client.h>

#include <cstdio>
#include <future>

int main() {
    sv::SVRecorderClient client;
    std::promise<std::optional<sv::SVRecorderError>> answer;
    client.startRecordingWindowLayerContextIDs({1}, {640, 480}, false, false, false, false,
                                               [&answer](std::optional<sv::SVRecorderError> error,
                                                         bool, bool) { answer.set_value(error); });
    auto error = answer.get_future().get();
    if (!error) {
        std::printf("recording started\n");
        return 1;
    }
    std::printf("%s\n", error->description().c_str());
    return error->isClientError() && error->code == sv::SVRecorderError::kClientServiceNotRunning
               ? 0
               : 1;
}
