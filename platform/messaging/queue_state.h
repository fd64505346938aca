#pragma once

#include <sys/types.h>

#include <array>
#include <string>

#include "platform/types.h"

namespace messaging {

// What a queue tells of itself.
struct QueueState {
  static constexpr std::size_t kReasons = 16;  // of a REFUSED frame; see frame.h

  bool isOnline = false;
  pid_t pid = 0;  // of the party, as in Peer
  uid_t uid = 0;
  std::string program;
  std::int64_t since = 0;  // milliseconds since 1970
  // Since the queue was opened.
  std::array<u64, kReasons> refusals{};
  u64 undelivered = 0;  // answers for parties that had gone
  u64 dropped = 0;      // requests that gone parties had left
};

// The last connection or message that was refused.
struct Refusal {
  u32 reason = 0;  // of the REFUSED frame; 0: none
  pid_t pid = 0;
  uid_t uid = 0;
  std::string text;
};

}  // namespace messaging
