// `sorvel consent-agent`: shows the recording service's consent alerts to
// the user in the terminal, in a zenity dialog (--gui), or answers them
// without asking (--answer, for scripts and tests).
#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "client/cli/cli_loop.h"
#include "client/cli/consent_prompt.h"
#include "client/cli_command.h"
#include "client/consent_agent.h"
#include "client/shell_channel.h"
#include "platform/dispatch.h"
#include "platform/ipc/ipc.h"
#include "platform/log.h"
#include "platform/system/languages.h"
#include "platform/unique_fd.h"
#include "support/localization.h"

extern char** environ;

namespace {

using sv::ConsentAlert;
using sv::ConsentResponse;

constexpr const char* kUsage =
    "usage: sorvel consent-agent [--answer accept|accept-without-mic|decline] [--gui]\n"
    "                            [--once] [--runtime-dir DIR]\n"
    "\n"
    "Shows the screen-recording service's consent questions to the user: it registers\n"
    "with the service, which then asks it whenever an application wants to record,\n"
    "and stays running (registering again when the service restarts) until\n"
    "interrupted. The question comes in the user's language (LANGUAGE, LC_ALL,\n"
    "LC_MESSAGES, LANG).\n"
    "\n"
    "options:\n"
    "  (none)                 print the question and its numbered buttons and read the\n"
    "                         choice from standard input; end of input declines\n"
    "  --gui                  ask in a dialog on the X display (needs zenity)\n"
    "  --answer CHOICE        answer every question without asking: accept (with the\n"
    "                         microphone when asked for), accept-without-mic, decline\n"
    "  --once                 end after answering one question\n"
    "  --runtime-dir DIR      directory of the service's sockets\n"
    "\n"
    "Exit status: 0 interrupted or done (--once); 1 the service refused the agent or\n"
    "the dialog cannot be shown; 2 usage.\n";

int usageError(const std::string& message) {
    std::fprintf(stderr, "sorvel consent-agent: %s\n\n%s", message.c_str(), kUsage);
    return 2;
}

std::string findInPath(const std::string& program) {
    const char* path = std::getenv("PATH");
    std::string dirs = path ? path : "/usr/bin:/bin";
    size_t start = 0;
    while (start <= dirs.size()) {
        size_t end = dirs.find(':', start);
        if (end == std::string::npos) end = dirs.size();
        std::string dir = dirs.substr(start, end - start);
        std::string candidate = (dir.empty() ? "." : dir) + "/" + program;
        if (access(candidate.c_str(), X_OK) == 0) return candidate;
        start = end + 1;
    }
    return {};
}

// A zenity question: accept buttons as OK and extra button, decline as
// Cancel. Closing the window counts as Cancel, which declines as well.
ConsentResponse askZenity(const std::string& zenity, const ConsentAlert& alert) {
    std::vector<std::string> args = {zenity,
                                     "--question",
                                     "--no-markup",
                                     "--width=460",
                                     "--title=" + alert.title,
                                     "--text=" + alert.title + "\n\n" + alert.message};
    std::string extra;
    if (alert.alternateButton) {
        args.push_back("--ok-label=" + *alert.alternateButton);
        if (alert.otherButton) extra = *alert.otherButton;
    } else if (alert.otherButton) {
        args.push_back("--ok-label=" + *alert.otherButton);
    } else {
        return ConsentResponse::Cancel;
    }
    args.push_back("--cancel-label=" + alert.defaultButton);
    if (!extra.empty()) args.push_back("--extra-button=" + extra);

    int pipeFds[2];
    if (pipe2(pipeFds, O_CLOEXEC) != 0) return ConsentResponse::Cancel;
    sv::UniqueFd readEnd(pipeFds[0]), writeEnd(pipeFds[1]);
    posix_spawn_file_actions_t fa;
    posix_spawn_file_actions_init(&fa);
    posix_spawn_file_actions_adddup2(&fa, writeEnd.get(), STDOUT_FILENO);
    std::vector<char*> argv;
    for (auto& a : args) argv.push_back(a.data());
    argv.push_back(nullptr);
    pid_t pid = -1;
    int rc = posix_spawn(&pid, zenity.c_str(), &fa, nullptr, argv.data(), environ);
    posix_spawn_file_actions_destroy(&fa);
    writeEnd.reset();  // the child's copy is the only writer left
    std::string printed;
    char buf[256];
    ssize_t n;
    while (rc == 0 && (n = read(readEnd.get(), buf, sizeof buf)) != 0) {
        if (n < 0 && errno == EINTR) continue;
        if (n < 0 || printed.size() > 4096) break;
        printed.append(buf, size_t(n));
    }
    readEnd.reset();
    int status = 0;
    if (rc != 0 || waitpid(pid, &status, 0) != pid || !WIFEXITED(status)) {
        std::fprintf(stderr, "sorvel consent-agent: zenity failed; the question is declined\n");
        return ConsentResponse::Cancel;
    }
    while (!printed.empty() && (printed.back() == '\n' || printed.back() == '\r'))
        printed.pop_back();
    switch (WEXITSTATUS(status)) {
        case 0:
            return alert.alternateButton ? ConsentResponse::Alternate : ConsentResponse::Other;
        case 1:
            return !extra.empty() && printed == extra ? ConsentResponse::Other
                                                      : ConsentResponse::Default;
        default:
            return ConsentResponse::Cancel;
    }
}

int runConsentAgent(int argc, char** argv) {
    std::optional<sv::ConsentPolicy> policy;
    bool gui = false, once = false;
    for (int i = 1; i < argc; ++i) {
        std::string a = argv[i];
        auto value = [&]() -> const char* { return i + 1 < argc ? argv[++i] : nullptr; };
        const char* v = nullptr;
        if (a == "-h" || a == "--help") {
            std::fputs(kUsage, stdout);
            return 0;
        } else if (a == "--answer") {
            if (!(v = value()) || !(policy = sv::parseConsentPolicy(v)))
                return usageError("--answer takes accept, accept-without-mic or decline");
        } else if (a == "--gui") {
            gui = true;
        } else if (a == "--once") {
            once = true;
        } else if (a == "--runtime-dir") {
            if (!(v = value())) return usageError("--runtime-dir needs a directory");
            sv::ipc::setRuntimeDirectory(v);
        } else {
            return usageError("unknown option " + a);
        }
    }
    if (gui && policy) return usageError("--gui and --answer exclude each other");
    std::string zenity;
    if (gui) {
        zenity = findInPath("zenity");
        if (zenity.empty()) {
            std::fprintf(stderr,
                         "sorvel consent-agent: --gui needs zenity, which is not installed "
                         "(apt-get install zenity)\n");
            return 1;
        }
        if (!std::getenv("DISPLAY") && !std::getenv("WAYLAND_DISPLAY")) {
            std::fprintf(stderr, "sorvel consent-agent: --gui needs a display (DISPLAY)\n");
            return 1;
        }
    }
    sv::log::setOutputEnabled(false);

    // Shared with the agent's closures, which may outlive this function by
    // a moment.
    auto loop = std::make_shared<sv::cli::MainLoop>();
    sv::ConsentAgent::Options options;
    options.preferredLanguages = sv::preferredLanguages();
    if (policy) {
        options.presenter = [p = *policy](const ConsentAlert& alert,
                                          sv::ConsentAgent::Answer answer) {
            ConsentResponse r = sv::responseForPolicy(alert, p);
            std::fprintf(stderr, "sorvel consent-agent: \"%s\": %s\n", alert.title.c_str(),
                         sv::consentResponseName(r));
            answer(r);
        };
    } else if (gui) {
        options.presenter = [zenity](const ConsentAlert& alert, sv::ConsentAgent::Answer answer) {
            static auto queue = sv::DispatchQueue::serial("org.sorvel.consent-agent.dialog");
            queue->async([zenity, alert, answer] { answer(askZenity(zenity, alert)); });
        };
    } else {
        options.presenter = sv::cli::askInTerminal;
    }
    // Read and written on the loop's thread only.
    auto agent = std::make_shared<std::shared_ptr<sv::ConsentAgent>>();
    auto waitingShown = std::make_shared<bool>(false);
    options.events = [loop, agent, waitingShown, once](sv::ConsentAgent::Event event,
                                                       const std::string& detail) {
        loop->post([loop, agent, waitingShown, once, event, detail] {
            using E = sv::ConsentAgent::Event;
            switch (event) {
                case E::Registered:
                    *waitingShown = false;
                    std::fprintf(stderr, "sorvel consent-agent: registered with the service\n");
                    break;
                case E::WaitingForService:
                    if (!*waitingShown)
                        std::fprintf(stderr,
                                     "sorvel consent-agent: waiting for the service (%s)...\n",
                                     sv::ipc::servicePath(sv::kShellServiceName).c_str());
                    *waitingShown = true;
                    break;
                case E::RegistrationFailed:
                    std::fprintf(stderr, "sorvel consent-agent: the service refused: %s\n",
                                 detail.c_str());
                    loop->quit(1);
                    break;
                case E::Answered:
                    if (once && *agent)
                        (*agent)->flush([loop] { loop->post([loop] { loop->quit(0); }); });
                    break;
            }
        });
    };
    // The events only reach the agent through the loop, which runs below.
    *agent = sv::ConsentAgent::create(std::move(options));
    loop->handleTerminationSignals([loop = loop.get()](int) { loop->quit(0); });
    (*agent)->start();
    int status = loop->run();
    auto done = std::move(*agent);  // the events hold the holder: let go of the agent
    done->stop();
    return status;
}

sv::cli::CliRegistration reg({"consent-agent", "ask the user for consent to record (the agent)",
                              &runConsentAgent});

}  // namespace
