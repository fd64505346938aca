#pragma once

#include <chrono>
#include <string>

#include "tools/exit_status.h"
#include "tools/printer.h"
#include "tools/status_command.h"

// Asks natagentd, and prints what it says. An empty directory: the default. The time-out counts for each answer.
ExitStatus RunStatus(const StatusCommand& command, const std::string& runtimeDir, std::chrono::milliseconds timeout,
                     Printer& printer);
