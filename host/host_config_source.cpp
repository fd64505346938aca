#include "host/host_config_source.h"

HostConfigSource::HostConfigSource(HostSettings settings) : m_current(std::make_unique<Record>(std::move(settings))) {}

HostConfig* HostConfigSource::GetConfig() {
  const std::lock_guard lock(m_mutex);
  if (m_next != nullptr && std::this_thread::get_id() == m_hostThread) {
    MakeNextCurrent();
    m_retired.clear();
  }
  return &m_current->config;
}

void HostConfigSource::Replace(HostSettings settings, const std::function<void()>& tell) {
  {
    const std::lock_guard lock(m_mutex);
    m_next = std::make_unique<Record>(std::move(settings));
  }
  tell();
  {
    const std::lock_guard lock(m_mutex);
    if (m_next == nullptr) return;
    MakeNextCurrent();
  }
  tell();
}

const HostSettings& HostConfigSource::Current() const {
  const std::lock_guard lock(m_mutex);
  return m_current->settings;
}

void HostConfigSource::MakeNextCurrent() {
  m_retired.push_back(std::move(m_current));
  m_current = std::move(m_next);
}
