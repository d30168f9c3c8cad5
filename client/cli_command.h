// Subcommands of the `sorvel` command-line tool. Each lives in its own file
// under client/cli/ and registers itself with a static CliRegistration, so a
// subsystem adds a command without touching the others.
#pragma once

#include <optional>
#include <string>
#include <vector>

namespace sv::cli {

// Errors of the tool's own steps (finding the X display's monitors, saving a
// movie).
inline constexpr const char* kCLIErrorDomain = "org.sorvel.sorvel";
enum CLIErrorCode : int64_t {
    kCLIErrorNoDisplay = 1,        // no X display, or one that cannot be used
    kCLIErrorNoMonitors = 2,       // the X server does not list its monitors
    kCLIErrorCannotSaveMovie = 3,  // the movie cannot be put where it was asked
};

struct Command {
    const char* name;     // "trim", "shell", ...
    const char* summary;  // one line for `sorvel --help`
    // argv[0] is the command name; returns the process exit status.
    int (*run)(int argc, char** argv);
};

void registerCommand(const Command& command);
const std::vector<Command>& commands();

struct CliRegistration {
    explicit CliRegistration(const Command& c) { registerCommand(c); }
};

// "sorvel COMMAND: MESSAGE", a blank line and `usage` on standard error;
// returns 2, the exit status of a usage error.
int usageError(const char* command, const std::string& message, const char* usage);
// A number of seconds: finite, 0 or more, nothing after it; nullopt
// otherwise.
std::optional<double> parseSeconds(const char* text);

}  // namespace sv::cli
