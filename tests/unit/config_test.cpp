// Loading of the host's configuration.

#include <cstring>

#include "nat/config_loaders.h"
#include "tests/unit/support.h"

namespace {

using ConfigTest = LockedAgentTest;

TEST_F(ConfigTest, WithoutAConfigurationNothingChanges) {
  m_manager.LoadNatSettings(CA_PROTO_CM);
  m_manager.LoadNatSettings(CA_PROTO_SIP);
  TestSource noRecord;
  noRecord.available = false;
  TestSource noNat;
  noNat.record.natConfig = nullptr;
  for (ConfigSource* source : std::initializer_list<ConfigSource*>{nullptr, &noRecord, &noNat}) {
    g_configSource = source;
    fake::Take({});
    EXPECT_FALSE(LoadGwSettings(GW_REMOVE));
    EXPECT_FALSE(m_manager.LoadNatSettings(CA_PROTO_SIP));
    EXPECT_FALSE(m_manager.ReloadNatSettings());
    EXPECT_EQ(fake::Log(), "");
    EXPECT_EQ(_NatAgent.m_excTable.IsExcluded(Ip(kExcluded)), 1u);
    EXPECT_EQ(PublicPort(5060), 15060);
    EXPECT_TRUE(m_storage.HasGw(kUplink));
  }
  // Without the media settings it is the gateways that are not loaded.
  TestSource noMedia;
  noMedia.record.mediaConfig = nullptr;
  noMedia.nat.sipUdpPublicPort = 25060;
  g_configSource = &noMedia;
  EXPECT_TRUE(m_manager.LoadNatSettings(CA_PROTO_SIP));
  EXPECT_EQ(PublicPort(5060), 25060);
  EXPECT_FALSE(LoadGwSettings(GW_REMOVE));
  EXPECT_TRUE(m_storage.HasGw(kUplink));
}

TEST_F(ConfigTest, EveryLoadReadsAfresh) {
  m_manager.LoadNatSettings(CA_PROTO_SIP);
  m_source.nat.sipUdpPort = 5070;
  m_source.nat.sipUdpPublicPort = 25070;
  m_source.nat.sipTcpPublicIp = 0;  // off
  m_manager.LoadNatSettings(CA_PROTO_SIP);
  EXPECT_EQ(PublicPort(5060), 0);
  EXPECT_EQ(PublicPort(5070), 25070);
  EXPECT_EQ(PublicPort(5060, NATPORT_TCP), 0);
  m_source.nat.sipUdpPublicIp = 0;  // STUN needs none
  m_source.nat.sipUdpUseStun = m_source.nat.gwUseStun = 1;
  m_source.media.rtcpEnabled = 0;
  EXPECT_TRUE(m_manager.LoadNatSettings(CA_PROTO_SIP));
  EXPECT_THAT(fake::Calls({"stun"}), testing::Contains("stun AddPorts 5070 5070 1 1 false true"));
  EXPECT_TRUE(LoadGwSettings(GW_ADD));
  EXPECT_THAT(fake::Calls({"stun"}), testing::Contains("stun AddPorts 10000 10199 2 3 true true"));
}

TEST_F(ConfigTest, GatewaysByInterfaceAndMode) {
  const std::string notAdded = "Update Gw Nat Settings \r\nError: Gw Not Added\r\n";
  const std::string updated = "Update Gw Nat Settings UdpMapMode -- oldMode 1 --newMode 1\r\n" + kDashes;
  const std::string added = "Add Gw Nat Settings\r\n";
  const struct {
    const char* interface;
    u32 mode;
    bool result;
    std::string log;
    bool eth;
    bool tun;
  } steps[] = {
      {"*", GW_UPDATE, true, notAdded + notAdded, false, false},
      {"ETH0", GW_ADD, true, "", false, false},
      {"tun0", GW_ADD, true, added, false, true},
      {"*", GW_UPDATE, true, notAdded + updated, false, true},
      {"*", GW_ADD, true, added + added, true, true},
      {"*", 3, false, "Error Gw Nat Update Unknown Mode\r\n", true, true},  // stops at the first
      {"eth0", GW_REMOVE, true, "", false, true},
      {"tun0", GW_REMOVE, true, "", false, true},  // one of two
      {"*", GW_REMOVE, true, "", false, false},
  };
  fake::Device()->interfaces = {{SockAddr(1), "eth0"}, {SockAddr(0), "eth1"}, {SockAddr(2), "tun0"}};
  for (const auto& step : steps) {
    SCOPED_TRACE(step.interface + std::to_string(step.mode));
    m_source.nat.gwInterface = step.interface;
    fake::Take({});
    EXPECT_EQ(LoadGwSettings(static_cast<GwLoadMode>(step.mode)), step.result);
    EXPECT_EQ(fake::Log(), step.log);
    EXPECT_EQ(m_storage.HasGw(1), step.eth);
    EXPECT_EQ(m_storage.HasGw(2), step.tun);
  }
}

TEST_F(ConfigTest, LoadsByCallAgent) {
  _NatAgent.m_upLinkIp = kUplink;
  EXPECT_FALSE(m_manager.LoadNatSettings(CA_PROTO_CC));
  // The exclusion table counts as loaded even if there was none.
  m_source.available = false;
  EXPECT_FALSE(m_manager.LoadNatSettings(CA_PROTO_CM));
  EXPECT_EQ(_NatAgent.m_upLinkIp, 0u);
  m_source.available = true;
  EXPECT_TRUE(m_manager.LoadNatSettings(CA_PROTO_CM));
  EXPECT_FALSE(m_manager.UnloadNatSettings(static_cast<CA_PROTO>(2)));
  EXPECT_EQ(fake::Log(), "Add Gw Nat Settings\r\nUnload config for Unknown ptotoType \r\n");
}

#if defined(__x86_64__)
// A host may be built elsewhere: of the object it hands over, the place in the virtual table is what counts.
TEST(ConfigSource, GetConfigIsTheSixteenthVirtualOperation) {
  const auto operation = &ConfigSource::GetConfig;
  std::size_t place = 0;  // the table's offset in bytes, plus 1
  std::memcpy(&place, &operation, sizeof(place));
  EXPECT_EQ(place, 15 * sizeof(void*) + 1);
}
#endif

}  // namespace
