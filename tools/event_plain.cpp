#include "tools/event.h"
#include "tools/parsing.h"
#include "tools/terminal.h"

namespace {

constexpr std::size_t kPartyWidth = 6;
constexpr std::size_t kKindWidth = 9;
constexpr std::size_t kIdWidth = 6;
constexpr std::size_t kEndpointWidth = 23;  // the longest IP:PORT and two blanks

std::string Padded(std::string text, std::size_t width) {
  if (text.size() < width) text.resize(width, ' ');
  return text;
}

std::string Endpoint(std::uint32_t ip, std::uint16_t port) {
  return Padded(AddressText(ip) + ":" + std::to_string(port), kEndpointWidth);
}

std::string Outcome(std::uint32_t flag, bool colours) {
  switch (flag) {
    case NATCLIENT_NO_NEED_NAT:
      return "no translation needed";
    case NATCLIENT_MAPPED:
      return Coloured("mapped", Colour::GREEN, colours);
    case NATCLIENT_NO_MAPPING:
      return Coloured("no mapping known", Colour::YELLOW, colours);
    default:
      return "flag " + std::to_string(flag);
  }
}

std::string Head(const Event& event, const char* kind) {
  std::string head = Padded(PartyName(event.party), kPartyWidth) + Padded(kind, kKindWidth);
  return event.id ? head + Padded(std::to_string(*event.id) + " ", kIdWidth) : head;
}

std::string ListAnswer(const Event& event, const char* kind, const std::string& valueName, bool colours) {
  std::string lines = Head(event, kind) + std::to_string(event.items.size()) +
                      (event.items.size() == 1 ? " item, " : " items, ") + valueName + " " +
                      std::to_string(event.value) + "\n";
  for (const natclient_answer_item& item : event.items) {
    const std::string local = Endpoint(item.ip, item.port);
    const std::string mapped = Endpoint(item.mapped_ip, item.mapped_port);
    lines.append(kPartyWidth, ' ');
    if (event.kind == EventKind::REVERSE) {
      lines.append(mapped).append("<- ").append(local);
      const bool isFound = item.flag == NATCLIENT_MAPPED;
      lines.append(isFound ? Coloured("found", Colour::GREEN, colours)
                           : Coloured("not found", Colour::YELLOW, colours));
    } else {
      lines.append(local).append("-> ").append(mapped).append(Outcome(item.flag, colours));
    }
    lines += '\n';
  }
  return lines;
}

std::string CsAnswer(const Event& event, bool colours) {
  const natclient_answer_item& item = event.items.front();
  std::string line = Head(event, "cs") + Endpoint(item.mapped_ip, item.mapped_port) + Outcome(item.flag, colours);
  if (event.value != 0) line += ", value " + std::to_string(event.value);
  return line + "\n";
}

std::string Notice(const Event& event) {
  std::string line = Head(event, "notice") + std::to_string(event.updateType);
  for (const std::string& text : event.texts) line += " \"" + Printable(text, "\"\\") + "\"";
  return line + "\n";
}

std::string Failure(const Event& event, bool colours) {
  const std::string request =
      event.id ? "request " + std::to_string(*event.id) : "update " + std::to_string(event.updateType);
  std::string line = std::string("natctl: ") + PartyName(event.party) + ": ";
  switch (event.kind) {
    case EventKind::TIMEOUT:
      line += request + " was not answered in time";
      break;
    case EventKind::REFUSED:
      line += event.id ? request + " was refused" : "refused";
      break;
    case EventKind::LOST:
      line += "the connection was lost";
      break;
    default:
      line += "the agent cannot be reached";
      break;
  }
  if (!event.text.empty()) line += ": " + Printable(event.text);
  return Coloured(std::move(line), Colour::RED, colours) + "\n";
}

}  // namespace

std::string PlainLines(const Event& event, bool colours) {
  switch (event.kind) {
    case EventKind::CONNECTED:
      return std::string(PartyName(event.party)) + " connected\n";
    case EventKind::CS:
      return CsAnswer(event, colours);
    case EventKind::CS_LIST:
      return ListAnswer(event, "cs-list", "last flag", colours);
    case EventKind::RTP:
      return ListAnswer(event, "rtp", "call server", colours);
    case EventKind::REVERSE:
      return ListAnswer(event, "reverse", "value", colours);
    case EventKind::UPDATE:
      return Head(event, "update") + "type " + std::to_string(event.updateType) + " acknowledged, value " +
             std::to_string(event.value) + "\n";
    case EventKind::NOTICE:
      return Notice(event);
    default:
      return Failure(event, colours);
  }
}
