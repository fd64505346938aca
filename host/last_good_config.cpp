#include "host/last_good_config.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "platform/journal.h"

namespace {

constexpr const char* kKept = "last-good.toml";
constexpr const char* kNew = "last-good.toml.new";
constexpr const char* kState = "state";

std::string Reason(const std::string& what) { return what + ": " + std::strerror(errno); }

bool WriteAll(int fd, std::string_view text) {
  while (!text.empty()) {
    const ssize_t written = ::write(fd, text.data(), text.size());
    if (written < 0 && errno == EINTR) {
      continue;
    }
    if (written < 0) {
      return false;
    }
    text.remove_prefix(static_cast<std::size_t>(written));
  }
  return true;
}

std::string Resolve(std::string given) {
  if (!given.empty()) {
    return given;
  }
  const char* fromEnvironment = ::getenv("NATAGENT_STATE_DIR");
  return fromEnvironment != nullptr && *fromEnvironment != '\0' ? fromEnvironment : "/var/lib/natagent";
}

}  // namespace

LastGoodConfig::LastGoodConfig(std::string stateDir) : m_dirName(Resolve(std::move(stateDir))) {
  const std::string fault = Open();
  if (!fault.empty()) {
    m_dir.Reset();
    m_state.Reset();
    JournalNotice("natagentd: the last good configuration is not kept: " + fault);
    return;
  }
  m_kept = ReadConfig(File());
  m_isKept = m_kept.settings.has_value();
}

std::string LastGoodConfig::File() const { return m_dirName + "/" + kKept; }

std::string LastGoodConfig::Open() {
  m_dir = UniqueFd(::open(m_dirName.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  if (!m_dir) {
    return Reason(m_dirName);
  }
  m_state = UniqueFd(::openat(m_dir.Get(), kState, O_RDWR | O_CREAT | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC, 0600));
  struct stat status {};
  if (!m_state || ::fstat(m_state.Get(), &status) != 0) {
    return Reason(m_dirName + "/" + kState);
  }
  if (!S_ISREG(status.st_mode)) {
    return m_dirName + "/" + kState + " is not a regular file";
  }
  if (::flock(m_state.Get(), LOCK_EX | LOCK_NB) != 0) {
    return errno == EWOULDBLOCK ? m_dirName + " is in use by another natagentd" : Reason(m_dirName + "/" + kState);
  }
  m_isAfterCrash = status.st_size != 0;
  return {};
}

void LastGoodConfig::Keep(std::string_view text) {
  if (!m_dir || (m_isKept && m_kept.text == text)) {
    return;
  }
  const std::string fault = Write(text);
  if (!fault.empty()) {
    JournalError("natagentd: the configuration is not kept in " + File() + ": " + fault);
    return;
  }
  m_kept.text = text;
  m_isKept = true;
}

std::string LastGoodConfig::Write(std::string_view text) {
  ::unlinkat(m_dir.Get(), kNew, 0);  // of a run that was killed here
  const UniqueFd file(::openat(m_dir.Get(), kNew, O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600));
  if (file && WriteAll(file.Get(), text) && ::fsync(file.Get()) == 0 &&
      ::renameat(m_dir.Get(), kNew, m_dir.Get(), kKept) == 0 && ::fsync(m_dir.Get()) == 0) {
    return {};
  }
  std::string fault = std::strerror(errno);
  ::unlinkat(m_dir.Get(), kNew, 0);
  return fault;
}

void LastGoodConfig::Mark(std::string_view state) {
  if (!m_state) {
    return;
  }
  if (::ftruncate(m_state.Get(), 0) != 0 || ::lseek(m_state.Get(), 0, SEEK_SET) != 0 ||
      !WriteAll(m_state.Get(), state) || ::fdatasync(m_state.Get()) != 0) {
    JournalError(Reason("natagentd: cannot write " + m_dirName + "/" + kState));
  }
}
