#include <arpa/inet.h>
#include <gtest/gtest.h>

#include "tools/event.h"

namespace {

Event Make(EventKind kind, natclient_party party, std::optional<std::uint64_t> id, const char* text = "") {
  Event event(kind, party);
  event.id = id;
  event.text = text;
  return event;
}

// With an item.
Event Answer(EventKind kind, natclient_party party, std::uint32_t flag = NATCLIENT_MAPPED) {
  Event event = Make(kind, party, 1);
  event.value = 3;
  event.items.push_back({inet_addr("10.77.0.2"), 5060, 0, inet_addr("203.0.113.7"), 15060, 0, flag});
  return event;
}

TEST(NatctlOutput, JsonToTheLetter) {
  Event notice(EventKind::NOTICE, NATCLIENT_SIP);
  notice.updateType = 92;
  notice.texts = {"a\"b", "\xff"};
  const std::string items =
      R"("items":[{"ip":"10.77.0.2","port":5060,"mapped_ip":"203.0.113.7","mapped_port":15060,"flag":1}]})";
  const struct {
    Event event;
    std::string line;
  } cases[] = {
      {Answer(EventKind::CS, NATCLIENT_SIP),
       R"({"party":"sip","answer":"cs","id":1,"ip":"203.0.113.7","port":15060,"flag":1,"value":3})"},
      {Answer(EventKind::REVERSE, NATCLIENT_CM), R"({"party":"cm","answer":"reverse","id":1,"value":3,)" + items},
      {notice, "{\"party\":\"sip\",\"notice\":92,\"strings\":[\"a\\\"b\",\"\xEF\xBF\xBD\"]}"},
      {Make(EventKind::TIMEOUT, NATCLIENT_CC, UINT64_MAX),
       R"({"party":"cc","error":"timeout","id":18446744073709551615})"},
      {Make(EventKind::REFUSED, NATCLIENT_SIP, {}, "busy"), R"({"party":"sip","error":"refused","text":"busy"})"},
      {Event(EventKind::CONNECTED, NATCLIENT_Q113), R"({"party":"q113","connected":true})"},
  };
  for (const auto& each : cases) EXPECT_EQ(JsonLine(each.event), each.line + "\n");
}

TEST(NatctlOutput, OutcomesInWords) {
  Event hostile(EventKind::NOTICE, NATCLIENT_SIP);
  hostile.updateType = 92;
  hostile.texts = {"\x1B]0;\a\" \\", "\xC2\x9B\n"};
  const struct {
    Event event;
    const char* lines;
  } cases[] = {
      {Answer(EventKind::CS, NATCLIENT_SIP), "sip   cs       1     203.0.113.7:15060      mapped, value 3\n"},
      {Answer(EventKind::CS, NATCLIENT_SIP, NATCLIENT_NO_MAPPING),
       "sip   cs       1     203.0.113.7:15060      no mapping known, value 3\n"},
      {Answer(EventKind::CS_LIST, NATCLIENT_SIP, NATCLIENT_NO_NEED_NAT),
       "sip   cs-list  1     1 item, last flag 3\n"
       "      10.77.0.2:5060         -> 203.0.113.7:15060      no translation needed\n"},
      {Answer(EventKind::REVERSE, NATCLIENT_CC),
       "cc    reverse  1     1 item, value 3\n"
       "      203.0.113.7:15060      <- 10.77.0.2:5060         found\n"},
      {Make(EventKind::TIMEOUT, NATCLIENT_SIP, 7), "natctl: sip: request 7 was not answered in time\n"},
      {Make(EventKind::LOST, NATCLIENT_SIP, {}), "natctl: sip: the connection was lost\n"},
      {Make(EventKind::REFUSED, NATCLIENT_SIP, {}, "a\r\x1B[2J"), "natctl: sip: refused: a\\x0d\\x1b[2J\n"},
      {hostile, "sip   notice   92 \"\\x1b]0;\\x07\\x22 \\x5c\" \"\\xc2\\x9b\\x0a\"\n"},
  };
  for (const auto& each : cases) EXPECT_EQ(PlainLines(each.event), each.lines);
  EXPECT_EQ(PlainLines(Make(EventKind::LOST, NATCLIENT_SIP, {}), true),
            "\x1B[31mnatctl: sip: the connection was lost\x1B[0m\n");
}

}  // namespace
