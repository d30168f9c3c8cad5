// Entry point of the `sorvel` command-line tool: dispatches to the
// registered subcommands.
#include <cerrno>
#include <cmath>
#include <cstdio>
#include <cstdlib>
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

int usageError(const char* command, const std::string& message, const char* usage) {
    std::fprintf(stderr, "sorvel %s: %s\n\n%s", command, message.c_str(), usage);
    return 2;
}

std::optional<double> parseSeconds(const char* text) {
    char* end = nullptr;
    errno = 0;
    double v = std::strtod(text, &end);
    if (errno || end == text || *end || !std::isfinite(v) || v < 0) return std::nullopt;
    return v;
}

}  // namespace sv::cli

static void usage(FILE* out) {
    std::fprintf(out,
                 "usage: sorvel <command> [options]\n\n"
                 "The command-line tool of the screen-recording service: records through it,\n"
                 "answers its consent questions, speaks for the device's shell, and trims and\n"
                 "inspects movies.\n\ncommands:\n");
    for (const auto& c : sv::cli::commands()) std::fprintf(out, "  %-14s %s\n", c.name, c.summary);
    std::fprintf(
        out,
        "\nRun 'sorvel <command> --help' for the options of a command.\n\n"
        "Exit status: 0 done; 1 the command failed (the service did not answer or\n"
        "refused, a movie could not be read or written); 2 usage.\n\n"
        "Environment: SORVEL_RUNTIME_DIR, else XDG_RUNTIME_DIR: the directory of the\n"
        "service's sockets; LANGUAGE, LC_ALL, LC_MESSAGES, LANG: the language of the\n"
        "consent questions; DISPLAY: the X display (record --system, consent-agent --gui).\n\n"
        "Files: <prefix>/share/sorvel/bundles/sorvel-recorder/ the bundle\n"
        "\"org.sorvel.recorder\" that this program lives in.\n\n"
        "See also: sorveld(8).\n");
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
