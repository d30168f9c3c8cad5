// `sorvel shell ...`: speaks for the operating system's side of the device
// on the daemon's shell channel.
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

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
        "                                the periodic clean-up\n\n"
        "Prints the daemon's answer (bytes) for purgeable, purge and periodic.\n"
        "Exit status: 0 answered, 1 the daemon did not answer, 2 usage.\n");
}

bool parseNumber(const char* text, long long& out) {
    char* end = nullptr;
    errno = 0;
    out = std::strtoll(text, &end, 10);
    return text[0] && end && *end == 0 && errno == 0;
}

int runShell(int argc, char** argv) {
    std::string action;
    long long urgency = 0, amount = 0;
    for (int i = 1; i < argc; ++i) {
        std::string a = argv[i];
        auto value = [&](long long& out) {
            if (i + 1 >= argc || !parseNumber(argv[++i], out)) {
                std::fprintf(stderr, "sorvel shell: %s needs a number\n", a.c_str());
                return false;
            }
            return true;
        };
        if (a == "--help" || a == "-h") {
            usage(stdout);
            return 0;
        } else if (a == "--runtime-dir" && i + 1 < argc) {
            sv::ipc::setRuntimeDirectory(argv[++i]);
        } else if (a == "--urgency") {
            if (!value(urgency) || urgency < INT32_MIN || urgency > INT32_MAX) return 2;
        } else if (a == "--amount") {
            if (!value(amount)) return 2;
        } else if (action.empty() && a[0] != '-') {
            action = a;
        } else {
            std::fprintf(stderr, "sorvel shell: unexpected argument '%s'\n", a.c_str());
            usage(stderr);
            return 2;
        }
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

sv::cli::CliRegistration reg({"shell", "act as the device's shell: lock button, storage purges",
                              &runShell});

}  // namespace
