#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "client/natclient.h"

enum class EventKind {
  CONNECTED,
  CS,
  CS_LIST,
  RTP,
  REVERSE,
  UPDATE,
  NOTICE,
  TIMEOUT,      // a request was not answered in time
  REFUSED,      // the agent refused a request, or the connection: the queue is taken, or not for this user
  LOST,         // the agent hung up
  UNREACHABLE,  // no connection could be made
};

// Something to be told about a party. Which fields count depends on the kind.
struct Event {
  Event(EventKind what, natclient_party whose) : kind(what), party(whose) {}

  EventKind kind;
  natclient_party party;
  std::optional<std::uint64_t> id;  // of the request; of a refusal, when it has one
  std::uint32_t value = 0;
  std::uint32_t updateType = 0;              // UPDATE, NOTICE, and TIMEOUT of an update (which shows no id)
  std::vector<natclient_answer_item> items;  // CS: one, with its public side and flag
  std::vector<std::string> texts;
  std::string text;  // why, of the failures
};

inline bool IsFailure(EventKind kind) { return kind >= EventKind::TIMEOUT; }

// One JSON object and a line end. Bytes that are not UTF-8 are replaced.
std::string JsonLine(const Event& event);

// One line, or of a list answer one and one more for each item, for people. Texts from others come out printable.
std::string PlainLines(const Event& event, bool colours = false);
