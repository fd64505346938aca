#include "platform/vxlogutils/log_file.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <system_error>
#include <utility>

#include "platform/journal.h"

namespace {

// How often the file's path is looked at: rarely enough to cost nothing, often enough that a log which was moved away,
// or could not be opened, is back before anybody misses it.
constexpr std::chrono::milliseconds kLookInterval(200);

// Writes all of it, or returns what was written so far with errno set.
u64 WriteAll(int file, std::string_view text) {
  u64 written = 0;
  while (written < text.size()) {
    const ssize_t count = ::write(file, text.data() + written, text.size() - written);
    if (count > 0) {
      written += static_cast<u64>(count);
    } else if (count == 0) {
      errno = EIO;
      break;
    } else if (errno != EINTR) {
      break;
    }
  }
  return written;
}

}  // namespace

LogFile::LogFile(std::string path, u64 maxBytes, int keepFiles)
    : m_path(std::move(path)), m_maxBytes(maxBytes), m_keepFiles(keepFiles) {
  LookAfter();
}

void LogFile::Append(std::string_view text) {
  LookAfter();
  if (!m_file || text.empty()) {
    return;
  }
  if (!HasRoomFor(text.size())) {
    Rotate();
    if (!m_file) {
      return;
    }
  }
  if (WriteWhole(text)) {
    Works();
  } else {
    Failed("written", errno);
  }
}

void LogFile::LookAfter() {
  const Clock::time_point now = Clock::now();
  if (m_path.empty() || now < m_nextLook) {
    return;
  }
  m_nextLook = now + kLookInterval;
  if (m_file) {
    struct stat found {};
    if (::stat(m_path.c_str(), &found) == 0 && found.st_dev == m_device && found.st_ino == m_inode) {
      m_size = static_cast<u64>(found.st_size);
      return;
    }
    m_file.Reset();
  }
  Open();
}

void LogFile::Open() {
  m_file = UniqueFd(::open(m_path.c_str(), O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC | O_NOCTTY, 0640));
  struct stat opened {};
  if (!m_file || ::fstat(m_file.Get(), &opened) != 0) {
    const int error = errno;
    m_file.Reset();
    Failed("opened", error);
    return;
  }
  m_size = static_cast<u64>(opened.st_size);
  m_rotates = m_maxBytes > 0 && S_ISREG(opened.st_mode);
  m_device = opened.st_dev;
  m_inode = opened.st_ino;
}

void LogFile::Rotate() {
  for (int older = m_keepFiles; older > 1; --older) {
    // A file that is not there yet is no fault.
    ::rename((m_path + "." + std::to_string(older - 1)).c_str(), (m_path + "." + std::to_string(older)).c_str());
  }
  const int result = m_keepFiles > 0 ? ::rename(m_path.c_str(), (m_path + ".1").c_str()) : ::unlink(m_path.c_str());
  if (result != 0 && errno != ENOENT) {
    // The limit protects the device's storage, so it holds even where the older text cannot be kept.
    const int error = errno;
    if (::ftruncate(m_file.Get(), 0) == 0) {
      m_size = 0;
    }
    Failed("rotated", error);
    return;
  }
  m_file.Reset();
  Open();
}

bool LogFile::WriteWhole(std::string_view text) {
  const u64 written = WriteAll(m_file.Get(), text);
  if (written < text.size()) {
    const int error = errno;
    UndoPartOf(written);
    errno = error;
    return false;
  }
  m_size += written;
  return true;
}

void LogFile::UndoPartOf(u64 written) {
  struct stat now {};
  if (written == 0 || ::fstat(m_file.Get(), &now) != 0) {
    return;
  }
  m_size = static_cast<u64>(now.st_size);
  if (m_size >= written && ::ftruncate(m_file.Get(), static_cast<off_t>(m_size - written)) == 0) {
    m_size -= written;
  }
}

void LogFile::Failed(const char* what, int error) {
  if (!std::exchange(m_failing, true)) {
    JournalError("the log file " + m_path + " cannot be " + what + ": " + std::generic_category().message(error) +
                 "; its texts are lost until it can");
  }
}

void LogFile::Works() {
  if (std::exchange(m_failing, false)) {
    JournalNotice("the log file " + m_path + " is written again");
  }
}
