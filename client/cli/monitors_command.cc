// `sorvel monitors`: the monitors of the X display that
// `sorvel record --system --monitor NAME` can record alone.
#include <cstdio>
#include <cstring>

#include "client/cli/x11_monitors.h"
#include "client/cli_command.h"

namespace {

constexpr const char* kUsage =
    "usage: sorvel monitors\n"
    "\n"
    "Lists the monitors of the X display in $DISPLAY (RandR): name, size and\n"
    "position, the primary one marked with *. `sorvel record --system --monitor\n"
    "NAME` records one of them; without --monitor the whole display is recorded.\n"
    "\n"
    "Exit status: 0 listed; 1 no X display or no monitor information; 2 usage.\n";

int runMonitors(int argc, char** argv) {
    for (int i = 1; i < argc; ++i) {
        if (!std::strcmp(argv[i], "-h") || !std::strcmp(argv[i], "--help")) {
            std::fputs(kUsage, stdout);
            return 0;
        }
        std::fprintf(stderr, "sorvel monitors: unknown option %s\n%s", argv[i], kUsage);
        return 2;
    }
    auto monitors = sv::cli::listX11Monitors();
    if (!monitors) {
        std::fprintf(stderr, "sorvel monitors: %s\n", monitors.error().description().c_str());
        return 1;
    }
    for (const auto& m : *monitors)
        std::printf("%s%s %dx%d+%d+%d\n", m.primary ? "*" : " ", m.name.c_str(), m.width, m.height,
                    m.x, m.y);
    return 0;
}

const sv::cli::CliRegistration kRegistration{
    {"monitors", "list the X display's monitors (for record --monitor)", runMonitors}};

}  // namespace
