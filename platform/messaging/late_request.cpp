#include "platform/messaging/late_request.h"

#include <utility>

#include "platform/messaging/party_account.h"

namespace {

constinit RequestScope* s_innermost = nullptr;

}  // namespace

RequestScope::RequestScope(const std::shared_ptr<messaging::PartyAccount>& account)
    : m_account(account),
      m_outer(std::exchange(s_innermost, this)),
      m_open(account != nullptr && account->HasParty()) {}

RequestScope::~RequestScope() { s_innermost = m_outer; }

bool RequestScope::IsFor(const std::shared_ptr<messaging::PartyAccount>& account) {
  return s_innermost == nullptr || s_innermost->m_account == account;
}

void RequestScope::Answered() {
  if (s_innermost != nullptr) {
    s_innermost->m_open = false;
  }
}

bool RequestScope::IsOpen() { return s_innermost != nullptr && s_innermost->m_open; }

LateRequest::LateRequest(std::size_t bytes) : m_bytes(bytes) {
  if (s_innermost != nullptr && s_innermost->m_account != nullptr) {
    m_account = s_innermost->m_account;
    s_innermost->m_open = false;
    m_account->Change(1, static_cast<std::ptrdiff_t>(m_bytes));
  }
}

LateRequest& LateRequest::operator=(LateRequest other) noexcept {
  swap(other);
  return *this;
}

LateRequest::~LateRequest() {
  if (m_account != nullptr) {
    m_account->Change(-1, -static_cast<std::ptrdiff_t>(m_bytes));
  }
}

bool LateRequest::HasParty() const { return m_account != nullptr && m_account->HasParty(); }

void LateRequest::Resize(std::size_t bytes) {
  if (m_account != nullptr) {
    m_account->Change(0, static_cast<std::ptrdiff_t>(bytes) - static_cast<std::ptrdiff_t>(m_bytes));
  }
  m_bytes = bytes;
}

bool LateRequest::DropIfBeyondBounds() {
  if (m_account == nullptr || !m_account->Drops()) {
    return false;
  }
  *this = {};
  return true;
}

void LateRequest::swap(LateRequest& other) noexcept {
  m_account.swap(other.m_account);
  std::swap(m_bytes, other.m_bytes);
}
