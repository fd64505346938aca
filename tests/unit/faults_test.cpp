// What the host's GetConfig throws, or an allocation.

#include "tests/unit/support.h"

namespace {

TEST_F(RunningAgentTest, ThrowingGetConfig) {
  const std::string connected = "Connected Call Agent Sip UA \r\n";
  m_source.throws = true;
  Connect(kSip);
  EXPECT_EQ(fake::Log(), connected + "Error: Loading Congif File Failed\r\n");
  EXPECT_EQ(Ask(kSip, {CS, 1, kInternet, {{kUplink, 5060}}}), Strings{"send 112 cs 1 0.0.0.0:0/2 value 0"});
  UpdateNatMain(0x2080);
  m_source.throws = false;
  UpdateNatMain(0x2080);
  EXPECT_EQ(Ask(kSip, {CS, 1, kInternet, {{kUplink, 5060}}}), Strings{"send 112 cs 1 203.0.113.7:15060/1 value 0"});
}

// The request is answered once, and so is the next one; the lines that were traced are kept.
TEST_F(RunningAgentTest, RequestsThatWantForMemory) {
  const std::list<NatItem> items = {{kUplink, 10000}, {kUplink, 10002}};
  const std::string none = " 10.77.0.2:10000=0.0.0.0:0/2 10.77.0.2:10002=0.0.0.0:0/2 value ";
  const struct {
    u32 queue;
    Message message;
    Strings answer;
  } rows[] = {
      {kSip, {CS, 1, kInternet, items}, {"send 112 cs 1 0.0.0.0:0/2 value 0"}},
      {kSip, {CS_LIST, 2, kInternet, items}, {"send 112 cs-list 2" + none + "2"}},
      {kCc, {RTP, 3, kInternet, items, CA_PROTO_CM}, {"send 115 rtp 3" + none + "0"}},
      {kQueue113, {CS, 4, kInternet, items}, {}},
  };
  Connect(kSip);
  Connect(kCm);
  for (const auto& row : rows) {
    SCOPED_TRACE(row.message.id);
    fake::Device()->routesThrow = 1;
    EXPECT_EQ(Ask(row.queue, row.message), row.answer);
    EXPECT_THAT(fake::Log(), testing::HasSubstr("emoteI"));
    EXPECT_EQ(Ask(row.queue, row.message).size(), row.answer.size());
  }
}

// Two names come back together: the first request's second handling fails, the second is answered as ever.
TEST_F(RunningAgentTest, LateRequestsThatWantForMemory) {
  Connect(kSip);
  Connect(kCm);
  fake::Device()->hosts = {{"far.example", Ip(kInternet)}};
  for (const u32 queue : {kSip, kCm}) {
    fake::Device()->lookUpsToReturn = 0;
    Deliver(queue, {RTP, 1, "far.example", {{kUplink, 5060}}, CA_PROTO_CM});
    Deliver(kSip, {CS, 2, "far.example", {{kUplink, 5060}}});
    fake::Take({});
    fake::Device()->routesThrow = 1;
    fake::Device()->lookUpsToReturn = fake::kAll;
    ASSERT_TRUE(fake::WaitForCall("send 112 cs 2 203.0.113.7:15060/1 value 0"));
    EXPECT_EQ(fake::Calls({"send"}).front(), queue == kSip ? "send 112 cs 1 0.0.0.0:0/2 value 0"
                                                           : "send 114 rtp 1 10.77.0.2:5060=0.0.0.0:0/2 value 0");
    ASSERT_TRUE(fake::WaitForCall("lookup far.example"));
    ASSERT_TRUE(fake::WaitUntilIdle());
  }
}

// A change of the uplink that could not be handled is handled with the next turn that looks.
TEST_F(RunningAgentTest, UplinkChangeThatWantsForMemory) {
  _NatAgent.m_upLinkIp = kUplink;
  fake::Device()->routes[0] = fake::Route(kPublic, 1);
  fake::Device()->routesThrow = 1;
  ++fake::Device()->routeChanges;
  ASSERT_TRUE(fake::WaitForCall("poll release"));
  ASSERT_TRUE(fake::WaitUntilIdle());
  EXPECT_EQ(_NatAgent.m_upLinkIp, kUplink);
  ++fake::Device()->routeChanges;
  ASSERT_TRUE(fake::WaitForCall("log4 UpLink IP Up\r\n"));
}

// A turn that begins during a reload does not hold the reload's lines back.
TEST_F(RunningAgentTest, TurnBehindAReload) {
  for (int i = 0; i < 20; ++i) {
    fake::OnLog("\r\nUpdate Udp NatSettings for SIP\r\n", [] {
      fake::Device()->messages[kCc].push_back({});
      fake::Device()->events.push_back(kCc);
      while (fake::Device()->waiting) {
        std::this_thread::yield();
      }
    });
    fake::Take({});
    UpdateNatMain(0x0080);
    ASSERT_TRUE(fake::WaitUntilIdle());
    const Strings calls = fake::Calls({"log", "log4"});
    EXPECT_GT(std::ranges::find(calls, "log hold"), std::ranges::find(calls, "log4 Update Gw Nat Settings "));
  }
}

}  // namespace
