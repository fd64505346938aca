#include "tools/session.h"

#include <poll.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "tools/interrupt_watch.h"
#include "tools/parsing.h"
#include "tools/stun_runner.h"

void Session::Execute(const Command& command) {
  switch (command.kind) {
    case CommandKind::CONNECT:
      if (Connect(command.party) != nullptr) Tell(EventKind::CONNECTED, command.party);
      break;
    case CommandKind::DISCONNECT:
      Disconnect(command.party);
      break;
    case CommandKind::WAIT:
      WaitForSilence(std::chrono::milliseconds(command.silenceMs));
      break;
    case CommandKind::WATCH:
      Watch(command.party);
      break;
    case CommandKind::STUN:
      Stun(command.stun);
      break;
    default:
      Request(command);
      break;
  }
}

Session::End Session::Wait(const Wish& wish) {
  for (;;) {
    if (wish.done()) return End::DONE;
    if (!m_printer.Flush()) m_status = Graver(m_status, ExitStatus::UNANSWERED);

    std::vector<pollfd> fds;
    for (const auto& connection : m_connections) {
      const short events = connection.get() == wish.writable ? POLLIN | POLLOUT : POLLIN;
      fds.push_back({connection->Fd(), events, 0});
    }
    if (wish.readable >= 0) fds.push_back({wish.readable, POLLIN, 0});

    int waitMs = -1;
    if (wish.deadline != Deadline::max()) {
      const auto left = std::chrono::ceil<std::chrono::milliseconds>(wish.deadline - Clock::now()).count();
      waitMs = static_cast<int>(std::max<long long>(left, 0));
    }
    const int ready = ::poll(fds.data(), fds.size(), waitMs);
    if (ready < 0 && errno != EINTR) {
      PrintError(std::string("poll: ") + std::strerror(errno));
      return End::TIMED_OUT;
    }
    if (ready == 0) return End::TIMED_OUT;
    if (ready < 0) continue;

    bool writable = false;
    for (std::size_t i = m_connections.size(); i-- > 0;) {  // backwards: a connection that is gone is taken out
      writable = writable || (fds[i].revents & POLLOUT) != 0;
      if ((fds[i].revents & ~POLLOUT) != 0) Dispatch(i);
    }
    if (wish.readable >= 0 && fds.back().revents != 0) return wish.done() ? End::DONE : End::READABLE;
    if (writable) return End::DONE;
  }
}

void Session::Dispatch(std::size_t index) {
  Connection& connection = *m_connections[index];
  const std::uint64_t before = connection.Arrivals();
  const bool alive = connection.Dispatch();
  m_arrivals += connection.Arrivals() - before;
  m_status = Graver(m_status, connection.Status());
  if (!alive) Drop(index);
}

void Session::Drop(std::size_t index) { m_connections.erase(m_connections.begin() + static_cast<long>(index)); }

Connection* Session::Find(natclient_party party) const {
  for (const auto& connection : m_connections) {
    if (connection->Party() == party) return connection.get();
  }
  return nullptr;
}

Connection* Session::Connect(natclient_party party) {
  if (Connection* connected = Find(party)) return connected;

  auto connection = std::make_unique<Connection>(party, m_printer);
  const int error = connection->Open(m_runtimeDir);
  if (error != 0) {
    Tell(EventKind::UNREACHABLE, party, natclient_strerror(error));
    return nullptr;
  }
  m_connections.push_back(std::move(connection));
  Wish wish;
  wish.done = [this, party] {
    const Connection* found = Find(party);
    return found == nullptr || found->Welcomed();
  };
  wish.deadline = Clock::now() + m_timeouts.contact;
  if (Wait(wish) != End::TIMED_OUT) return Find(party);
  std::erase_if(m_connections, [party](const auto& each) { return each->Party() == party; });
  Tell(EventKind::UNREACHABLE, party, "no welcome in time");
  return nullptr;
}

void Session::Disconnect(natclient_party party) {
  if (Connection* connection = Find(party)) {
    // What has arrived already is still an answer.
    const auto place = std::find_if(m_connections.begin(), m_connections.end(),
                                    [connection](const auto& each) { return each.get() == connection; });
    Dispatch(static_cast<std::size_t>(place - m_connections.begin()));
  }
  if (Connection* connection = Find(party)) {
    connection->GiveUpAll();
    m_status = Graver(m_status, connection->Status());
    std::erase_if(m_connections, [connection](const auto& each) { return each.get() == connection; });
  }
}

std::uint64_t Session::NextId(const Command& command) {
  if (command.kind == CommandKind::UPDATE) return m_nextUpdateId++;
  return command.id ? *command.id : m_nextId++;
}

void Session::Request(const Command& command) {
  const natclient_party party = command.party;
  if (Connect(party) == nullptr) return;
  const std::uint64_t id = NextId(command);
  if (!Send(party, command, id) || command.nowait || command.kind == CommandKind::CLOSE) return;

  Wish wish;
  wish.done = [this, party, kind = command.kind, id] {
    const Connection* connection = Find(party);
    return connection == nullptr || !connection->IsWaiting(kind, id);
  };
  wish.deadline = TimeOut();
  if (Wait(wish) != End::TIMED_OUT) return;
  Connection* connection = Find(party);
  connection->GiveUp(command.kind, id);
  m_status = Graver(m_status, connection->Status());
}

bool Session::Send(natclient_party party, const Command& command, std::uint64_t id) {
  Wish wish;
  wish.done = [this, party] { return Find(party) == nullptr; };
  wish.deadline = TimeOut();
  for (;;) {
    Connection* connection = Find(party);
    if (connection == nullptr) return false;
    const int error = connection->Send(command, id);
    if (error == 0) return true;
    if (error == -EPIPE || error == -ECONNRESET) {
      // The hang-up is read like everything that came before it.
      wish.writable = nullptr;
    } else if (error == -EAGAIN) {
      wish.writable = connection;
    } else {
      PrintError(std::string(PartyName(party)) + ": " + natclient_strerror(error));
      m_status = Graver(m_status, ExitStatus::USAGE);
      return false;
    }
    if (Wait(wish) == End::TIMED_OUT) {
      Event event(EventKind::TIMEOUT, party);
      if (command.kind != CommandKind::UPDATE) event.id = id;
      event.updateType = command.updateType;
      event.text = "the agent does not read";
      m_printer.Print(event);
      m_status = Graver(m_status, ExitStatus::UNANSWERED);
      return false;
    }
  }
}

void Session::WaitReadable(int fd) {
  Wish wish;
  wish.readable = fd;
  Wait(wish);
}

void Session::WaitForSilence(std::chrono::milliseconds silence) {
  for (;;) {
    Wish wish;
    wish.done = [this, before = m_arrivals] { return m_arrivals != before; };
    wish.deadline = Clock::now() + silence;
    if (Wait(wish) == End::TIMED_OUT) return;
  }
}

void Session::Watch(natclient_party party) {
  if (Connect(party) == nullptr) return;
  Tell(EventKind::CONNECTED, party);
  const InterruptWatch interrupt;
  Wish wish;
  wish.done = [this, party] { return Find(party) == nullptr; };
  wish.readable = interrupt.Fd();
  m_interrupted = Wait(wish) == End::READABLE;
}

void Session::Stun(const StunCommand& command) {
  const auto waitReadable = [this](int fd, Deadline until) {
    Wish wish;
    wish.readable = fd;
    wish.deadline = until;
    return Wait(wish) == End::READABLE;
  };
  m_status = Graver(m_status, RunStun(command, m_runtimeDir, m_timeouts, m_printer, waitReadable));
}

void Session::Finish() {
  const auto waiting = [this] {
    std::size_t count = 0;
    for (const auto& connection : m_connections) count += connection->WaitingCount();
    return count;
  };
  while (const std::size_t before = waiting()) {
    Wish wish;
    wish.done = [&waiting, before] { return waiting() != before; };
    wish.deadline = TimeOut();
    if (Wait(wish) == End::TIMED_OUT) break;
  }
  for (const auto& connection : m_connections) {
    connection->GiveUpAll();
    m_status = Graver(m_status, connection->Status());
  }
  if (!m_printer.Flush()) m_status = Graver(m_status, ExitStatus::UNANSWERED);
}

void Session::Tell(EventKind kind, natclient_party party, const std::string& text) {
  Event event(kind, party);
  event.text = text;
  m_printer.Print(event);
  if (IsFailure(kind)) m_status = Graver(m_status, ExitStatus::NO_CONNECTION);
}
