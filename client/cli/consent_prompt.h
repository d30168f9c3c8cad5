// A consent question asked in the terminal: `sorvel consent-agent` without
// --gui, and `sorvel record` while its start waits for the user.
#pragma once

#include "client/consent_agent.h"

namespace sv::cli {

// Prints the question and its numbered buttons on standard output and reads
// the choice from standard input (end of input declines). One question at a
// time, on a queue of its own, so that reading the answer never holds up the
// agent's connection; `answer` is called there.
void askInTerminal(const ConsentAlert& alert, ConsentAgent::Answer answer);

}  // namespace sv::cli
