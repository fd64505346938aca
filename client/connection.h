#pragma once

#include <string>

#include "client/natclient.h"
#include "platform/messaging/frame.h"
#include "platform/unique_fd.h"

// One party's connection. The buffers are kept from frame to frame.
struct natclient {
  natclient_party party{};
  UniqueFd fd;
  bool gone = false;  // the agent hung up, and hang_up was called
  std::string incoming;
  std::string outgoing;
  messaging::Frame received;
  messaging::Frame request;
};

namespace natclient_detail {

// When a wait ends. Negative milliseconds: never.
class Deadline {
 public:
  explicit Deadline(int milliseconds);
  // For poll: -1 never, else what is left.
  int Left() const;

 private:
  bool m_never;
  long long m_end;  // milliseconds of the monotonic clock
};

// As natclient_wait, for any descriptor.
int WaitFor(int fd, short events, const Deadline& deadline);

// Connects to the queue's socket. A negative errno, or 0.
int Connect(natclient& client, const char* runtimeDir, int waitMs, const Deadline& deadline);

// Waits for the first frame and leaves it to be dispatched. 0 for a welcome, else a negative errno.
int AwaitWelcome(natclient& client, const Deadline& deadline);

}  // namespace natclient_detail
