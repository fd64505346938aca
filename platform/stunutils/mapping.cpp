#include "platform/stunutils/mapping.h"

#include <algorithm>

namespace stun {

Mapping::News Mapping::Observe(const Endpoint& mapped, const Endpoint& server) {
  const bool isConfirmed = mapped == m_last;
  MeasureUnrest(mapped);
  if (isConfirmed || !m_mapped.Known() || mapped == m_settled) {
    m_mapped = mapped;
    m_server = server;
  }
  if (!m_settled.Known() || mapped == m_settled) {
    m_settled = mapped;
    return News::NONE;
  }
  if (isConfirmed) {
    m_settled = mapped;
    return News::CHANGED;
  }
  return IsRestless() ? News::RESTLESS : News::DOUBTFUL;
}

void Mapping::MeasureUnrest(const Endpoint& mapped) {
  if (m_last.Known() && mapped != m_last) {
    m_unrest = std::min(kMostUnrest, static_cast<u8>(m_unrest + kUnlike));
  } else if (mapped == m_settled) {
    m_unrest = static_cast<u8>(std::max(m_unrest - kLike, 0));
  }
  m_isUnsettled = m_isUnsettled ? IsRestless() : m_unrest == kMostUnrest;
  m_last = mapped;
}

void Mapping::Forget() { m_mapped = m_server = m_last = Endpoint(); }

}  // namespace stun
