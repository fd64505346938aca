#pragma once

#include <sys/types.h>

#include <atomic>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "host/agent_library.h"
#include "host/event_feed.h"
#include "host/status_report.h"
#include "platform/messaging/runtime_dir_lease.h"
#include "platform/unique_fd.h"

class StatusClient;

// Serves status.sock in the runtime directory on a thread of its own: requests and answers are docs/status.md. Without
// the socket, or its thread, the journal says why and the daemon goes on. Readers are at most kMaxClients; each has
// bounded buffers, and is hung up on when it takes too long.
class StatusServer {
 public:
  static constexpr std::size_t kMaxClients = 64;
  static constexpr const char* kSocket = "status.sock";

  // The lease is held and outlives the server, and so does the loaded library.
  StatusServer(const messaging::RuntimeDirLease& lease, const AgentLibrary& library);
  // Ends the thread: within about a second, also while the agent's thread is stuck.
  ~StatusServer();
  StatusServer(const StatusServer&) = delete;
  StatusServer& operator=(const StatusServer&) = delete;

  // Of any thread, at any time.
  void SetConfig(nlohmann::ordered_json config);
  // Nothing: the daemon's own group. The owner's thread.
  void SetGroup(std::optional<gid_t> group);

 private:
  using Clock = std::chrono::steady_clock;

  std::string Listen();
  void Run();
  void Turn();
  Clock::time_point NextDeadline() const;
  void Accept();
  void Serve(StatusClient& client);
  void Answer(StatusClient& client, const std::string& line);
  void TellEvents();
  void ListenToAgent();
  HostFacts Facts();

  const messaging::RuntimeDirLease& m_lease;
  const AgentLibrary& m_library;
  std::optional<gid_t> m_group;
  UniqueFd m_listener;
  UniqueFd m_wake;
  EventFeed m_feed;
  std::atomic<bool> m_stop = false;

  std::mutex m_factsMutex;
  HostFacts m_facts;  // guarded by m_factsMutex

  // The thread's own.
  std::vector<std::unique_ptr<StatusClient>> m_clients;
  LogLines m_logLines;
  std::uint32_t m_kinds = 0;      // of events, that the agent tells
  Clock::time_point m_restEnd{};  // until then nobody is taken in: there was no descriptor

  std::thread m_thread;
};
