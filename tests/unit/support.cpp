#include "tests/unit/support.h"

#include <arpa/inet.h>

u32 Ip(const char* text) { return ::inet_addr(text); }

TestSource::TestSource() {
  nat.sipUdpPort = nat.sipTcpPort = 5060;
  nat.sipUdpPublicIp = nat.sipTcpPublicIp = nat.gwPublicIp = kPublic;
  std::tie(nat.sipUdpPublicPort, nat.sipTcpPublicPort) = std::pair(15060, 15061);
  std::tie(nat.gwPublicPortStart, nat.gwPublicPortEnd) = std::pair(20000, 20149);
}

AgentTest::AgentTest() {
  fake::Reset();
  fake::Device device;
  device->otherRoutes = fake::Route(kUplink, 1);
  device->routes = {{Ip(kNeighbour), fake::Route(kUplink, 0)}, {Ip(kNowhere), std::nullopt}};
  device->interfaces = {{SockAddr(kUplink), "eth0"}};
  // What the one agent object keeps from the test before.
  _NatAgent.m_upLinkIp = 0;
  _NatAgent.m_excTable.SetTable({});
  g_configSource = nullptr;
}

AgentTest::~AgentTest() {
  fake::Device()->lookUpsToReturn = fake::kAll;
  StopNatMain();
  EXPECT_FALSE(fake::Device()->logHeld);
}

void AgentTest::StartAgent() {
  NatMain(&m_source);
  ASSERT_TRUE(fake::WaitUntilIdle());
  ASSERT_TRUE(fake::WaitForCall("log4 Starting IpUpDownInformer Thread\r\n"));
  ASSERT_TRUE(fake::WaitForCall("log4 Starting Resolving Thread\r\n"));
}

void AgentTest::Deliver(u32 queue, Message message) {
  fake::Device()->messages[queue].push_back(std::move(message));
  fake::Device()->events.push_back(static_cast<int>(queue));
  ASSERT_TRUE(fake::WaitUntilIdle());
}

Strings AgentTest::Ask(u32 queue, Message message) {
  fake::Take({});
  Deliver(queue, std::move(message));
  return fake::Calls({"send"});
}
