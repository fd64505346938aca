#include "tools/connection.h"

#include <cerrno>

// What natclient calls; the context is the connection.
struct Connection::Handlers {
  static Connection& Of(void* context) { return *static_cast<Connection*>(context); }

  static void Welcome(void* context) { Of(context).m_welcomed = true; }

  static void Cs(void* context, std::uint64_t id, const natclient_item* mapped, std::uint32_t flag,
                 std::uint32_t value) {
    Connection& self = Of(context);
    Event event(EventKind::CS, self.m_party);
    event.id = id;
    event.value = value;
    event.items.push_back({0, 0, 0, mapped->ip, mapped->port, 0, flag});
    self.Arrived(event);
    self.Answered(CommandKind::CS, id);
  }

  template <EventKind kind, CommandKind request>
  static void List(void* context, std::uint64_t id, const natclient_answer_item* items, size_t count,
                   std::uint32_t value) {
    Connection& self = Of(context);
    Event event(kind, self.m_party);
    event.id = id;
    event.value = value;
    event.items.assign(items, items + count);
    self.Arrived(event);
    self.Answered(request, id);
  }

  static void Update(void* context, std::uint64_t id, std::uint32_t type, std::uint32_t value) {
    Connection& self = Of(context);
    Event event(EventKind::UPDATE, self.m_party);
    event.updateType = type;
    event.value = value;
    self.Arrived(event);
    self.Answered(CommandKind::UPDATE, id);
  }

  static void Notice(void* context, std::uint32_t type, const char* const* texts, size_t count) {
    Connection& self = Of(context);
    Event event(EventKind::NOTICE, self.m_party);
    event.updateType = type;
    event.texts.assign(texts, texts + count);
    self.Arrived(event);
  }

  static void Refused(void* context, std::uint64_t id, std::uint32_t reason, const char* text) {
    Of(context).Refused(id, reason, text);
  }

  static constexpr natclient_handlers kTable{
      Welcome,
      Cs,
      List<EventKind::CS_LIST, CommandKind::CS_LIST>,
      List<EventKind::RTP, CommandKind::RTP>,
      List<EventKind::REVERSE, CommandKind::REVERSE>,
      Update,
      Notice,
      Refused,
      nullptr,  // the result of the dispatch tells
  };
};

int Connection::Open(const std::string& runtimeDir) {
  return natclient_open(&m_client, runtimeDir.empty() ? nullptr : runtimeDir.c_str(), m_party, 0);
}

int Connection::Send(const Command& command, std::uint64_t id) {
  const char* destination = command.destination.c_str();
  const natclient_item* items = command.items.data();
  const std::size_t count = command.items.size();
  const std::uint32_t value = command.value.value_or(0);
  int result = -EINVAL;
  switch (command.kind) {
    case CommandKind::CS:
      result = natclient_request_cs(m_client, id, destination, items, command.portType, value);
      break;
    case CommandKind::CS_LIST:
      result = natclient_request_cs_list(m_client, id, destination, items, count, value);
      break;
    case CommandKind::RTP:
      result = natclient_request_rtp(m_client, id, destination, items, count, value);
      break;
    case CommandKind::REVERSE:
      result = natclient_request_reverse(m_client, id, items, count, value);
      break;
    case CommandKind::CLOSE:
      return natclient_request_close(m_client, id);
    case CommandKind::UPDATE: {
      std::vector<const char*> texts;
      for (const std::string& text : command.texts) texts.push_back(text.c_str());
      result = natclient_update(m_client, id, command.updateType, texts.data(), texts.size(), value);
      break;
    }
    default:
      break;
  }
  if (result != 0) return result;
  Waiting& waiting = m_waiting[{command.kind, id}];
  ++waiting.count;
  waiting.updateType = command.updateType;
  ++m_waitingCount;
  return 0;
}

bool Connection::Dispatch() {
  const int result = natclient_dispatch(m_client, &Handlers::kTable, this);
  if (result < 0) PrintGone(result);
  return result >= 0;
}

void Connection::Answered(CommandKind kind, std::uint64_t id) {
  auto found = m_waiting.find({kind, id});
  // A request for a host name is answered in the form that belongs to its party: signalling as a single answer, also a
  // list; whatever CM and CC asked as an RTP answer.
  if (kind == CommandKind::CS || kind == CommandKind::RTP) {
    for (const CommandKind asked : {CommandKind::CS, CommandKind::CS_LIST, CommandKind::RTP}) {
      if (found == m_waiting.end()) found = m_waiting.find({asked, id});
    }
  }
  if (found == m_waiting.end()) return;  // late, and given up
  --m_waitingCount;
  if (--found->second.count == 0) m_waiting.erase(found);
}

void Connection::Refused(std::uint64_t id, std::uint32_t reason, const char* text) {
  if ((reason == NATCLIENT_QUEUE_TAKEN || reason == NATCLIENT_NOT_ALLOWED) && !m_welcomed) {
    m_refusalText = text;
    return;
  }
  Event event(EventKind::REFUSED, m_party);
  event.id = id;
  event.text = text;
  Arrived(event);
  m_status = Graver(m_status, ExitStatus::UNANSWERED);
  for (const auto& [request, waiting] : m_waiting) {
    if (request.second == id) return Answered(request.first, id);
  }
}

void Connection::PrintGone(int error) {
  Event event(EventKind::LOST, m_party);
  if (!m_refusalText.empty()) {
    event.kind = EventKind::REFUSED;
    event.text = m_refusalText;
  } else if (error != -ECONNRESET) {
    event.text = natclient_strerror(error);
  }
  Arrived(event);
  m_status = ExitStatus::NO_CONNECTION;
}

void Connection::PrintTimeout(const Request& request, const Waiting& waiting) {
  Event event(EventKind::TIMEOUT, m_party);
  if (request.first != CommandKind::UPDATE) event.id = request.second;
  event.updateType = waiting.updateType;
  for (std::size_t i = 0; i < waiting.count; ++i) m_printer.Print(event);
  m_status = Graver(m_status, ExitStatus::UNANSWERED);
}

void Connection::GiveUp(CommandKind kind, std::uint64_t id) {
  const auto found = m_waiting.find({kind, id});
  if (found == m_waiting.end()) return;
  PrintTimeout(found->first, found->second);
  m_waitingCount -= found->second.count;
  m_waiting.erase(found);
}

void Connection::GiveUpAll() {
  for (const auto& [request, waiting] : m_waiting) PrintTimeout(request, waiting);
  m_waiting.clear();
  m_waitingCount = 0;
}
