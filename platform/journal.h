#pragma once

#include <string_view>

// The platform's and the host's own diagnostics: one line on standard error, which a service manager keeps in its
// journal. Never the agent's log file. Any thread; a line comes out whole.
void JournalNotice(std::string_view text);
void JournalError(std::string_view text);
