#include "platform/messaging/file_id.h"

#include <fcntl.h>

namespace messaging {

std::optional<FileId> IdOf(int fd) {
  struct stat file {};
  if (::fstat(fd, &file) != 0) {
    return std::nullopt;
  }
  return IdOf(file);
}

std::optional<FileId> FindFile(int dir, const char* name) {
  struct stat file {};
  if (::fstatat(dir, name, &file, AT_SYMLINK_NOFOLLOW) != 0) {
    return std::nullopt;
  }
  return IdOf(file);
}

std::string PathOf(int fd) { return "/proc/self/fd/" + std::to_string(fd); }

}  // namespace messaging
