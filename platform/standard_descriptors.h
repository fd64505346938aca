#pragma once

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>

// Gives every one of the descriptors 0 to 2 that is closed a place holder, so that no socket or file opened later is
// taken for standard input or written to as an output. Reading and writing fail with EBADF as before. To be called
// before anything is opened, while there is one thread. False, with errno set, when a place holder cannot be opened.
inline bool FillStandardDescriptors() {
  for (int fd = STDIN_FILENO; fd <= STDERR_FILENO; ++fd) {
    if (::fcntl(fd, F_GETFD) != -1 || errno != EBADF) continue;
    // The lowest free number is `fd`.
    if (::open("/dev/null", fd == STDIN_FILENO ? O_WRONLY : O_RDONLY) != fd) return false;
  }
  return true;
}
