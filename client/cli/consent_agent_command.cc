// `sorvel consent-agent`: shows the recording service's consent alerts to
// the user in the terminal, in a zenity dialog (--gui), or answers them
// without asking (--answer, for scripts and tests).
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <mutex>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "client/cli/cli_loop.h"
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
    return sv::cli::usageError("consent-agent", message, kUsage);
}

std::string localized(const char* key, const char* english) {
    auto s = sv::_svLocalizedStringFromFrameworkBundleWithKey(key, "");
    return s && !s->empty() && *s != key ? *s : english;
}

// Terminal: one question at a time on a queue of its own, so that reading
// the answer never holds up the agent's connection.
// What the agent shows at the moment, so that a withdrawal can take it
// down: the alert the terminal asks about (its prompt waits on standard
// input and on a pipe that a withdrawal writes to), and the dialogs'
// processes. Shared by the prompt's queue and the agent's queue.
class Showing {
  public:
    static Showing& instance() {
        static auto* showing = new Showing;
        return *showing;
    }
    // The terminal prompt of `alertID` begins; false when it was withdrawn
    // before it could be shown.
    bool beginPrompt(uint64_t alertID) {
        std::lock_guard lock(mutex_);
        if (withdrawnEarly_.erase(alertID)) return false;
        prompt_ = alertID;
        return true;
    }
    // The dialog of `alertID` is about to start; false when it was
    // withdrawn before.
    bool mayShowDialog(uint64_t alertID) {
        std::lock_guard lock(mutex_);
        return withdrawnEarly_.erase(alertID) == 0;
    }
    void endPrompt() {
        std::lock_guard lock(mutex_);
        prompt_ = 0;
    }
    // Readable when the current prompt is withdrawn; -1 without a pipe.
    int wakeFd() {
        std::lock_guard lock(mutex_);
        if (!wake_[0].valid()) {
            int fds[2];
            if (pipe2(fds, O_CLOEXEC | O_NONBLOCK) == 0) {
                wake_[0] = sv::UniqueFd(fds[0]);
                wake_[1] = sv::UniqueFd(fds[1]);
            }
        }
        return wake_[0].get();
    }
    void drainWake() {
        char buf[16];
        while (read(wakeFd(), buf, sizeof buf) > 0) {
        }
    }
    void dialogStarted(uint64_t alertID, pid_t pid) {
        std::lock_guard lock(mutex_);
        // Withdrawn between the check and the start: take it down at once.
        if (withdrawnEarly_.erase(alertID)) kill(pid, SIGTERM);
        dialogs_[alertID] = pid;
    }
    void dialogEnded(uint64_t alertID) {
        std::lock_guard lock(mutex_);
        dialogs_.erase(alertID);
    }
    void withdraw(uint64_t alertID) {
        std::lock_guard lock(mutex_);
        if (auto it = dialogs_.find(alertID); it != dialogs_.end()) {
            kill(it->second, SIGTERM);
        } else if (prompt_ == alertID) {
            if (wake_[1].valid()) (void)!write(wake_[1].get(), "w", 1);
        } else if (withdrawnEarly_.size() < 64) {
            // Still waiting for its turn on the prompt's queue.
            withdrawnEarly_.insert(alertID);
        }
    }

  private:
    std::mutex mutex_;
    uint64_t prompt_ = 0;
    std::set<uint64_t> withdrawnEarly_;
    std::map<uint64_t, pid_t> dialogs_;
    sv::UniqueFd wake_[2];
};

// A line from standard input, or nullopt at its end or when the prompt is
// withdrawn (`withdrawn` then set).
std::optional<std::string> readChoice(bool* withdrawn) {
    std::string line;
    const int wake = Showing::instance().wakeFd();
    for (;;) {
        pollfd fds[2] = {{STDIN_FILENO, POLLIN, 0}, {wake, POLLIN, 0}};
        if (poll(fds, wake >= 0 ? 2 : 1, -1) < 0) {
            if (errno == EINTR) continue;
            return std::nullopt;
        }
        if (wake >= 0 && (fds[1].revents & POLLIN)) {
            Showing::instance().drainWake();
            *withdrawn = true;
            return std::nullopt;
        }
        if (!(fds[0].revents & (POLLIN | POLLHUP | POLLERR))) continue;
        char c;
        ssize_t n = read(STDIN_FILENO, &c, 1);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) return std::nullopt;
        if (c == '\n') return line;
        if (line.size() < 64) line.push_back(c);
    }
}

void presentInTerminal(const ConsentAlert& alert, sv::ConsentAgent::Answer answer) {
    static auto queue = sv::DispatchQueue::serial("org.sorvel.consent-agent.prompt");
    queue->async([alert, answer] {
        if (!Showing::instance().beginPrompt(alert.alertID)) return;
        auto buttons = sv::buttonsInDisplayOrder(alert);
        std::printf("\n%s\n%s\n\n", alert.title.c_str(), alert.message.c_str());
        for (size_t i = 0; i < buttons.size(); ++i)
            std::printf("  %zu) %s\n", i + 1, buttons[i].second.c_str());
        std::string prompt = localized("CONSENT_AGENT_PROMPT", "Your choice");
        while (true) {
            std::printf("%s [1-%zu]: ", prompt.c_str(), buttons.size());
            std::fflush(stdout);
            bool withdrawn = false;
            auto line = readChoice(&withdrawn);
            if (!line) {
                std::printf("\n");
                std::fflush(stdout);
                Showing::instance().endPrompt();
                if (!withdrawn) answer(ConsentResponse::Cancel);
                return;
            }
            char* end = nullptr;
            long choice = std::strtol(line->c_str(), &end, 10);
            while (end && (*end == ' ' || *end == '\r')) ++end;
            if (end != line->c_str() && end && *end == 0 && choice >= 1 &&
                size_t(choice) <= buttons.size()) {
                Showing::instance().endPrompt();
                answer(buttons[size_t(choice) - 1].first);
                return;
            }
        }
    });
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

// A zenity question for `alert`: its command line, and the label of its
// extra button (empty for none).
struct ZenityQuestion {
    std::vector<std::string> args;
    std::string extra;
};

// Accept buttons as OK and extra button, decline as Cancel; nullopt for an
// alert without an accept button.
std::optional<ZenityQuestion> zenityQuestion(const std::string& zenity, const ConsentAlert& alert) {
    ZenityQuestion q;
    q.args = {zenity,
              "--question",
              "--no-markup",
              "--width=460",
              "--title=" + alert.title,
              "--text=" + alert.title + "\n\n" + alert.message};
    if (alert.alternateButton) {
        q.args.push_back("--ok-label=" + *alert.alternateButton);
        if (alert.otherButton) q.extra = *alert.otherButton;
    } else if (alert.otherButton) {
        q.args.push_back("--ok-label=" + *alert.otherButton);
    } else {
        return std::nullopt;
    }
    q.args.push_back("--cancel-label=" + alert.defaultButton);
    if (!q.extra.empty()) q.args.push_back("--extra-button=" + q.extra);
    return q;
}

// How a dialog ended: its wait status and what it printed (at most about
// 4 KiB, without the line end).
struct DialogEnd {
    int status = 0;
    std::string printed;
};

// Runs the dialog program `args[0]` for the alert `alertID` (withdrawing
// the alert ends it) until it exits; nullopt when it could not be started
// or waited for.
std::optional<DialogEnd> runDialog(std::vector<std::string> args, uint64_t alertID) {
    int pipeFds[2];
    if (pipe2(pipeFds, O_CLOEXEC) != 0) return std::nullopt;
    sv::UniqueFd readEnd(pipeFds[0]), writeEnd(pipeFds[1]);
    posix_spawn_file_actions_t fa;
    posix_spawn_file_actions_init(&fa);
    posix_spawn_file_actions_adddup2(&fa, writeEnd.get(), STDOUT_FILENO);
    std::vector<char*> argv;
    for (auto& a : args) argv.push_back(a.data());
    argv.push_back(nullptr);
    pid_t pid = -1;
    int rc = posix_spawn(&pid, args[0].c_str(), &fa, nullptr, argv.data(), environ);
    posix_spawn_file_actions_destroy(&fa);
    if (rc != 0) return std::nullopt;
    Showing::instance().dialogStarted(alertID, pid);
    writeEnd.reset();  // the child's copy is the only writer left
    DialogEnd ended;
    char buf[256];
    ssize_t n;
    while ((n = read(readEnd.get(), buf, sizeof buf)) != 0) {
        if (n < 0 && errno == EINTR) continue;
        if (n < 0 || ended.printed.size() > 4096) break;
        ended.printed.append(buf, size_t(n));
    }
    readEnd.reset();
    const bool reaped = waitpid(pid, &ended.status, 0) == pid;
    Showing::instance().dialogEnded(alertID);
    if (!reaped) return std::nullopt;
    while (!ended.printed.empty() && (ended.printed.back() == '\n' || ended.printed.back() == '\r'))
        ended.printed.pop_back();
    return ended;
}

// Asks with a zenity question. Closing the window counts as Cancel, which
// declines as well.
ConsentResponse askZenity(const std::string& zenity, const ConsentAlert& alert) {
    auto question = zenityQuestion(zenity, alert);
    if (!question) return ConsentResponse::Cancel;
    auto ended = runDialog(question->args, alert.alertID);
    if (ended && WIFSIGNALED(ended->status) && WTERMSIG(ended->status) == SIGTERM)
        return ConsentResponse::Cancel;  // withdrawn (or ended by the user's session)
    if (!ended || !WIFEXITED(ended->status)) {
        std::fprintf(stderr, "sorvel consent-agent: zenity failed; the question is declined\n");
        return ConsentResponse::Cancel;
    }
    switch (WEXITSTATUS(ended->status)) {
        case 0:
            return alert.alternateButton ? ConsentResponse::Alternate : ConsentResponse::Other;
        case 1:
            return !question->extra.empty() && ended->printed == question->extra
                       ? ConsentResponse::Other
                       : ConsentResponse::Default;
        default:
            return ConsentResponse::Cancel;
    }
}

// The command line of the agent; `exitStatus` is set when the command is
// done (help, a usage error).
struct AgentArguments {
    std::optional<sv::ConsentPolicy> policy;
    bool gui = false, once = false;
    std::optional<int> exitStatus;
};

AgentArguments parseAgentArguments(int argc, char** argv) {
    AgentArguments args;
    auto fail = [&](const std::string& message) {
        args.exitStatus = usageError(message);
        return args;
    };
    for (int i = 1; i < argc; ++i) {
        std::string a = argv[i];
        auto value = [&]() -> const char* { return i + 1 < argc ? argv[++i] : nullptr; };
        const char* v = nullptr;
        if (a == "-h" || a == "--help") {
            std::fputs(kUsage, stdout);
            args.exitStatus = 0;
            return args;
        } else if (a == "--answer") {
            if (!(v = value()) || !(args.policy = sv::parseConsentPolicy(v)))
                return fail("--answer takes accept, accept-without-mic or decline");
        } else if (a == "--gui") {
            args.gui = true;
        } else if (a == "--once") {
            args.once = true;
        } else if (a == "--runtime-dir") {
            if (!(v = value())) return fail("--runtime-dir needs a directory");
            sv::ipc::setRuntimeDirectory(v);
        } else {
            return fail("unknown option " + a);
        }
    }
    if (args.gui && args.policy) return fail("--gui and --answer exclude each other");
    return args;
}

// The zenity that shows the dialogs, or nothing (with the reason printed)
// when the dialogs cannot be shown.
std::optional<std::string> dialogProgram() {
    std::string zenity = findInPath("zenity");
    if (zenity.empty()) {
        std::fprintf(stderr,
                     "sorvel consent-agent: --gui needs zenity, which is not installed "
                     "(apt-get install zenity)\n");
        return std::nullopt;
    }
    if (!std::getenv("DISPLAY") && !std::getenv("WAYLAND_DISPLAY")) {
        std::fprintf(stderr, "sorvel consent-agent: --gui needs a display (DISPLAY)\n");
        return std::nullopt;
    }
    return zenity;
}

// Asks the user as the arguments say: a fixed answer, a dialog or the
// terminal.
sv::ConsentAgent::Presenter presenterFor(const AgentArguments& args, const std::string& zenity) {
    if (args.policy)
        return [p = *args.policy](const ConsentAlert& alert, sv::ConsentAgent::Answer answer) {
            ConsentResponse r = sv::responseForPolicy(alert, p);
            std::fprintf(stderr, "sorvel consent-agent: \"%s\": %s\n", alert.title.c_str(),
                         sv::consentResponseName(r));
            answer(r);
        };
    if (args.gui)
        return [zenity](const ConsentAlert& alert, sv::ConsentAgent::Answer answer) {
            static auto queue = sv::DispatchQueue::serial("org.sorvel.consent-agent.dialog");
            queue->async([zenity, alert, answer] {
                if (Showing::instance().mayShowDialog(alert.alertID))
                    answer(askZenity(zenity, alert));
            });
        };
    return presentInTerminal;
}

// The agent's events, printed (and acted on) on the loop's thread. `agent`
// is read and written on the loop's thread only.
sv::ConsentAgent::EventHandler eventPrinter(
    std::shared_ptr<sv::cli::MainLoop> loop,
    std::shared_ptr<std::shared_ptr<sv::ConsentAgent>> agent, bool once) {
    auto waitingShown = std::make_shared<bool>(false);
    return [loop, agent, waitingShown, once](sv::ConsentAgent::Event event,
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
                case E::Withdrawn:
                    std::fprintf(stderr, "sorvel consent-agent: \"%s\": withdrawn by the service\n",
                                 detail.c_str());
                    break;
                case E::Answered:
                    if (once && *agent)
                        (*agent)->flush([loop] { loop->post([loop] { loop->quit(0); }); });
                    break;
            }
        });
    };
}

int runConsentAgent(int argc, char** argv) {
    AgentArguments args = parseAgentArguments(argc, argv);
    if (args.exitStatus) return *args.exitStatus;
    std::string zenity;
    if (args.gui) {
        auto program = dialogProgram();
        if (!program) return 1;
        zenity = *program;
    }
    sv::log::setOutputEnabled(false);

    // Shared with the agent's closures, which may outlive this function by
    // a moment.
    auto loop = std::make_shared<sv::cli::MainLoop>();
    auto agent = std::make_shared<std::shared_ptr<sv::ConsentAgent>>();
    sv::ConsentAgent::Options options;
    options.preferredLanguages = sv::preferredLanguages();
    options.presenter = presenterFor(args, zenity);
    options.withdraw = [](uint64_t alertID) { Showing::instance().withdraw(alertID); };
    options.events = eventPrinter(loop, agent, args.once);
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
