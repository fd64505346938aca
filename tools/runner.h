#pragma once

#include <string>

#include "tools/exit_status.h"
#include "tools/session.h"

// Carries out the commands of a file, or of standard input when the name is empty, line by line as they come. A wrong
// line ends the run; a connection that fails does not.
ExitStatus RunLines(const std::string& file, Session& session);
