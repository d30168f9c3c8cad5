// `sorvel shell ...`: speaks for the operating system's side of the device
// on the daemon's shell channel: the lock button, the storage service, and
// the synthetic platform's window system, display and capture failures.
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <optional>
#include <string>
#include <vector>

#include "client/cli_command.h"
#include "client/shell_client.h"
#include "platform/ipc/ipc.h"
#include "platform/log.h"

namespace {

void usage(FILE* out) {
    std::fprintf(
        out,
        "usage: sorvel shell [--runtime-dir DIR] <action> [options]\n\n"
        "actions:\n"
        "  lock                          the lock button was pressed\n"
        "  purgeable [--urgency N]       bytes the daemon could free\n"
        "  purge [--urgency N] [--amount BYTES]\n"
        "                                free space now (urgency 3 and up: storage is short)\n"
        "  cancel                        cancel a purge\n"
        "  periodic [--urgency N] [--amount BYTES]\n"
        "                                the periodic clean-up\n"
        "\n"
        "Synthetic platform (the daemon answers with an error on a real display):\n"
        "  app BUNDLE --foreground|--background [--pid N]\n"
        "                                the application BUNDLE (process N) comes to the\n"
        "                                foreground (and becomes frontmost) or leaves it\n"
        "  layout LEVEL...               the display layout becomes one element per LEVEL\n"
        "                                (levels below 2: windows that share the screen;\n"
        "                                2 and up: system overlays); no LEVEL: empty layout\n"
        "  layout --reset                back to the layout made from the display's layers\n"
        "  orientation ORIENTATION       portrait, landscape-left, portrait-upside-down,\n"
        "                                landscape-right, or the transform flags as a number\n"
        "                                (1 flip y, 2 flip x, 4 quarter turn)\n"
        "  fail failed|preempted|reset   make screen capture fail (a grab failure, the source\n"
        "                                preempted, the media services reset)\n\n"
        "Prints the daemon's answer (bytes) for purgeable, purge and periodic.\n"
        "Exit status: 0 done, 1 the daemon did not answer or refused, 2 usage.\n");
}

bool parseNumber(const char* text, long long& out) {
    char* end = nullptr;
    errno = 0;
    out = std::strtoll(text, &end, 10);
    return text[0] && end && *end == 0 && errno == 0;
}

int usageError(const std::string& message) {
    std::fprintf(stderr, "sorvel shell: %s\n", message.c_str());
    usage(stderr);
    return 2;
}

std::optional<uint32_t> orientationFlags(const std::string& name) {
    if (name == "portrait") return 0;
    if (name == "landscape-left") return 4;
    if (name == "portrait-upside-down") return 3;
    if (name == "landscape-right") return 7;
    long long n = 0;
    if (parseNumber(name.c_str(), n) && n >= 0 && n <= UINT32_MAX) return uint32_t(n);
    return std::nullopt;
}

int reportAnswer(const std::string& action, const sv::OptionalError& error) {
    if (!error) return 0;
    if (error->domain == sv::ipc::kIPCErrorDomain) {
        std::fprintf(stderr, "sorvel shell: %s: no answer from the daemon (%s)\n", action.c_str(),
                     error->description().c_str());
    } else {
        std::fprintf(stderr, "sorvel shell: %s: %s (%s %lld)\n", action.c_str(),
                     error->localizedDescription().value_or("refused").c_str(),
                     error->domain.c_str(), static_cast<long long>(error->code));
    }
    return 1;
}

// The synthetic platform's actions; `args` are the words after the action.
int runPlatformAction(const std::string& action, const std::vector<std::string>& args) {
    sv::ShellClient client;
    using Completion = sv::ShellClient::Completion;
    if (action == "app") {
        std::optional<std::string> bundle;
        std::optional<bool> foreground;
        long long pid = 0;
        for (size_t i = 0; i < args.size(); ++i) {
            const std::string& a = args[i];
            if (a == "--foreground" || a == "--background") {
                foreground = a == "--foreground";
            } else if (a == "--pid") {
                if (i + 1 >= args.size() || !parseNumber(args[++i].c_str(), pid) || pid < 0 ||
                    pid > INT32_MAX)
                    return usageError("--pid needs a process identifier");
            } else if (!bundle && a[0] != '-') {
                bundle = a;
            } else {
                return usageError("unexpected argument '" + a + "'");
            }
        }
        if (!bundle || !foreground)
            return usageError("app needs BUNDLE and --foreground or --background");
        return reportAnswer(action, client.waitFor([&](Completion c) {
            client.setApplicationState(*bundle, *foreground, int32_t(pid), std::move(c));
        }));
    }
    if (action == "layout") {
        std::optional<std::vector<int64_t>> levels = std::vector<int64_t>{};
        for (const auto& a : args) {
            long long level = 0;
            if (a == "--reset" && args.size() == 1) {
                levels.reset();
            } else if (parseNumber(a.c_str(), level) && level >= INT32_MIN && level <= INT32_MAX) {
                levels->push_back(level);
            } else {
                return usageError("layout takes levels (integers) or --reset alone");
            }
        }
        return reportAnswer(action, client.waitFor([&](Completion c) {
            client.setDisplayLayoutLevels(levels, std::move(c));
        }));
    }
    if (action == "orientation") {
        auto flags = args.size() == 1 ? orientationFlags(args[0]) : std::nullopt;
        if (!flags) return usageError("orientation takes one orientation name or flags");
        return reportAnswer(action, client.waitFor([&](Completion c) {
            client.setDisplayTransformFlags(*flags, std::move(c));
        }));
    }
    // fail
    if (args.size() != 1 || (args[0] != "failed" && args[0] != "preempted" && args[0] != "reset"))
        return usageError("fail takes failed, preempted or reset");
    return reportAnswer(action, client.waitFor([&](Completion c) {
        client.injectScreenCaptureFailure(args[0], std::move(c));
    }));
}

int runShell(int argc, char** argv) {
    std::string action;
    std::vector<std::string> rest;
    for (int i = 1; i < argc; ++i) {
        std::string a = argv[i];
        if (action.empty() && (a == "--help" || a == "-h")) {
            usage(stdout);
            return 0;
        } else if (a == "--runtime-dir") {
            if (i + 1 >= argc) return usageError("--runtime-dir needs a directory");
            sv::ipc::setRuntimeDirectory(argv[++i]);
        } else if (action.empty() && !a.empty() && a[0] != '-') {
            action = a;
        } else if (!action.empty()) {
            rest.push_back(a);
        } else {
            return usageError("unexpected argument '" + a + "'");
        }
    }
    sv::log::setOutputEnabled(false);
    if (action == "app" || action == "layout" || action == "orientation" || action == "fail")
        return runPlatformAction(action, rest);

    long long urgency = 0, amount = 0;
    for (size_t i = 0; i < rest.size(); ++i) {
        const std::string& a = rest[i];
        long long* target = a == "--urgency" ? &urgency : a == "--amount" ? &amount : nullptr;
        if (!target) return usageError("unexpected argument '" + a + "'");
        if (i + 1 >= rest.size() || !parseNumber(rest[++i].c_str(), *target))
            return usageError(a + " needs a number");
        if (target == &urgency && (urgency < INT32_MIN || urgency > INT32_MAX))
            return usageError("--urgency is out of range");
    }
    sv::ShellClient client;
    sv::ShellClient::Result r;
    if (action == "lock") {
        r = client.lockButtonPressedAndWait();
    } else if (action == "purgeable") {
        r = client.purgeableSpaceAndWait(int32_t(urgency));
    } else if (action == "purge") {
        r = client.purgeAndWait(amount, int32_t(urgency));
    } else if (action == "cancel") {
        r = client.cancelPurgeAndWait();
    } else if (action == "periodic") {
        r = client.periodicAndWait(amount, int32_t(urgency));
    } else {
        usage(stderr);
        return 2;
    }
    if (r.error) {
        std::fprintf(stderr, "sorvel shell: %s: no answer from the daemon (%s)\n", action.c_str(),
                     r.error->description().c_str());
        return 1;
    }
    if (r.bytes) std::printf("%lld\n", static_cast<long long>(*r.bytes));
    return 0;
}

sv::cli::CliRegistration reg({"shell",
                              "act as the device's shell: lock button, storage, synthetic platform",
                              &runShell});

}  // namespace
