#pragma once

#include <functional>

#include "platform/stunutils/message.h"
#include "platform/types.h"

namespace stun {

// 32 unpredictable bits a call.
using Random = std::function<u32()>;

// Of the kernel's generator, fetched some at a time. Any thread.
u32 KernelRandom();

// RFC 8489, 5: uniformly and randomly chosen.
TransactionId NewTransactionId(const Random& random);

}  // namespace stun
