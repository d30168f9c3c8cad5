// Entry point of the `sorvel` command-line tool: dispatches to the
// registered subcommands.
#include <cstdio>
#include <cstring>

#include "client/cli_command.h"

namespace sv::cli {

std::vector<Command>& registry() {
    static std::vector<Command> r;
    return r;
}
void registerCommand(const Command& command) {
    registry().push_back(command);
}
const std::vector<Command>& commands() {
    return registry();
}

}  // namespace sv::cli

static void usage(FILE* out) {
    std::fprintf(out, "usage: sorvel <command> [options]\n\ncommands:\n");
    for (const auto& c : sv::cli::commands()) std::fprintf(out, "  %-14s %s\n", c.name, c.summary);
    std::fprintf(out, "\nRun 'sorvel <command> --help' for the options of a command.\n");
}

int main(int argc, char** argv) {
    if (argc < 2 || !std::strcmp(argv[1], "--help") || !std::strcmp(argv[1], "-h")) {
        usage(argc < 2 ? stderr : stdout);
        return argc < 2 ? 2 : 0;
    }
    for (const auto& c : sv::cli::commands()) {
        if (!std::strcmp(c.name, argv[1])) return c.run(argc - 1, argv + 1);
    }
    std::fprintf(stderr, "sorvel: unknown command '%s'\n", argv[1]);
    usage(stderr);
    return 2;
}
