#include "agent/run_link.h"

#include <utility>

#include "messaging/nat_agent_messenger.h"

std::shared_ptr<RunLink> RunLink::Take(void* argument) {
  const std::unique_ptr<std::shared_ptr<RunLink>> handed(static_cast<std::shared_ptr<RunLink>*>(argument));
  return std::move(*handed);
}

void RunLink::Wake() {
  ScopedLock lock(m_mutex);
  if (m_messenger != nullptr && Running()) {
    m_messenger->Wake();
  }
}

bool RunLink::StopMessenger() {
  ScopedLock lock(m_mutex);
  return m_messenger != nullptr && m_messenger->Stop();
}

void RunLink::Trace(const char* text) {
  ScopedLock lock(m_mutex);
  if (m_log != nullptr) {
    m_log->Trace(text, kLogOrdinary);
  }
}

void RunLink::Close() {
  ScopedLock lock(m_mutex);
  m_messenger = nullptr;
  m_log = nullptr;
}

bool RunLink::Closed() {
  ScopedLock lock(m_mutex);
  return m_messenger == nullptr;
}
