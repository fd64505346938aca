#pragma once

#include "tools/exit_status.h"
#include "tools/printer.h"
#include "tools/stun_command.h"
#include "tools/stun_query.h"
#include "tools/timeouts.h"

// Asks every address of every server in turn, from one port, and prints what each says; of two and more also whether
// the NAT gave them all the same mapping. When the local port belongs to another program, prints what the agent of the
// runtime directory has learnt of it instead. Each look-up may take as long as an answer of the agent, each address as
// long as a contact. The waiting for servers is done by `waitReadable`.
ExitStatus RunStun(const StunCommand& command, const std::string& runtimeDir, const Timeouts& timeouts,
                   Printer& printer, const WaitReadable& waitReadable);
