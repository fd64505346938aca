#include "platform/messaging/notice_inbox.h"

#include <sys/eventfd.h>

#include <algorithm>
#include <cstdint>

#include "platform/journal.h"

namespace messaging {
namespace {

// True when the notice waits in the box now and did not before.
bool Add(std::deque<std::string>& box, const std::string& notice) {
  if (std::find(box.begin(), box.end(), notice) != box.end()) return false;
  if (box.size() == NoticeInbox::kMaxWaiting) {
    JournalError("too many different notices wait for a party that does not read; one is dropped");
    return false;
  }
  box.push_back(notice);
  return true;
}

bool TakeFirst(std::deque<std::string>& box, std::string& notice) {
  if (box.empty()) return false;
  notice = std::move(box.front());
  box.pop_front();
  return true;
}

}  // namespace

NoticeInbox::NoticeInbox() : m_doorbell(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) {}

void NoticeInbox::Ring() {
  // It fails only when the counter is full, and then it rings already.
  const std::uint64_t one = 1;
  [[maybe_unused]] const ssize_t written = ::write(m_doorbell.Get(), &one, sizeof one);
}

void NoticeInbox::Silence() {
  std::uint64_t count = 0;
  [[maybe_unused]] const ssize_t got = ::read(m_doorbell.Get(), &count, sizeof count);
}

void NoticeInbox::Post(const std::string& notice, bool own) {
  ScopedLock lock(m_mutex);
  const bool party = m_partyOnline && Add(m_forParty, notice);
  const bool self = own && Add(m_own, notice);
  if (party || self) Ring();
}

void NoticeInbox::SetPartyOnline(bool online) {
  ScopedLock lock(m_mutex);
  m_partyOnline = online;
  m_forParty.clear();
}

bool NoticeInbox::TakeForParty(std::string& notice) {
  ScopedLock lock(m_mutex);
  return TakeFirst(m_forParty, notice);
}

bool NoticeInbox::TakeOwn(std::string& notice) {
  ScopedLock lock(m_mutex);
  const bool taken = TakeFirst(m_own, notice);
  if (!m_own.empty()) Ring();
  return taken;
}

}  // namespace messaging
