#pragma once

#include <fcntl.h>
#include <limits.h>
#include <poll.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/uio.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cstddef>
#include <cstring>
#include <ctime>
#include <iterator>
#include <string_view>

#include "platform/unique_fd.h"

namespace journal {

// What a write of at most so many bytes puts into a pipe is never torn apart.
constexpr std::size_t kMaxLine = PIPE_BUF;

// Keeps the signals of a failed write from the calling thread, and a terminal from stopping the process.
class WriteSignalsOff {
 public:
  WriteSignalsOff() {
    ::sigemptyset(&m_raised);
    ::sigaddset(&m_raised, SIGPIPE);
    ::sigaddset(&m_raised, SIGXFSZ);
    sigset_t blocked = m_raised;
    ::sigaddset(&blocked, SIGTTOU);
    ::pthread_sigmask(SIG_BLOCK, &blocked, &m_mask);
    sigset_t pending;
    ::sigpending(&pending);
    for (const int number : {SIGPIPE, SIGXFSZ}) {
      if (::sigismember(&pending, number) == 1) {
        ::sigdelset(&m_raised, number);
      }
    }
  }
  ~WriteSignalsOff() {
    const timespec atOnce{};
    while (::sigtimedwait(&m_raised, nullptr, &atOnce) > 0) {
    }
    ::pthread_sigmask(SIG_SETMASK, &m_mask, nullptr);
  }
  WriteSignalsOff(const WriteSignalsOff&) = delete;
  WriteSignalsOff& operator=(const WriteSignalsOff&) = delete;

 private:
  sigset_t m_raised;
  sigset_t m_mask;
};

// Lines to a descriptor that may be anything and that belongs to others too: its flags stay as they are. One thread at
// a time; no call waits or raises a signal.
class LineOutput {
 public:
  // Takes the line, of at most kMaxLine bytes, or nothing of it. What the descriptor takes only a part of is completed
  // before the next line.
  bool Write(int fd, std::string_view line) {
    if (m_restSize > 0) {
      const std::size_t written = Some(fd, {m_rest, m_restSize});
      m_restSize -= written;
      std::memmove(m_rest, m_rest + written, m_restSize);
      if (m_restSize > 0) {
        return false;
      }
    }
    const std::size_t written = Some(fd, line);
    if (written == 0) {
      return false;
    }
    m_restSize = line.size() - written;
    std::memcpy(m_rest, line.data() + written, m_restSize);
    return true;
  }

 private:
  // Each of these returns how many bytes were taken.
  static std::size_t Some(int fd, std::string_view text) {
    struct stat status {};
    if (::fstat(fd, &status) != 0) {
      return 0;
    }
    if (S_ISSOCK(status.st_mode)) {
      return Taken([&] { return ::send(fd, text.data(), text.size(), MSG_DONTWAIT | MSG_NOSIGNAL); });
    }
    const WriteSignalsOff off;
    if (S_ISREG(status.st_mode) || S_ISBLK(status.st_mode)) {
      return Taken([&] { return ::write(fd, text.data(), text.size()); });
    }
    const int flags = ::fcntl(fd, F_GETFL);
    if ((!S_ISFIFO(status.st_mode) && !S_ISCHR(status.st_mode)) || flags < 0 || (flags & O_ACCMODE) == O_RDONLY) {
      return 0;
    }
    if ((flags & O_NONBLOCK) != 0) {
      return Taken([&] { return ::write(fd, text.data(), text.size()); });
    }
    return ToPipeOrDevice(fd, S_ISFIFO(status.st_mode) ? kMaxLine : 1, text);
  }

  // `atOnce`: how much never waits where poll has found room.
  static std::size_t ToPipeOrDevice(int fd, std::size_t atOnce, std::string_view text) {
    const iovec part{const_cast<char*>(text.data()), text.size()};
    const ssize_t written = ::pwritev2(fd, &part, 1, -1, RWF_NOWAIT);
    if (written >= 0 || errno == EAGAIN || errno == EPIPE) {
      return written < 0 ? 0 : static_cast<std::size_t>(written);
    }
    // An older kernel, or a terminal. A description of our own may be non-blocking.
    char path[32] = "/proc/self/fd/";
    *std::to_chars(path + std::strlen(path), std::end(path) - 1, fd).ptr = '\0';
    const UniqueFd own(::open(path, O_WRONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC));
    if (own) {
      return Taken([&] { return ::write(own.Get(), text.data(), text.size()); });
    }
    if (errno == ENXIO) {  // a named pipe without a reader
      return 0;
    }
    // No descriptor left, or not permitted. Only another writer could take the room between the two calls.
    std::size_t done = 0;
    pollfd room{fd, POLLOUT, 0};
    while (done < text.size() && ::poll(&room, 1, 0) == 1 && room.revents == POLLOUT) {
      const std::string_view next = text.substr(done, atOnce);
      const std::size_t taken = Taken([&] { return ::write(fd, next.data(), next.size()); });
      if (taken == 0) {
        break;
      }
      done += taken;
    }
    return done;
  }

  template <class Call>
  static std::size_t Taken(const Call& call) {
    ssize_t result = call();
    while (result < 0 && errno == EINTR) {
      result = call();
    }
    return result < 0 ? 0 : static_cast<std::size_t>(result);
  }

  std::size_t m_restSize = 0;
  char m_rest[kMaxLine] = {};
};

}  // namespace journal
