// The watch on the uplink address, and the host's on the agent thread.

#include "tests/unit/support.h"

namespace {

TEST_F(RunningAgentTest, UplinkChanges) {
  const u32 a = kUplink;
  const u32 b = kPublic;
  const Strings up = {"log4 UpLink IP Up\r\n", "stun Start true true",
                      "log4 " + kDashes + "Starting Stun agent\r\n" + kDashes.substr(1)};
  const Strings down = {"log4 UpLink IP Down\r\n", "log4 Stoping Stun agent\r\n", "stun Stop false",
                        "log4 Stun Agent Stopped\r\n"};
  const struct {
    const char* what;
    u32 before;
    u32 route;  // 0: none
    Strings calls;
    u32 gateway;  // where the one that follows is then
    bool stun = true;
  } rows[] = {
      {"unknown, none", 0, 0, {}, 1},
      {"unknown, comes up", 0, a, up, a},
      {"the same", a, a, {}, a},
      {"another", a, b, up, b},
      {"lost", b, 0, down, b},
      {"still lost: handled once", 0, 0, {}, b},
      {"the same comes back", 0, b, up, b},
      {"STUN not in use", b, a, {up[0]}, a, false},
      {"lost", a, 0, {down[0]}, a, false},
  };
  m_source.nat.sipUdpUseStun = 1;
  Connect(kSip);
  {  // A gateway that follows the uplink, which no loader makes.
    ScopedLock lock(g_settingsLock);
    NatMappings gateway;
    gateway.Set(1, 1, 2, MAP_NONE, kFollowUplinkFlag, false);
    _NatAgent.m_qorStorage->AddGw(gateway);
  }
  for (const auto& row : rows) {
    SCOPED_TRACE(row.what);
    if (!row.stun) {
      HangUp(kSip);
    }
    _NatAgent.m_upLinkIp = row.before;
    fake::Take({});
    fake::Device()->routes[0] = row.route != 0 ? std::optional(fake::Route(row.route, 1)) : std::nullopt;
    ++fake::Device()->routeChanges;
    ASSERT_TRUE(fake::WaitForCall("poll release"));
    ASSERT_TRUE(fake::WaitUntilIdle());
    EXPECT_EQ(fake::Calls({"stun", "log4", "log0"}), row.calls);
    EXPECT_EQ(_NatAgent.m_upLinkIp, row.route);
    ScopedLock lock(g_settingsLock);
    EXPECT_TRUE(_NatAgent.m_qorStorage->HasGw(row.gateway));
  }
}

TEST_F(RunningAgentTest, ASignOfLifeComesFromTheAgentThreadOnly) {
  m_source.nat.gwUseStun = 1;
  m_source.nat.sipUdpUseStun = 1;
  Connect(kSip);
  Connect(kCm);
  fake::Device()->stunPorts[10000] = {kPublic, 40000};
  NatHostHealth health{};
  health.size = sizeof health;
  ASSERT_EQ(NatHostReadHealth(&health), 1);
  EXPECT_EQ(health.answers, 0U) << "asked for the first time";
  ASSERT_TRUE(fake::WaitUntilIdle());
  {
    // As a turn that does not end: the agent thread can answer no more.
    ScopedLock lock(g_settingsLock);
    for (int i = 0; i < 3; ++i) {
      ASSERT_EQ(NatHostReadHealth(&health), 1);
      EXPECT_EQ(health.answers, 1U);
    }
  }
  EXPECT_EQ(health.parties, NAT_PARTY_SIP | NAT_PARTY_CM);
  EXPECT_EQ(health.ports_learnt, 1U);
  EXPECT_EQ(health.uplink, kUplink);
  NatHostHealth older{};
  older.size = offsetof(NatHostHealth, parties);  // a host that knows no more than that
  ASSERT_TRUE(fake::WaitUntilIdle());
  ASSERT_EQ(NatHostReadHealth(&older), 1);
  EXPECT_EQ(older.answers, 2U);
  EXPECT_EQ(older.uplink, 0U);
  StopNatMain();
  EXPECT_EQ(NatHostReadHealth(&health), 0);
}

}  // namespace
