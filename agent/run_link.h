#pragma once

#include <memory>
#include <stop_token>

#include "agent/nat_log_out.h"
#include "platform/thread_safety.h"
#include "platform/vxsysutils/thread_mutex.h"

class NatAgent;
class NatAgentMessenger;

// What the threads outside the main loop may touch of one run of the agent, from Start to Stop. It outlives the run for
// as long as one of them holds it; after Close it does nothing any more. So a worker that is late can neither reach
// destroyed parts nor come back to life in a later run. Any thread.
class RunLink {
 public:
  RunLink(NatAgent& agent, NatAgentMessenger& messenger, NatLogOut& log)
      : m_agent(agent), m_messenger(&messenger), m_log(&log) {}
  RunLink(const RunLink&) = delete;
  RunLink& operator=(const RunLink&) = delete;

  // The run that was handed to a thread as its argument (NatAgent::BeginWorker). Once.
  static std::shared_ptr<RunLink> Take(void* argument);
  NatAgent& Agent() const { return m_agent; }

  // The run's workers go on while this is true. End clears it.
  bool Running() const { return !m_stop.stop_requested(); }
  std::stop_token StopToken() const { return m_stop.get_token(); }
  void End() { m_stop.request_stop(); }

  // Wakes the main loop, so that it runs its periodic checks.
  void Wake() NAT_EXCLUDES(m_mutex);
  // Ends the main loop; false when there is none any more.
  bool StopMessenger() NAT_EXCLUDES(m_mutex);
  // An ordinary line of the log.
  void Trace(const char* text) NAT_EXCLUDES(m_mutex);

  // Before the messenger and the log are destroyed.
  void Close() NAT_EXCLUDES(m_mutex);
  bool Closed() NAT_EXCLUDES(m_mutex);

 private:
  NatAgent& m_agent;
  std::stop_source m_stop;

  ThreadMutex m_mutex;
  NatAgentMessenger* m_messenger NAT_GUARDED_BY(m_mutex);
  NatLogOut* m_log NAT_GUARDED_BY(m_mutex);
};
