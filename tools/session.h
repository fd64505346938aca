#pragma once

#include <chrono>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "tools/command.h"
#include "tools/connection.h"
#include "tools/exit_status.h"
#include "tools/printer.h"
#include "tools/timeouts.h"

// The connections of one natctl, and all its waiting: whatever is waited for, arrivals of every party are printed.
class Session {
 public:
  Session(std::string runtimeDir, const Timeouts& timeouts, Printer& printer)
      : m_runtimeDir(std::move(runtimeDir)), m_timeouts(timeouts), m_printer(printer) {}

  // Carries out one command. What fails is printed and kept in the status.
  void Execute(const Command& command);

  // Prints arrivals until the descriptor can be read.
  void WaitReadable(int fd);

  // Waits for the requests still unanswered, for each next answer at most the time-out.
  void Finish();

  // A watch was interrupted: no further command is wanted.
  bool Interrupted() const { return m_interrupted; }

  ExitStatus Status() const { return m_status; }

 private:
  using Clock = std::chrono::steady_clock;
  using Deadline = Clock::time_point;
  enum class End { DONE, READABLE, TIMED_OUT };
  struct Wish {  // what a wait is for, besides arrivals
    std::function<bool()> done = [] { return false; };
    int readable = -1;
    const Connection* writable = nullptr;
    Deadline deadline = Deadline::max();
  };

  End Wait(const Wish& wish);
  void Dispatch(std::size_t index);
  Deadline TimeOut() const { return Clock::now() + m_timeouts.answer; }

  Connection* Find(natclient_party party) const;
  Connection* Connect(natclient_party party);
  void Disconnect(natclient_party party);
  void Request(const Command& command);
  bool Send(natclient_party party, const Command& command, std::uint64_t id);
  void WaitForSilence(std::chrono::milliseconds silence);
  void Watch(natclient_party party);
  void Stun(const StunCommand& command);
  std::uint64_t NextId(const Command& command);
  void Drop(std::size_t index);
  void Tell(EventKind kind, natclient_party party, const std::string& text = {});

  const std::string m_runtimeDir;
  const Timeouts m_timeouts;
  Printer& m_printer;
  std::vector<std::unique_ptr<Connection>> m_connections;
  std::uint64_t m_nextId = 1;
  std::uint64_t m_nextUpdateId = 1;  // not shown, so it takes none of the ids that are
  std::uint64_t m_arrivals = 0;
  ExitStatus m_status = ExitStatus::ANSWERED;
  bool m_interrupted = false;
};
