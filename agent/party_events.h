#pragma once

#include "platform/messaging/queue_state.h"

// Tells the host of a queue's party, and of who or what was refused there.
void TellParty(bool online, int queue, const messaging::QueueState& state);
// A configuration-update notice; queue 0: the agent's own.
void TellNotice(int queue, u32 type);
void TellRefusal(int queue, const messaging::Refusal& refusal);
