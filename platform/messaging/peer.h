#pragma once

#include <sys/types.h>

#include <string>

namespace messaging {

// The process at the other end of a connection, as it was when it connected.
struct Peer {
  // What cannot be told: process 0, as for one of another pid namespace, and a user that nobody is.
  static Peer Of(int socket);

  // Fills in the name of the program that the process runs.
  void LookAtProgram();

  std::string ProcessText() const;  // "process 4711"
  std::string Text() const;         // "process 4711, user 1001, program natctl"

  pid_t pid = 0;
  uid_t uid = static_cast<uid_t>(-1);
  std::string program = "unknown";  // anything but printable ASCII in it is replaced
};

}  // namespace messaging
