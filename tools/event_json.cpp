#include <nlohmann/json.hpp>

#include "tools/event.h"
#include "tools/parsing.h"

namespace {

using Json = nlohmann::ordered_json;  // the keys come out in the order they are set

const char* AnswerName(EventKind kind) {
  switch (kind) {
    case EventKind::CS:
      return "cs";
    case EventKind::CS_LIST:
      return "cs-list";
    case EventKind::RTP:
      return "rtp";
    case EventKind::REVERSE:
      return "reverse";
    default:
      return "update";
  }
}

const char* ErrorName(EventKind kind) {
  switch (kind) {
    case EventKind::TIMEOUT:
      return "timeout";
    case EventKind::REFUSED:
      return "refused";
    case EventKind::LOST:
      return "lost";
    default:
      return "unreachable";
  }
}

Json Items(const std::vector<natclient_answer_item>& items) {
  Json list = Json::array();
  for (const natclient_answer_item& item : items) {
    list.push_back(Json{{"ip", AddressText(item.ip)},
                        {"port", item.port},
                        {"mapped_ip", AddressText(item.mapped_ip)},
                        {"mapped_port", item.mapped_port},
                        {"flag", item.flag}});
  }
  return list;
}

void AddAnswer(const Event& event, Json& object) {
  object["answer"] = AnswerName(event.kind);
  if (event.kind == EventKind::UPDATE) {
    object["type"] = event.updateType;
    object["value"] = event.value;
    return;
  }
  object["id"] = event.id.value_or(0);
  if (event.kind == EventKind::CS) {
    const natclient_answer_item& item = event.items.front();
    object["ip"] = AddressText(item.mapped_ip);
    object["port"] = item.mapped_port;
    object["flag"] = item.flag;
    object["value"] = event.value;
    return;
  }
  object["value"] = event.value;
  object["items"] = Items(event.items);
}

void AddFailure(const Event& event, Json& object) {
  object["error"] = ErrorName(event.kind);
  if (event.id) {
    object["id"] = *event.id;
  } else if (event.kind == EventKind::TIMEOUT) {
    object["type"] = event.updateType;
  }
  if (!event.text.empty()) object["text"] = event.text;
}

}  // namespace

std::string JsonLine(const Event& event) {
  Json object;
  object["party"] = PartyName(event.party);
  if (event.kind == EventKind::CONNECTED) {
    object["connected"] = true;
  } else if (event.kind == EventKind::NOTICE) {
    object["notice"] = event.updateType;
    object["strings"] = event.texts;
  } else if (IsFailure(event.kind)) {
    AddFailure(event, object);
  } else {
    AddAnswer(event, object);
  }
  return object.dump(-1, ' ', false, Json::error_handler_t::replace) + "\n";
}
