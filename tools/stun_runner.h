#pragma once

#include "tools/exit_status.h"
#include "tools/printer.h"
#include "tools/stun_command.h"

// Asks every address of every server in turn, from one port, and prints what each says; of two and more also whether
// the NAT gave them all the same mapping. The time-out counts for each look-up and for each address.
ExitStatus RunStun(const StunCommand& command, int timeoutMs, Printer& printer);
