#pragma once

#include <sys/types.h>

#include <optional>
#include <string>

#include "nat/nat_records.h"
#include "platform/messaging/frame.h"
#include "platform/unique_fd.h"

// The agent beside what it is compared with. What goes wrong throws std::runtime_error; each object ends its own
// process and removes its files.

// The calling process, and what it starts from then on, has a network of its own: 10.77.0.2, whose default route leads
// through 10.77.0.1. Before any thread is started.
void EnterOwnNetwork();
inline constexpr char kFar[] = "198.51.100.9";  // behind the gateway

// The calling thread, and what it starts from then on, runs on that core only.
void StayOnCore(int core);

// A connection of packets, used in turn with its other end.
class Line {
 public:
  explicit Line(UniqueFd socket) : m_socket(std::move(socket)) {}

  void Send(const std::string& packet) const;
  // Waits; the packet's length.
  std::size_t Receive() const;
  void Call(const std::string& packet) const {
    Send(packet);
    Receive();
  }

 private:
  UniqueFd m_socket;
};

// Answers each packet with the first 36 bytes of it, as long as a signalling answer: no more than the socket costs.
class RawEcho {
 public:
  RawEcho();
  ~RawEcho();
  RawEcho(const RawEcho&) = delete;
  RawEcho& operator=(const RawEcho&) = delete;

  const Line& Peer() const { return *m_line; }

 private:
  pid_t m_process = -1;
  std::optional<Line> m_line;
};

// natagentd, the one of this build or of $NATAGENTD, with 1000 static media ports and so many exclusion rules.
class Daemon {
 public:
  explicit Daemon(const std::string& logParent, int rules = 10, int ports = 1000);
  ~Daemon();
  Daemon(const Daemon&) = delete;
  Daemon& operator=(const Daemon&) = delete;

  // The party of a queue, once the agent has welcomed it.
  Line Connect(int queue) const;
  // Resident memory, in MB.
  double Memory() const;
  // Processor time of all its threads so far, in microseconds.
  double Busy() const;

 private:
  std::string m_directory;
  std::string m_logs;
  pid_t m_process = -1;
};

// Requests as they travel.
std::string CsRequest(u64 id, u16 port = 5060);
std::string ListRequest(messaging::FrameKind kind, u64 id, int items, u32 value = 0);
std::string CloseRequest(u64 id);
