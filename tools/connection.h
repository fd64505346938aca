#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <utility>

#include "client/natclient.h"
#include "tools/command.h"
#include "tools/exit_status.h"
#include "tools/printer.h"

// One party's connection: sends its requests, prints what arrives and knows which requests are still unanswered.
class Connection {
 public:
  Connection(natclient_party party, Printer& printer) : m_party(party), m_printer(printer) {}
  ~Connection() { natclient_close(m_client); }
  Connection(const Connection&) = delete;
  Connection& operator=(const Connection&) = delete;

  // Begins connecting; the welcome is one of the things that arrive. 0 or a negative errno.
  int Open(const std::string& runtimeDir);

  natclient_party Party() const { return m_party; }
  int Fd() const { return natclient_fd(m_client); }
  bool Welcomed() const { return m_welcomed; }

  // Sends a request under the id and counts it as unanswered (a close is never answered). 0 or a negative errno; only
  // after 0 is anything counted.
  int Send(const Command& command, std::uint64_t id);

  // Prints everything that has arrived. False when the connection is gone, which has been printed.
  bool Dispatch();

  // Whether any request of the kind under the id is unanswered.
  bool IsWaiting(CommandKind kind, std::uint64_t id) const { return m_waiting.contains({kind, id}); }
  std::size_t WaitingCount() const { return m_waitingCount; }

  // Prints the request, or all of them, as not answered in time, and counts them no longer.
  void GiveUp(CommandKind kind, std::uint64_t id);
  void GiveUpAll();

  // How often something came, and what the exit status must say of it.
  std::uint64_t Arrivals() const { return m_arrivals; }
  ExitStatus Status() const { return m_status; }

 private:
  using Request = std::pair<CommandKind, std::uint64_t>;
  struct Waiting {
    std::size_t count = 0;
    std::uint32_t updateType = 0;
  };
  struct Handlers;

  void Arrived(const Event& event) { ++m_arrivals, m_printer.Print(event); }
  void Answered(CommandKind kind, std::uint64_t id);
  void Refused(std::uint64_t id, std::uint32_t reason, const char* text);
  void PrintGone(int error);
  void PrintTimeout(const Request& request, const Waiting& waiting);

  const natclient_party m_party;
  Printer& m_printer;
  natclient* m_client = nullptr;
  bool m_welcomed = false;
  std::string m_refusalText;  // why the queue refused the connection
  std::map<Request, Waiting> m_waiting;
  std::size_t m_waitingCount = 0;
  std::uint64_t m_arrivals = 0;
  ExitStatus m_status = ExitStatus::ANSWERED;
};
