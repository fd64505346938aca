#include "agent/nat_log_out.h"

#include <cstdarg>

#include "agent/log_text.h"

namespace {

constexpr u8 kCategory = 3;
constexpr int kMaxBytes = 204800;
constexpr int kKeepFiles = 2;
constexpr unsigned int kBufferBytes = 2048;

}  // namespace

NatLogOut::NatLogOut(const char* fileName)
    : m_stream(fileName, true, true, kMaxBytes, kKeepFiles, kBufferBytes, true) {}

NatLogOut::~NatLogOut() = default;

void NatLogOut::Trace(const char* text, u8 level) { m_stream.TRACE(text, kCategory, level); }

void NatLogOut::TraceFormat(const char* format, ...) {
  va_list arguments;
  va_start(arguments, format);
  m_stream.TRACE(kCategory, format, arguments, kLogOrdinary);
  va_end(arguments);
}

void NatLogOut::TraceFormatLevel(u8 level, const char* format, ...) {
  va_list arguments;
  va_start(arguments, format);
  m_stream.TRACE(kCategory, format, arguments, level);
  va_end(arguments);
}

void NatLogOut::TraceNumber(const char* label, u64 number) {
  m_text = label;
  AppendNumber(m_text, number);
  m_text += "\r\n";
  Trace(m_text.c_str(), kLogOrdinary);
}
