#include "platform/vxlogutils/log_stream.h"

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <new>
#include <string>
#include <string_view>
#include <system_error>

#include "platform/vxlogutils/log_file.h"
#include "platform/vxsysutils/thread_mutex.h"

namespace {

// A turn handles so many messages at most, and each writes about a buffer's worth.
constexpr std::size_t kHeldBuffers = 16;

// Absolute, so that the host's later change of directory does not move the log.
std::string PathOf(const char* name) {
  if (name == nullptr || *name == '\0') {
    return {};
  }
  std::filesystem::path path(name);
  const char* directory = std::getenv("NATAGENT_LOG_DIR");
  if (!path.has_parent_path() && directory != nullptr && *directory != '\0') {
    path = directory / path;
  }
  std::error_code error;
  const std::filesystem::path absolute = std::filesystem::absolute(path, error);
  return error ? path.string() : absolute.string();
}

}  // namespace

struct LogStream::Impl {
  Impl(const char* name, u64 maxBytes, int keepFiles, std::size_t bufferBytes)
      : m_mostHeld(kHeldBuffers * bufferBytes), m_file(PathOf(name), maxBytes, keepFiles) {
    m_held.reserve(bufferBytes);
  }

  void Put(std::string_view text) NAT_EXCLUDES(m_mutex) {
    const ScopedLock lock(m_mutex);
    if (!m_holding) {
      m_file.Append(text);
      return;
    }
    const std::size_t together = m_held.size() + text.size();
    // What is gathered goes out as one, so it must fit into the buffer and into one file.
    if (together > m_mostHeld || !m_file.HasRoomFor(together)) {
      WriteHeld();
    }
    if (text.size() > m_mostHeld) {
      m_file.Append(text);
    } else {
      m_held.append(text);
    }
  }

  void WriteHeld() NAT_REQUIRES(m_mutex) {
    if (!m_held.empty()) {
      m_file.Append(m_held);
      m_held.clear();
    }
  }

  const std::size_t m_mostHeld;

  ThreadMutex m_mutex;
  LogFile m_file NAT_GUARDED_BY(m_mutex);
  std::string m_held NAT_GUARDED_BY(m_mutex);
  bool m_holding NAT_GUARDED_BY(m_mutex) = false;
};

LogStream::LogStream(const char* name, bool, bool, int maxBytes, int keepFiles, unsigned int bufferBytes, bool)
    : m_impl(std::make_unique<Impl>(name, maxBytes > 0 ? static_cast<u64>(maxBytes) : 0, keepFiles, bufferBytes)) {}

LogStream::~LogStream() { Flush(); }

void LogStream::TRACE(const char* text, u8, u8) {
  if (text != nullptr) {
    m_impl->Put(text);
  }
}

// The formats are the agent's own; they come through here as parameters.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-nonliteral"
void LogStream::TRACE(u8, const char* format, va_list& arguments, u8) {
  if (format == nullptr) {
    return;
  }
  char shortText[1024];
  va_list again;
  va_copy(again, arguments);
  const int length = std::vsnprintf(shortText, sizeof(shortText), format, arguments);
  if (length >= 0 && static_cast<std::size_t>(length) < sizeof(shortText)) {
    m_impl->Put(std::string_view(shortText, static_cast<std::size_t>(length)));
  } else if (length >= 0) {
    const auto size = static_cast<std::size_t>(length);
    const std::unique_ptr<char[]> longText(new (std::nothrow) char[size + 1]);
    if (longText != nullptr && std::vsnprintf(longText.get(), size + 1, format, again) == length) {
      m_impl->Put(std::string_view(longText.get(), size));
    }
  }
  va_end(again);
}
#pragma GCC diagnostic pop

void LogStream::Hold() {
  const ScopedLock lock(m_impl->m_mutex);
  m_impl->m_holding = true;
}

void LogStream::Flush() {
  const ScopedLock lock(m_impl->m_mutex);
  m_impl->WriteHeld();
  m_impl->m_holding = false;
}
