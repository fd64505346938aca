#pragma once

#include <sys/stat.h>

#include <optional>
#include <string>

namespace messaging {

// Tells a file from another of the same name. As long as one is open, or a bound socket, no other gets its id.
struct FileId {
  dev_t device = 0;
  ino_t inode = 0;

  bool operator==(const FileId&) const = default;
};

inline FileId IdOf(const struct stat& file) { return {file.st_dev, file.st_ino}; }

// The open file; nothing, with errno set, when it cannot be looked at.
std::optional<FileId> IdOf(int fd);

// The file of a name in an open directory; a symbolic link counts as itself. Nothing, with errno set, as above.
std::optional<FileId> FindFile(int dir, const char* name);

// Where /proc shows an open descriptor: a path that leads to that very file, whatever its own path has become. Works
// for O_PATH descriptors too.
std::string PathOf(int fd);

}  // namespace messaging
