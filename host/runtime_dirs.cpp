#include "host/runtime_dirs.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <system_error>

#include "platform/messaging/runtime_dir.h"
#include "platform/unique_fd.h"

namespace {

constexpr int kQueues[] = {102, 112, 113, 114, 115};

std::string Reason(const std::string& what, int error) { return what + ": " + std::strerror(error); }

std::string Prepare(const std::string& dir, mode_t mode) {
  std::error_code error;
  if (!std::filesystem::exists(dir, error)) {
    std::filesystem::create_directories(dir, error);
    if (error) return "cannot make the directory " + dir + ": " + error.message();
    if (::chmod(dir.c_str(), mode) != 0) return Reason("cannot set the mode of " + dir, errno);
  }
  if (!std::filesystem::is_directory(dir, error)) return dir + " is not a directory";
  if (::access(dir.c_str(), W_OK | X_OK) != 0) return Reason("cannot write in the directory " + dir, errno);
  return {};
}

std::string HolderPid(const std::string& lockPath) {
  std::ifstream in(lockPath);
  std::string pid;
  in >> pid;
  return pid;
}

struct flock WholeFile() {
  struct flock lock {};
  lock.l_type = F_WRLCK;
  lock.l_whence = SEEK_SET;
  return lock;
}

std::string InUse(const std::string& runtimeDir, const std::string& pid) {
  return "the runtime directory " + runtimeDir + " is in use by " +
         (pid.empty() ? "another process" : "process " + pid);
}

bool IsLocked(const std::string& lockPath) {
  const UniqueFd file(::open(lockPath.c_str(), O_RDONLY | O_CLOEXEC));
  struct flock lock = WholeFile();
  lock.l_type = F_RDLCK;
  return file && ::fcntl(file.Get(), F_OFD_GETLK, &lock) == 0 && lock.l_type != F_UNLCK;
}

bool IsSocket(const std::string& path) {
  struct stat status {};
  return ::stat(path.c_str(), &status) == 0 && S_ISSOCK(status.st_mode);
}

}  // namespace

RuntimeDirs ResolveDirs(RuntimeDirs given) {
  if (given.runtime.empty()) given.runtime = messaging::RuntimeDir();
  if (given.log.empty()) {
    const char* fromEnvironment = ::getenv("NATAGENT_LOG_DIR");
    given.log = fromEnvironment != nullptr && *fromEnvironment != '\0' ? fromEnvironment : "/var/log/natagent";
  }
  return given;
}

std::string PrepareDirs(const RuntimeDirs& dirs) {
  if (messaging::QueuePath(dirs.runtime, kQueues[0]).size() >= sizeof(sockaddr_un::sun_path)) {
    return "the runtime directory's name is too long for the sockets in it: " + dirs.runtime;
  }
  const std::string fault = Prepare(dirs.runtime, 0755);
  return fault.empty() ? Prepare(dirs.log, 0750) : fault;
}

void ExportDirs(const RuntimeDirs& dirs) {
  ::setenv("NATAGENT_RUNTIME_DIR", dirs.runtime.c_str(), 1);
  ::setenv("NATAGENT_LOG_DIR", dirs.log.c_str(), 1);
}

std::string ClaimRuntimeDir(const std::string& runtimeDir) {
  const std::string path = messaging::LockPath(runtimeDir);
  const UniqueFd file(::open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, 0644));
  if (!file) return Reason("cannot open " + path, errno);
  struct flock lock = WholeFile();
  if (::fcntl(file.Get(), F_OFD_SETLK, &lock) != 0) {
    if (errno != EAGAIN && errno != EACCES) return Reason("cannot lock " + path, errno);
    return InUse(runtimeDir, HolderPid(path));
  }
  // Whoever reads a number from now on reads that of a process that holds the lock.
  if (::ftruncate(file.Get(), 0) != 0) return Reason("cannot clear " + path, errno);
  for (const int queue : kQueues) {
    const std::string socket = messaging::QueuePath(runtimeDir, queue);
    struct stat found {};
    if (::lstat(socket.c_str(), &found) != 0) {
      if (errno == ENOENT) continue;
      return Reason("cannot look at " + socket, errno);
    }
    if (!S_ISSOCK(found.st_mode)) return socket + " is there and is no socket; it is left alone";
    if (::unlink(socket.c_str()) != 0) return Reason("cannot remove the old " + socket, errno);
  }
  return {};
}

bool QueuesOpen(const std::string& runtimeDir) {
  const std::string path = messaging::LockPath(runtimeDir);
  if (!IsLocked(path) || HolderPid(path) != std::to_string(::getpid())) return false;
  for (const int queue : kQueues) {
    if (!IsSocket(messaging::QueuePath(runtimeDir, queue))) return false;
  }
  return true;
}

std::string TakenByAnother(const std::string& runtimeDir) {
  const std::string path = messaging::LockPath(runtimeDir);
  if (!IsLocked(path)) return {};
  // No number yet: the holder has only just come, or looks whether the directory is free.
  const std::string pid = HolderPid(path);
  return pid.empty() || pid == std::to_string(::getpid()) ? std::string() : InUse(runtimeDir, pid);
}
