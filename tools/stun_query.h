#pragma once

#include <functional>
#include <optional>
#include <string>

#include "platform/stunutils/message.h"
#include "platform/stunutils/timing.h"
#include "platform/unique_fd.h"

struct StunOutcome {
  std::optional<stun::Endpoint> mapped;  // absent: why it is not known is in `error` and `text`
  stun::Endpoint local;
  std::chrono::microseconds roundTrip{};  // from the last request to the answer
  u32 sends = 0;
  const char* error = nullptr;  // "timeout", "refused" (by the server), "unreachable"
  std::string text;             // what more there is to say about the error
};

// Waits until the descriptor can be read or the time has come; whether it can be read.
using WaitReadable = std::function<bool(int fd, stun::TimePoint until)>;

// One UDP socket, from which server after server is asked, so that the mappings can be compared.
class StunQuery {
 public:
  explicit StunQuery(const WaitReadable& waitReadable) : m_waitReadable(waitReadable) {}

  // 0: any port that is free. Returns 0, or why it cannot be had, an errno.
  int Bind(u16 localPort);

  // One transaction, retransmitted as RFC 8489, 6.2.1 has it, and over at the deadline at the latest. Bind comes first.
  StunOutcome Ask(const stun::Endpoint& server, stun::TimePoint deadline);

 private:
  // The server's answer to what was sent last; nothing when none has come by then, or with an error in the outcome.
  std::optional<stun::Answer> AwaitAnswer(const stun::TransactionId& id, stun::TimePoint until, StunOutcome& outcome);

  const WaitReadable& m_waitReadable;
  UniqueFd m_socket;
};
