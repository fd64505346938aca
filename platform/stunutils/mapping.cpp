#include "platform/stunutils/mapping.h"

#include <algorithm>

namespace stun {

Mapping::Told Mapping::Tell(const Endpoint& mapped, const Endpoint& server) {
  Count(mapped);
  const bool isConfirmed = m_agreed >= 2;
  if (isConfirmed || !m_mapped.Known() || mapped == m_settled) {
    m_mapped = mapped;
    m_server = server;
  }
  if (!m_settled.Known() || mapped == m_settled) {
    m_settled = mapped;
    return Told::KNOWN;
  }
  if (isConfirmed) {
    m_settled = mapped;
    return Told::CHANGED;
  }
  return m_isUnsettled ? Told::UNSETTLED : Told::DOUBTFUL;
}

void Mapping::Count(const Endpoint& mapped) {
  if (mapped == m_last) {
    m_agreed = std::min<u8>(kAgreed, static_cast<u8>(m_agreed + 1));
  } else {
    m_agreed = 1;
    m_different = std::min<u8>(kMostDifferent + 1, static_cast<u8>(m_different + (m_last.Known() ? 1 : 0)));
  }
  if (m_agreed == kAgreed) {
    m_different = 0;
    m_isUnsettled = false;
  }
  m_isUnsettled = m_isUnsettled || m_different > kMostDifferent;
  m_last = mapped;
}

void Mapping::Forget() {
  const Endpoint settled = m_settled;
  *this = Mapping();
  m_settled = settled;
}

}  // namespace stun
