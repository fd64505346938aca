#pragma once

#include <chrono>
#include <memory>
#include <nlohmann/json.hpp>
#include <string>

#include "host/status_request.h"
#include "platform/sockets/host_query.h"
#include "platform/unique_fd.h"

// A look-up under way, given up with its owner.
class PendingLookUp {
 public:
  explicit PendingLookUp(const std::string& name) : m_query(sockets::BeginQuery(name.c_str())) {}
  ~PendingLookUp() {
    if (m_query != nullptr) {
      sockets::AbandonQuery(m_query);
    }
  }
  PendingLookUp(const PendingLookUp&) = delete;
  PendingLookUp& operator=(const PendingLookUp&) = delete;

  // Whether it has ended; `address` is then the first one, or 0.
  bool IsDone(std::uint32_t& address);

 private:
  sockets::HostQuery* m_query;
};

// One reader of status.sock: its bytes in and out, and what it waits for. The status thread's.
class StatusClient {
 public:
  using Clock = std::chrono::steady_clock;

  explicit StatusClient(UniqueFd fd);

  int Fd() const { return m_fd.Get(); }
  // What poll is to wait for; 0: nothing but a hang-up.
  short Events() const;
  bool IsGone() const;
  // Whether a whole line can be taken now.
  bool HasLine() const { return m_out.empty() && waiting == nullptr && !m_isClosing && m_in.find('\n') != m_in.npos; }
  // When it is hung up on if nothing moves until then.
  Clock::time_point Deadline() const { return m_deadline; }

  // Reads what has come. A line that is too long is refused, and ends the connection.
  void Read();
  // The next whole line, when the one before has been answered.
  bool TakeLine(std::string& line);

  // Queues a line, and writes what the reader takes. A monitor that does not read loses events; it is told how many.
  void Send(const nlohmann::ordered_json& object);
  void SendEvent(const nlohmann::ordered_json& object);
  void Write();
  void CloseWhenSent() { m_isClosing = true; }
  void Close() { m_isGone = true; }

  // An EXPLAIN whose name is being looked up.
  struct Waiting {
    StatusRequest request;
    PendingLookUp lookUp;
    Clock::time_point end;
  };
  std::unique_ptr<Waiting> waiting;

  bool isMonitor = false;
  bool withLog = false;

 private:
  void SetDeadline();

  UniqueFd m_fd;
  std::string m_in;
  std::string m_out;
  std::uint64_t m_lost = 0;
  bool m_hasEnded = false;   // nothing more comes
  bool m_isClosing = false;  // when m_out is empty
  bool m_isGone = false;
  Clock::time_point m_deadline{};
};
