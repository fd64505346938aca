#include "platform/vxlogutils/log_file.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <utility>

#include "platform/journal.h"

namespace {

// How often the file's path is looked at: rarely enough to cost nothing, often enough that a log which was moved away,
// or could not be opened, is back before anybody misses it.
constexpr std::chrono::milliseconds kLookInterval(200);

// Why texts are not written to it, or null. A hard link may be somebody else's file, which would grow.
const char* RefusalOf(const struct stat& file) {
  switch (file.st_mode & S_IFMT) {
    case S_IFREG:
      return file.st_nlink > 1 ? "it is a hard link to a file that has another name too" : nullptr;
    case S_IFLNK:
      return "it is a symbolic link";
    case S_IFDIR:
      return "it is a directory";
    case S_IFIFO:
      return "it is a pipe";
    case S_IFSOCK:
      return "it is a socket";
    default:
      return "it is a device";
  }
}

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
  if (m_size != 0 && !HasRoomFor(text.size())) {
    Rotate();
    if (!m_file) {
      return;
    }
  }
  if (WriteWhole(text)) {
    Works();
  } else {
    Failed("written", ::strerrordesc_np(errno));
  }
}

void LogFile::LookAfter() {
  const Clock::time_point now = Clock::now();
  if (m_path.empty() || now < m_nextLook) {
    return;
  }
  m_nextLook = now + kLookInterval;
  struct stat found {};
  const bool exists = ::lstat(m_path.c_str(), &found) == 0;
  if (m_file && exists && found.st_dev == m_device && found.st_ino == m_inode) {
    m_size = static_cast<u64>(found.st_size);
    return;
  }
  m_file.Reset();
  // To open a device or a pipe can do something to it already.
  const char* refusal = exists ? RefusalOf(found) : nullptr;
  if (refusal != nullptr) {
    Failed("opened", refusal);
  } else {
    Open();
  }
}

void LogFile::Open() {
  // Whatever came to the path meanwhile is neither followed nor waited for: a pipe's reader, a lease on a file.
  constexpr int kNoTraps = O_NOFOLLOW | O_NONBLOCK | O_NOCTTY | O_CLOEXEC;
  m_file = UniqueFd(::open(m_path.c_str(), O_WRONLY | O_APPEND | O_CREAT | kNoTraps, 0640));
  struct stat opened {};
  const char* refusal = m_file && ::fstat(m_file.Get(), &opened) == 0 ? RefusalOf(opened) : ::strerrordesc_np(errno);
  if (refusal != nullptr) {
    m_file.Reset();
    Failed("opened", refusal);
    return;
  }
  m_size = static_cast<u64>(opened.st_size);
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
    Failed("rotated", ::strerrordesc_np(error));
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

void LogFile::Failed(std::string_view what, std::string_view why) {
  if (what == m_failedWhat && why == m_failedWhy) {
    return;
  }
  m_failedWhat = what;
  m_failedWhy = why;
  JournalError(std::string("the log file ").append(m_path).append(" cannot be ").append(what).append(": ").append(why) +
               "; its texts are lost until it can");
}

void LogFile::Works() {
  if (!m_failedWhat.empty()) {
    m_failedWhat = {};
    JournalNotice("the log file " + m_path + " is written again");
  }
}
