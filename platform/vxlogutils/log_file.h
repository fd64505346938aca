#pragma once

#include <sys/types.h>

#include <chrono>
#include <string>
#include <string_view>

#include "platform/types.h"
#include "platform/unique_fd.h"

// The file behind a log stream: appended to, kept under a size, and got back by itself after whatever happened to it.
// A regular file only, by its only name; nothing else is opened, so that no call waits. One thread at a time. No
// failure is returned: the journal hears of each reason once, and again when writing works.
class LogFile {
 public:
  // maxBytes 0: no limit. An empty path: a file that takes nothing.
  LogFile(std::string path, u64 maxBytes, int keepFiles);

  // Appends the text in one write, after rotation where the file would become larger than its limit. A text that
  // cannot be written whole leaves nothing behind. A text above the limit has a file of its own.
  void Append(std::string_view text);

  // Whether this many bytes more are within the limit.
  bool HasRoomFor(u64 bytes) const { return m_maxBytes == 0 || m_size + bytes <= m_maxBytes; }

 private:
  using Clock = std::chrono::steady_clock;

  // Opens the file where it is not open, or no longer the one at its path (removed, or moved away by another program).
  // Looks at the path a few times a second at most.
  void LookAfter();
  void Open();
  void Rotate();
  bool WriteWhole(std::string_view text);
  void UndoPartOf(u64 written);
  // Both texts are never freed.
  void Failed(std::string_view what, std::string_view why);
  void Works();

  const std::string m_path;
  const u64 m_maxBytes;
  const int m_keepFiles;
  UniqueFd m_file;
  u64 m_size = 0;  // of the open file
  dev_t m_device = 0;
  ino_t m_inode = 0;
  Clock::time_point m_nextLook{};
  std::string_view m_failedWhat;  // what the journal heard last, until writing works
  std::string_view m_failedWhy;
};
