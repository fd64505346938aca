#include "agent/nat_log_out.h"

#include <cstdarg>
#include <cstdio>

#include "agent/faults.h"
#include "agent/host_events.h"
#include "agent/log_text.h"

namespace {

constexpr u8 kCategory = 3;
constexpr int kMaxBytes = 204800;
constexpr int kKeepFiles = 2;
constexpr unsigned int kBufferBytes = 2048;

constexpr std::size_t kMaxTold = 4096;  // bytes of a formatted text for the host

constexpr char kLost[] = "a text of the log is lost";

}  // namespace

NatLogOut::NatLogOut(const char* fileName)
    : m_isWritten(fileName != nullptr), m_stream(fileName, true, true, kMaxBytes, kKeepFiles, kBufferBytes, true) {}

NatLogOut::~NatLogOut() = default;

void NatLogOut::Trace(const char* text, u8 level) noexcept {
  Contain(kLost, [&] { m_stream.TRACE(text, kCategory, level); });
  if (m_isWritten) {
    HostEvents::Tell(NAT_EVENT_LOG, text);
  }
}

void NatLogOut::TraceFormat(const char* format, ...) noexcept {
  va_list arguments;
  va_start(arguments, format);
  TraceList(kLogOrdinary, format, arguments);
  va_end(arguments);
}

void NatLogOut::TraceFormatLevel(u8 level, const char* format, ...) noexcept {
  va_list arguments;
  va_start(arguments, format);
  TraceList(level, format, arguments);
  va_end(arguments);
}

void NatLogOut::TraceList(u8 level, const char* format, va_list& arguments) noexcept {
  va_list again;
  va_copy(again, arguments);
  Contain(kLost, [&] { m_stream.TRACE(kCategory, format, arguments, level); });
  if (m_isWritten && HostEvents::Wants(NAT_EVENT_LOG)) {
    char text[kMaxTold];
    std::vsnprintf(text, sizeof text, format, again);
    HostEvents::Tell(NAT_EVENT_LOG, text);
  }
  va_end(again);
}

void NatLogOut::Flush() noexcept {
  Contain(kLost, [this] { m_stream.Flush(); });
}

void NatLogOut::TraceNumber(const char* label, u64 number) noexcept {
  Contain(kLost, [&] {
    m_text = label;
    AppendNumber(m_text, number);
    m_text += "\r\n";
    Trace(m_text.c_str(), kLogOrdinary);
  });
}
