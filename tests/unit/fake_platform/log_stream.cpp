#include "platform/vxlogutils/log_stream.h"

#include <cstdio>

#include "tests/unit/fake_platform/fake.h"

struct LogStream::Impl {
  bool writes = false;
};

LogStream::LogStream(const char* name, bool, bool, int maxBytes, int keepFiles, unsigned int bufferBytes, bool)
    : m_impl(new Impl{name != nullptr}) {
  if (m_impl->writes) {
    fake::Record("logfile open ", name, ' ', maxBytes, ' ', keepFiles, ' ', bufferBytes);
  }
}

LogStream::~LogStream() {
  if (m_impl->writes) {
    fake::Record("logfile close");
  }
}

void LogStream::TRACE(const char* text, u8 category, u8 level) {
  if (!m_impl->writes) {
    return;
  }
  fake::Record(category == 3 ? "log" : "wrong category ", unsigned{level}, ' ', text);
  if (text == fake::Device()->hookText) {
    const auto hook = std::exchange(fake::Device()->hook, [] {});
    hook();
  }
}

#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-nonliteral"
void LogStream::TRACE(u8 category, const char* format, va_list& arguments, u8 level) {
  char text[4096];
  std::vsnprintf(text, sizeof(text), format, arguments);
  TRACE(text, category, level);
}
#pragma GCC diagnostic pop

void LogStream::Hold() {
  fake::Record("log hold");
  fake::Device()->logHeld = true;
}
void LogStream::Flush() {
  fake::Record("log flush");
  fake::Device()->logHeld = false;
}
