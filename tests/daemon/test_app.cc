// A small application for the daemon tests: it records itself through the
// client library, driven line by line on standard input, and reports every
// answer and callback as one line on standard output. The tests place copies
// of it in bundle directories, so the daemon identifies each copy as an
// application by its executable.
//
// Commands (one per line):
//   start MIC CAMERA BROADCAST SYSTEM [own | ID...]   (flags 0 or 1; "own":
//                                     the layers the shell channel lists for
//                                     this process; no ID: none)
//   stop | stopclip START END | pause | resume (own | ID) | mic 0|1
//   discard | active | resign | active-as BUNDLE | layers | status
// Output lines:
//   started CODE MIC CAMERA      CODE 0 for no error
//   stopped CODE PATH            PATH "-" for none
//   discarded CODE
//   callback CODE PATH           stopRecordingWithError:movieURL:
//   layers ID...                 (none listed within 20 s: "layers")
//   status JSON
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <iostream>
#include <memory>
#include <mutex>
#include <sstream>
#include <string>
#include <vector>

#include "client/shell_client.h"
#include "platform/dispatch.h"
#include "platform/log.h"
#include "sorvel/recorder_client.h"
#include "tests/process/process_helpers.h"

namespace {

std::mutex gOut;

void emit(const std::string& line) {
    std::lock_guard lock(gOut);
    std::fprintf(stdout, "%s\n", line.c_str());
    std::fflush(stdout);
}

std::string code(const std::optional<sv::SVRecorderError>& e) {
    return e ? std::to_string(e->code) : "0";
}

class Delegate : public sv::SVRecorderClientDelegate {
  public:
    void stopRecordingWithError(const std::optional<sv::SVRecorderError>& error,
                                const std::optional<std::string>& moviePath) override {
        emit("callback " + code(error) + " " + moviePath.value_or("-"));
    }
};

// The layers the service shows for this process. The service adds them when
// it accepts the client's connection, which may come a moment after the
// question; asked again for a while, as `sorvel record` does.
std::vector<uint32_t> ownLayers(sv::ShellClient& shell) {
    std::vector<uint32_t> result;
    sv::test::eventually(
        [&] {
            sv::Semaphore done;
            bool failed = false;
            shell.layerContextIDsForCaller([&](std::vector<uint32_t> layers, sv::OptionalError e) {
                result = std::move(layers);
                failed = e.has_value();
                done.signal();
            });
            done.wait();
            return !result.empty() || failed;
        },
        std::chrono::seconds(20));
    return result;
}

}  // namespace

int main() {
    sv::log::setOutputEnabled(false);
    auto delegate = std::make_shared<Delegate>();
    sv::SVRecorderClient client;
    client.setDelegate(delegate);
    sv::ShellClient shell;
    const std::string bundleID = sv::SVRecorderClient::mainBundleIdentifier();
    // The layer identifiers of the rest of a command, "own" standing for this
    // process's layers.
    auto layerIDs = [&shell](std::istringstream& in) {
        std::vector<uint32_t> ids;
        for (std::string word; in >> word;) {
            auto more = word == "own" ? ownLayers(shell)
                                      : std::vector<uint32_t>{uint32_t(std::stoul(word))};
            ids.insert(ids.end(), more.begin(), more.end());
        }
        return ids;
    };

    std::string line;
    while (std::getline(std::cin, line)) {
        std::istringstream in(line);
        std::string command;
        in >> command;
        if (command == "start") {
            int mic = 0, camera = 0, broadcast = 0, system = 0;
            in >> mic >> camera >> broadcast >> system;
            client.startRecordingWindowLayerContextIDs(
                layerIDs(in), {640, 360}, mic != 0, camera != 0, broadcast != 0, system != 0,
                [](std::optional<sv::SVRecorderError> e, bool m, bool c) {
                    emit("started " + code(e) + " " + std::to_string(m) + " " + std::to_string(c));
                });
        } else if (command == "stop" || command == "stopclip") {
            double start = 0, end = 0;
            in >> start >> end;
            auto handler = [](std::optional<std::string> path,
                              std::optional<sv::SVRecorderError> e) {
                emit("stopped " + code(e) + " " + path.value_or("-"));
            };
            if (command == "stop")
                client.stopRecordingWithHandler(handler);
            else
                client.stopRecordingWithStartClipDuration(start, end, handler);
        } else if (command == "pause") {
            client.pauseRecording();
        } else if (command == "resume") {
            const auto ids = layerIDs(in);
            client.resumeRecordingWithWindowLayerContextID(ids.empty() ? 0 : ids.front());
        } else if (command == "mic") {
            int on = 0;
            in >> on;
            client.setMicrophoneEnabled(on != 0);
        } else if (command == "discard") {
            client.discardRecordingWithHandler(
                [](std::optional<sv::SVRecorderError> e) { emit("discarded " + code(e)); });
        } else if (command == "active") {
            client.clientDidBecomeActiveWithBundleID(bundleID);
        } else if (command == "resign") {
            client.clientDidResignActiveWithBundleID(bundleID);
        } else if (command == "active-as") {
            std::string other;
            in >> other;
            client.clientDidBecomeActiveWithBundleID(other);
        } else if (command == "layers") {
            // The service lists this process's layers once it has accepted
            // the recorder connection, which may be a moment after this line.
            auto layers = ownLayers(shell);
            std::string text = "layers";
            for (uint32_t id : layers) text += " " + std::to_string(id);
            emit(text);
        } else if (command == "status") {
            sv::Semaphore done;
            shell.call("recordingStatusForCallerWithHandler:", {},
                       [&](sv::ipc::Received reply, sv::OptionalError e) {
                           emit("status " + (e ? std::string("error") : reply.at(0).dump()));
                           done.signal();
                       });
            done.wait();
        }
    }
    client.invalidate();
    return 0;
}
