#include "client/cli/consent_prompt.h"

#include <cstdio>
#include <cstdlib>
#include <string>

#include "platform/dispatch.h"
#include "support/localization.h"

namespace sv::cli {
namespace {

std::string localized(const char* key, const char* english) {
    auto s = _svLocalizedStringFromFrameworkBundleWithKey(key, "");
    return s && !s->empty() && *s != key ? *s : english;
}

}  // namespace

void askInTerminal(const ConsentAlert& alert, ConsentAgent::Answer answer) {
    static auto queue = DispatchQueue::serial("org.sorvel.consent-agent.prompt");
    queue->async([alert, answer] {
        auto buttons = buttonsInDisplayOrder(alert);
        std::printf("\n%s\n%s\n\n", alert.title.c_str(), alert.message.c_str());
        for (size_t i = 0; i < buttons.size(); ++i)
            std::printf("  %zu) %s\n", i + 1, buttons[i].second.c_str());
        std::string prompt = localized("CONSENT_AGENT_PROMPT", "Your choice");
        while (true) {
            std::printf("%s [1-%zu]: ", prompt.c_str(), buttons.size());
            std::fflush(stdout);
            char line[64];
            if (!std::fgets(line, sizeof line, stdin)) {
                std::printf("\n");
                answer(ConsentResponse::Cancel);
                return;
            }
            char* end = nullptr;
            long choice = std::strtol(line, &end, 10);
            while (end && (*end == ' ' || *end == '\n' || *end == '\r')) ++end;
            if (end != line && end && *end == 0 && choice >= 1 &&
                size_t(choice) <= buttons.size()) {
                answer(buttons[size_t(choice) - 1].first);
                return;
            }
        }
    });
}

}  // namespace sv::cli
