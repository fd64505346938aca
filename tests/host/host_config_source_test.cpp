#include "host/host_config_source.h"

#include <gtest/gtest.h>

#include <atomic>
#include <thread>
#include <vector>

namespace {

HostSettings WithPorts(u16 port) {
  HostSettings settings = DefaultSettings();
  settings.nat.sipUdpPort = settings.nat.sipTcpPort = port;
  return settings;
}

u16 PortOf(ConfigSource& source) { return source.GetConfig()->natConfig->sipUdpPort; }

u16 PortSeenByAnotherThread(ConfigSource& source) {
  u16 port = 0;
  std::thread([&] { port = PortOf(source); }).join();
  return port;
}

TEST(HostConfigSource, TheNewRecordWaitsForTheHostThreadToAsk) {
  HostConfigSource source(WithPorts(1));
  const HostConfig* inUse = source.GetConfig();
  source.Replace(WithPorts(9), [] {});
  EXPECT_EQ(inUse->natConfig->sipUdpPort, 1) << "it outlives an update that did not ask";
  source.Replace(WithPorts(1), [] {});
  source.Replace(WithPorts(2), [&] {
    EXPECT_EQ(PortSeenByAnotherThread(source), 1);  // a load that is under way goes on with the old one
    EXPECT_EQ(PortOf(source), 2);
    EXPECT_EQ(PortSeenByAnotherThread(source), 2);
  });
  EXPECT_EQ(PortOf(source), 2);
}

TEST(HostConfigSource, WhoDidNotAskIsToldOnceMoreWithTheNewRecord) {
  HostConfigSource source(WithPorts(1));
  std::vector<u16> seen;  // by an agent that only begins to run while it is told
  source.Replace(WithPorts(2), [&] { seen.push_back(PortSeenByAnotherThread(source)); });
  EXPECT_EQ(seen, (std::vector<u16>{1, 2}));
}

// The agent's own rule: a load runs under one lock, on its thread or inside an update on the host's.
TEST(HostConfigSource, NoLoadSeesTwoConfigurations) {
  HostConfigSource source(WithPorts(1));
  std::mutex settingsLock;
  std::atomic<bool> stop = false;
  std::atomic<unsigned> mixed = 0;
  const auto load = [&] {
    const std::lock_guard lock(settingsLock);
    const u16 first = PortOf(source);
    if (source.GetConfig()->natConfig->sipTcpPort != first) ++mixed;
  };
  std::thread agent([&] {
    while (!stop) load();
  });
  for (u16 port = 2; port < 2000; ++port) source.Replace(WithPorts(port), load);
  stop = true;
  agent.join();
  EXPECT_EQ(mixed, 0u);
  EXPECT_EQ(PortOf(source), 1999);
}

}  // namespace
