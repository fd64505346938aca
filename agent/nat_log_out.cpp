#include "agent/nat_log_out.h"

#include <cstdarg>

#include "agent/faults.h"
#include "agent/log_text.h"

namespace {

constexpr u8 kCategory = 3;
constexpr int kMaxBytes = 204800;
constexpr int kKeepFiles = 2;
constexpr unsigned int kBufferBytes = 2048;

constexpr char kLost[] = "a text of the log is lost";

}  // namespace

NatLogOut::NatLogOut(const char* fileName)
    : m_stream(fileName, true, true, kMaxBytes, kKeepFiles, kBufferBytes, true) {}

NatLogOut::~NatLogOut() = default;

void NatLogOut::Trace(const char* text, u8 level) noexcept {
  Contain(kLost, [&] { m_stream.TRACE(text, kCategory, level); });
}

void NatLogOut::TraceFormat(const char* format, ...) noexcept {
  va_list arguments;
  va_start(arguments, format);
  Contain(kLost, [&] { m_stream.TRACE(kCategory, format, arguments, kLogOrdinary); });
  va_end(arguments);
}

void NatLogOut::TraceFormatLevel(u8 level, const char* format, ...) noexcept {
  va_list arguments;
  va_start(arguments, format);
  Contain(kLost, [&] { m_stream.TRACE(kCategory, format, arguments, level); });
  va_end(arguments);
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
