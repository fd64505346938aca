// The port-mapping storage and the STUN wrapper: what they answer, and the exact calls and texts of each transition.

#include <thread>

#include "tests/unit/support.h"

namespace {

using StorageTest = LockedAgentTest;

NatMappings Mappings(UdpMapMode mode, u16 start, u16 end, bool noRtcp = false, u32 localIp = 0, u16 flags = 0) {
  NatMappings mappings;
  mappings.Set(localIp, start, end, mode, flags, noRtcp);
  if (mode == MAP_STATIC) {
    mappings.SetStatic(kPublic, 20000, 20999);
  }
  return mappings;
}

Strings operator+(Strings left, const Strings& right) {
  left.insert(left.end(), right.begin(), right.end());
  return left;
}

const Strings kStarted = {"stunlogger create",
                          "stun new true true",
                          "log4 Reading Stun Cfg\r\n",
                          "stun UpdateSettings stun.example.net:3478 10 30 20",
                          "log0 " + kDashes + "Starting Stun agent\r\n" + kDashes,
                          "stun RemoveAllPorts",
                          "stun Start true true",
                          "stun SetChangedPortsCallback"};
const Strings kEnded = {"log4 Stoping Stun agent\r\n", "stun RemoveAllPorts", "stun Stop false", "stun delete",
                        "stunlogger destroy"};

Strings TakeCalls() { return fake::Take({"stun", "stunlogger", "log4", "log0"}); }

// What goes with ports that are added, `owner` being their owner and its flag; and removed.
Strings Added(const std::string& start, const std::string& end, const std::string& step, const std::string& owner) {
  return {"log4 Add Port(s) to Stun start = " + start + " end = " + end + " interval = " + step + "\r\n",
          "stun AddPorts " + start + " " + end + " " + step + " " + owner + " true"};
}
Strings Removed(const std::string& start, const std::string& end, const std::string& step) {
  return {"log4 Remove Stun Ports start = " + start + "\t end = " + end + "\r\n interval = " + step + "\r\n",
          "stun RemovePorts " + start + " " + end + " " + step};
}

// Each row is run on the SIP agent's slot and on a gateway.
TEST_F(StorageTest, EveryModeTransition) {
  const NatMappings fixed = Mappings(MAP_STATIC, 10000, 10099);
  const NatMappings smaller = Mappings(MAP_STATIC, 10000, 10049);
  const NatMappings learnt = Mappings(MAP_STUN, 10000, 10099);
  const NatMappings noRtcp = Mappings(MAP_STUN, 10000, 10099, true);
  const NatMappings elsewhere = Mappings(MAP_STUN, 30000, 30099, true);
  const NatMappings none = Mappings(MAP_NONE, 10000, 10099);
  for (const bool gateway : {false, true}) {
    // Gateways are updated in the name of CM, whatever their ports were first registered for.
    const std::string owner = gateway ? "0 true" : "1 false";
    const struct {
      const char* what;
      NatMappings from;
      NatMappings to;
      bool changes;
      Strings calls;
    } rows[] = {
        {"static to none", fixed, none, false, {}},
        {"stun to none", learnt, none, false, {}},
        {"static to static", fixed, smaller, true, {}},
        {"static to stun", fixed, learnt, true, kStarted + Added("10000", "10099", "1", owner)},
        {"static to stun without rtcp", fixed, noRtcp, true, kStarted + Added("10000", "10099", "2", owner)},
        {"stun to static removes every port", noRtcp, fixed, true, Removed("10000", "10099", "1") + kEnded},
        {"the same again", learnt, learnt, true, {}},
        {"rtcp goes", learnt, noRtcp, true, Strings{"log0 Disabling rtcp\r\n"} + Removed("10001", "10099", "2")},
        {"rtcp comes", noRtcp, learnt, true, Strings{"log0 Enabling rtcp\r\n"} + Added("10001", "10099", "2", owner)},
        {"another range", learnt, elsewhere, true,
         Strings{"stun RemovePorts 10000 10099 1"} + Added("30000", "30099", "2", owner)},
    };
    for (const auto& row : rows) {
      SCOPED_TRACE(std::string(row.what) + (gateway ? ", gateway" : ", sip"));
      gateway ? m_storage.AddGw(row.from) : m_storage.SetUdpMappings(CA_PROTO_SIP, &row.from);
      fake::Take({});
      if (gateway) {
        EXPECT_EQ(m_storage.UpdateGw(row.to), row.changes);
      } else {
        m_storage.SetUdpMappings(CA_PROTO_SIP, &row.to);
      }
      const std::string line = "log4 UdpMapMode -- oldMode " + std::to_string(row.from.mode) + " --newMode " +
                               std::to_string(row.to.mode) + "\r\n" + kDashes;
      EXPECT_EQ(TakeCalls(), Strings{line} + row.calls);
      // What is held now shows in a look-up, and in that it leaves STUN.
      const NatMappings& held = row.changes ? row.to : row.from;
      NatSetting setting{.selfPort = 10060};
      gateway ? m_storage.GetGwMapping(setting) : m_storage.GetCSMapping(CA_PROTO_SIP, setting);
      EXPECT_EQ(setting.mappedPort, held.mode == MAP_STATIC && held.InRange(10060) ? 20060 : 0);
      fake::Take({});
      m_storage.Unload(gateway ? CA_PROTO_CM : CA_PROTO_SIP);
      const std::string range = std::to_string(held.range.localStart) + " " + std::to_string(held.range.localEnd);
      const Strings left = {"stun RemovePorts " + range + " 1", kEnded[1], kEnded[2], kEnded[3]};
      EXPECT_EQ(fake::Calls({"stun"}), held.mode == MAP_STUN ? left : Strings{});
    }
  }
}

TEST_F(StorageTest, WhatTheSipAgentHasGoes) {
  NatMappings mappings = Mappings(MAP_STUN, 5060, 5060);
  m_storage.SetUdpMappings(CA_PROTO_SIP, &mappings);
  fake::Take({});
  mappings.SetStatic(0, 15060, 15060);
  m_storage.SetUdpMappings(CA_PROTO_SIP, &mappings);
  EXPECT_EQ(TakeCalls(), Removed("5060", "5060", "1") + kEnded);
  EXPECT_EQ(PublicPort(5060), 0);
  const PortRange range{5060, 5060, kPublic, 15060, 15060};
  for (const NatPortType type : {NATPORT_TCP, NATPORT_TLS}) {
    m_storage.SetRange(type == NATPORT_TCP ? 0 : 1, &range);
    EXPECT_EQ(PublicPort(5060, type), 15060);
    EXPECT_TRUE(m_storage.Unload(CA_PROTO_SIP));
    EXPECT_EQ(PublicPort(5060, type), 0);
  }
}

TEST_F(StorageTest, GatewaysComeAndGo) {
  const u32 wan = Ip("10.8.0.1");
  const auto mapping = [this](u32 localIp, u16 port) {
    NatSetting setting{.selfPort = port, .localIp = localIp};
    const bool covered = m_storage.GetGwMapping(setting);
    return (covered ? "yes " : "no ") + std::to_string(setting.mappedPort);
  };
  m_storage.AddGw(Mappings(MAP_STUN, 10000, 10099, true, kUplink));
  EXPECT_EQ(TakeCalls(), kStarted + Added("10000", "10099", "2", "3 true"));
  m_storage.AddGw(Mappings(MAP_STATIC, 10050, 40199, false, kUplink, 1));
  m_storage.AddGw(Mappings(MAP_STUN, 10000, 10099, false, wan, 1));
  EXPECT_EQ(TakeCalls(), Added("10000", "10099", "1", "3 true"));

  fake::Device()->stunPorts = {{10060, {kPublic, 41060}}, {10061, {kPublic, 0}}};
  EXPECT_EQ(mapping(kUplink, 10060), "yes 41060");  // the one added first
  EXPECT_EQ(mapping(kUplink, 10150), "yes 20100");  // only the second covers it
  EXPECT_EQ(mapping(kUplink, 40200), "no 0");
  EXPECT_EQ(fake::Take({"stun"}), Strings{"stun GetPortResult 10060"});
  EXPECT_EQ(mapping(kUplink, 10061), "yes 0");  // covered, and not all of it known
  EXPECT_EQ(fake::Take({"stun"}), (Strings{"stun GetPortResult 10061", "stun SendScanEvent"}));
  // Address and identity bit must both be right.
  EXPECT_FALSE(m_storage.UpdateGw(Mappings(MAP_STATIC, 1, 2, false, wan, 0)));
  EXPECT_FALSE(m_storage.RemoveGw(wan, 0));
  EXPECT_FALSE(m_storage.RemoveGw(Ip(kInternet), 1));
  EXPECT_TRUE(m_storage.RemoveGw(kUplink, 1));
  EXPECT_EQ(TakeCalls(), Strings{});
  EXPECT_TRUE(m_storage.RemoveGw(wan, 1));
  EXPECT_TRUE(m_storage.RemoveGw(kUplink, 0));
  EXPECT_EQ(TakeCalls(), Removed("10000", "10099", "1") + Removed("10000", "10099", "1") + kEnded);
}

TEST_F(StorageTest, UsesAreCounted) {
  EXPECT_TRUE(m_stun.Release());  // one too many is nothing, also for the count
  EXPECT_TRUE(m_stun.Start());
  EXPECT_EQ(TakeCalls(), kStarted);
  m_stun.Start();
  m_stun.Release();
  EXPECT_EQ(TakeCalls(), Strings{});
  EXPECT_TRUE(m_stun.Release());
  EXPECT_EQ(TakeCalls(), kEnded);
  // A stop ends it whatever the count.
  m_stun.Start();
  m_stun.Start();
  fake::Take({});
  EXPECT_TRUE(m_stun.Stop());
  EXPECT_EQ(TakeCalls(), (Strings{"stun RemoveAllPorts", "stun Stop true", "stun delete", "stunlogger destroy"}));
  EXPECT_FALSE(m_stun.AddPorts(5060, 5060, 1, 1));
  EXPECT_EQ(TakeCalls(), Strings{"log4 Can't Set ports: Stun not started\r\n"});
  m_stun.Start();
  EXPECT_EQ(TakeCalls(), kStarted);
}

TEST_F(StorageTest, AFailedStartLeavesNothingAndIsTriedAgain) {
  Strings wanted(kStarted.begin(), kStarted.begin() + 3);
  m_source.available = false;
  EXPECT_FALSE(m_stun.Start());
  EXPECT_EQ(TakeCalls(), (wanted + Strings{"log4 \r\nError:Stun server list empty!\r\n",
                                           "log4 Error reading stun cfg:Can't Start Stun agent\r\n", "stun delete"}));
  m_source.available = true;
  fake::Device()->stunStarts = false;
  EXPECT_FALSE(m_stun.Start());
  wanted.assign(kStarted.begin(), kStarted.end() - 1);
  EXPECT_EQ(TakeCalls(),
            (wanted + Strings{"log4 " + kDashes + "Error:Can't start Stun agent\r\n" + kDashes, "stun delete"}));
  // The host's own fault.
  struct Faulty final : ConfigSource {
    HostConfig* GetConfig() override { throw std::bad_alloc(); }
  } faulty;
  g_configSource = &faulty;
  EXPECT_THROW(m_stun.Start(), std::bad_alloc);
  EXPECT_FALSE(m_stun.IsRunning());
  g_configSource = &m_source;
  fake::Device()->stunStarts = true;
  fake::Take({});
  EXPECT_TRUE(m_stun.Start());
  EXPECT_EQ(TakeCalls(), kStarted);
}

TEST_F(StorageTest, WithoutAnUplinkItWaitsForOne) {
  _NatAgent.m_upLinkIp = 0;
  fake::Device()->routes[0] = std::nullopt;
  EXPECT_TRUE(m_stun.Start());
  EXPECT_EQ(TakeCalls(), Strings(kStarted.begin(), kStarted.begin() + 4));
  EXPECT_TRUE(m_stun.AddPorts(65535, 65535, 1, 3));
  EXPECT_EQ(TakeCalls(), Added("65535", "65535", "1", "3 true"));
  fake::Device()->stunStarts = false;
  EXPECT_FALSE(m_stun.OnUpLinkChanged(true));
  fake::Device()->stunStarts = true;
  EXPECT_TRUE(m_stun.OnUpLinkChanged(true));
  const std::string shortRule = kDashes.substr(1);
  EXPECT_EQ(TakeCalls(),
            (Strings{"stun Start true true", "log4 " + kDashes + "Error:Can't start Stun agent\r\n" + shortRule,
                     "stun Start true true", "log4 " + kDashes + "Starting Stun agent\r\n" + shortRule}));
  // The RTCP neighbour of the last port there is: the number after it is 0.
  m_stun.UpdatePorts({65535, 65535, 1, 3}, {65535, 65535, 2, 3});
  EXPECT_EQ(TakeCalls(), (Strings{"log0 Disabling rtcp\r\n"} + Removed("0", "65535", "2")));
  m_stun.Release();
  fake::Take({});
  EXPECT_FALSE(m_stun.RemovePorts(1, 2, 1));
  EXPECT_TRUE(m_stun.UpdateServerSettings());
  EXPECT_TRUE(m_stun.OnUpLinkChanged(true));
  EXPECT_EQ(TakeCalls(),
            (Strings{"log4 Can't Remove ports: Stun not started\r\n", "log4 Stun not runing:no need update\r\n"}));
}

TEST_F(StorageTest, ChangedPortsAreNotifiedOnceForTheSipAgent) {
  m_stun.Start();
  fake::Take({});
  // On a thread of its own, while the settings lock is taken.
  std::jthread([] { fake::ReportChangedPorts({{10000, 3}, {10001, 0}, {1, 2}}); }).join();
  EXPECT_EQ(fake::Calls({"notice", "log4"}), Strings{});
  std::jthread([] { fake::ReportChangedPorts({{10000, 3}, {5060, 1}, {5061, 1}}); }).join();
  EXPECT_EQ(fake::Calls({"notice"}), Strings{"notice 92 0 false"});
  EXPECT_EQ(fake::Log(), "\r\n" + kDashes + "CS Nat port changes trying NotifyTo Sip \r\n" + kDashes);
  fake::Take({});
  EXPECT_TRUE(_NatAgent.NotifyToCSNatChanges(CA_PROTO_CC));
  EXPECT_EQ(fake::Calls({"notice"}), Strings{"notice 93 0 false"});
}

}  // namespace
