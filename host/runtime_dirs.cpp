#include "host/runtime_dirs.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <system_error>

#include "platform/messaging/runtime_dir.h"

namespace {

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
  const std::string fault = Prepare(dirs.runtime, 0755);
  return fault.empty() ? Prepare(dirs.log, 0750) : fault;
}
