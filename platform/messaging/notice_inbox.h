#pragma once

#include <deque>
#include <string>

#include "platform/thread_safety.h"
#include "platform/unique_fd.h"
#include "platform/vxsysutils/thread_mutex.h"

namespace messaging {

// The notices (encoded frames) that wait at one queue: for the connected party, and for the process's own handler. Any
// thread posts; the queue's thread takes. A notice equal to one that still waits is not kept twice, and at most
// kMaxWaiting different ones wait for a reader; what comes beyond them is reported in the journal and dropped.
class NoticeInbox {
 public:
  static constexpr std::size_t kMaxWaiting = 64;

  NoticeInbox();

  // An eventfd, readable when something was posted since the last Silence; none when it could not be made.
  int Doorbell() const { return m_doorbell.Get(); }
  void Silence();

  // Never blocks. `own`: the process's own handler gets the notice too.
  void Post(const std::string& notice, bool own) NAT_EXCLUDES(m_mutex);

  // Whether a party is there to be told. What waited for the last one is forgotten.
  void SetPartyOnline(bool online) NAT_EXCLUDES(m_mutex);

  // The oldest waiting notice; false when none waits. TakeOwn rings again when more are left.
  bool TakeForParty(std::string& notice) NAT_EXCLUDES(m_mutex);
  bool TakeOwn(std::string& notice) NAT_EXCLUDES(m_mutex);

 private:
  void Ring();

  const UniqueFd m_doorbell;
  ThreadMutex m_mutex;
  bool m_partyOnline NAT_GUARDED_BY(m_mutex) = false;
  std::deque<std::string> m_forParty NAT_GUARDED_BY(m_mutex);
  std::deque<std::string> m_own NAT_GUARDED_BY(m_mutex);
};

}  // namespace messaging
