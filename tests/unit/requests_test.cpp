// Requests with an address: decisions, answers, and the table of what was handed out.

#include "tests/unit/support.h"

namespace {

TEST_F(RunningAgentTest, SignallingDecisions) {
  const struct {
    u32 queue;
    const char* destination;
    u16 port;
    NatPortType portType;
    const char* answer;
  } rows[] = {
      {kSip, kInternet, 5060, NATPORT_UDP, "203.0.113.7:15060/1"},
      {kSip, kInternet, 5060, NATPORT_TCP, "203.0.113.7:15061/1"},
      {kSip, kInternet, 5060, NATPORT_TLS, "0.0.0.0:0/2"},  // no such range is ever loaded
      {kSip, kInternet, 5060, static_cast<NatPortType>(3), "0.0.0.0:0/2"},
      {kSip, kInternet, 5070, NATPORT_UDP, "0.0.0.0:0/2"},
      {kSip, kNeighbour, 5070, NATPORT_UDP, "0.0.0.0:0/0"},
      {kSip, kExcluded, 5060, NATPORT_UDP, "0.0.0.0:0/0"},
      {kSip, kNowhere, 5060, NATPORT_UDP, "0.0.0.0:0/2"},
      {kSip, kNeighbour, 0, NATPORT_UDP, "0.0.0.0:0/2"},  // comes before the route's kind
      {kSip, "0.0.0.0", 5060, NATPORT_UDP, "203.0.113.7:15060/1"},
      {kCm, kInternet, 5060, NATPORT_TCP, "0.0.0.0:0/2"},
      {kCc, kNeighbour, 5060, NATPORT_UDP, "0.0.0.0:0/0"},
  };
  Connect(kSip);
  Connect(kCm);
  for (const auto& row : rows) {
    EXPECT_EQ(Ask(row.queue, {CS, 1, row.destination, {{kUplink, row.port}}, 9, row.portType}),
              Strings{"send " + std::to_string(row.queue) + " cs 1 " + row.answer + " value 0"})
        << row.destination << ' ' << row.port;
  }
  // 113 has no channel for an answer.
  EXPECT_EQ(Ask(kQueue113, {CS, 1, kInternet, {{kUplink, 5060}}}), Strings{});
  // A list's value is the last item's flag.
  EXPECT_EQ(Ask(kSip, {CS_LIST, 7, kInternet, {{0, 0}, {0, 5060}}}),
            Strings{"send 112 cs-list 7 0.0.0.0:0=0.0.0.0:0/2 0.0.0.0:5060=203.0.113.7:15060/1 value 1"});
}

// The first thing that decides ends the decision; the rows go down its steps.
TEST_F(RunningAgentTest, MediaDecisions) {
  const std::string noRoute = "Error:remote not available\r\n";
  const std::string zero = "remoteip = 0(dns error?):mark as over gw\r\n";
  const std::string need = "Need Qor Nat\r\n";
  const std::string noPort = need + "Error:No Mapped Ip or Port\r\n";
  const std::string noNeed = "10.77.0.2:10000=0.0.0.0:0/0";
  const std::string mapped = "10.77.0.2:10000=203.0.113.7:20000/1";
  const struct {
    const char* destination;
    u32 csProto;
    NatItem item;
    std::string answer;
    std::string log;  // what the decision writes
  } rows[] = {
      {kNowhere, CA_PROTO_CC, {kUplink, 10000}, "10.77.0.2:10000=0.0.0.0:0/2", noRoute},
      {kNowhere, CA_PROTO_SIP, {0, 10000}, "0.0.0.0:10000=0.0.0.0:0/2", noRoute},
      {kNeighbour, CA_PROTO_SIP, {0, 10000}, noNeed, ""},  // the interface's address stands in for 0
      {"0.0.0.0", CA_PROTO_CC, {kUplink, 10000}, mapped, zero + need},
      {"0.0.0.0", CA_PROTO_CC, {0, 10000}, "0.0.0.0:10000=0.0.0.0:0/0", zero},
      {kInternet, CA_PROTO_SIP, {kUplink, 10000}, noNeed, ""},  // offline
      {kInternet, 2, {kUplink, 10000}, noNeed, ""},             // without a channel
      {kNeighbour, CA_PROTO_CC, {kUplink, 10000}, noNeed, ""},
      {kExcluded, CA_PROTO_CC, {kUplink, 10000}, noNeed, ""},
      {kInternet, CA_PROTO_CC, {1, 10000}, "1.0.0.0:10000=0.0.0.0:0/0", ""},  // no gateway's address
      {kInternet, CA_PROTO_CC, {kUplink, 10200}, "10.77.0.2:10200=0.0.0.0:0/0", need},
      {kInternet, CA_PROTO_CC, {0, 10150}, "10.77.0.2:10150=0.0.0.0:0/2", noPort},
      {kInternet, CA_PROTO_CM, {kUplink, 10149}, "10.77.0.2:10149=203.0.113.7:20149/1", need},
  };
  Connect(kCm);
  fake::Device()->online.insert(kCc);
  for (const auto& row : rows) {
    SCOPED_TRACE(row.destination + (" from " + row.answer));
    EXPECT_EQ(Ask(kCc, {RTP, 50, row.destination, {row.item}, row.csProto}),
              Strings{"send 115 rtp 50 " + row.answer + " value " + std::to_string(row.csProto)});
    const std::string log = fake::Log();
    const auto begin = log.find("\r\n\r\n", log.find("SelfPort = ")) + 4;
    EXPECT_EQ(log.substr(begin, log.find("CA_Proto 3\r\n") - begin), row.log);
    // Handed out, or not, in the table too.
    Ask(kCc, {CLOSE, 50});
    EXPECT_EQ(fake::Log().find("Rev target deleted") != std::string::npos, row.answer.ends_with("/1"));
  }
}

TEST(ReverseNatManagerTest, ManyOpenQueryIdsAreSaidOnceATenfold) {
  const struct {
    u64 ids;  // to become open
    std::string said;
  } steps[] = {{9'999, ""},       {10'000, "10000"}, {5'000, ""},         {10'500, ""}, {4'999, ""},
               {10'500, "10000"}, {99'999, ""},      {100'000, "100000"}, {0, ""},      {10'000, "10000"}};
  ReverseNatManager table;
  for (u64 open = 0; const auto& step : steps) {
    testing::internal::CaptureStderr();
    for (; open < step.ids; ++open) {
      table.AddRevTarget(open, {});
    }
    for (; open > step.ids; --open) {
      table.DeleteRevTarget(open - 1);
    }
    EXPECT_EQ(testing::internal::GetCapturedStderr(),
              step.said.empty() ? "" : step.said + " RTP query ids are open; a call agent may not close them\n");
    EXPECT_EQ(table.OpenIds(), step.ids);
  }
}

}  // namespace
