#pragma once

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "agent/library_state.h"
#include "agent/nat_agent.h"
#include "nat/host_config.h"
#include "tests/unit/fake_platform/fake.h"

using fake::Message;
using fake::Strings;
using enum fake::Message::Kind;

u32 Ip(const char* text);  // of a dotted text

inline const std::string kDashes = std::string(50, '-') + "\r\n";
inline const u32 kUplink = Ip("10.77.0.2");
inline const u32 kPublic = Ip("203.0.113.7");
inline constexpr char kInternet[] = "198.51.100.9";  // behind the gateway
inline constexpr char kNeighbour[] = "10.77.0.1";    // on the attached network
inline constexpr char kNowhere[] = "192.0.2.99";     // without a route
inline constexpr char kExcluded[] = "172.20.1.1";

inline constexpr u32 kSip = 112;
inline constexpr u32 kQueue113 = 113;
inline constexpr u32 kCm = 114;
inline constexpr u32 kCc = 115;

// The host's configuration object; tests change the blocks between two loads.
struct TestSource final : ConfigSource {
  TestSource();
  HostConfig* GetConfig() override {
    if (throws) {
      throw "no reason";  // the host's own fault, and nothing that the library knows
    }
    return available ? &record : nullptr;
  }

  MediaConfig media{.rtpPortStart = 10000, .rtpPortEnd = 10199, .rtcpEnabled = 1};
  NatConfig nat{.gwInterface = "*",
                .natExclusions = {{"172.20.9.9", "255.255.0.0"}},
                .stunSetting1 = 10,
                .stunSetting2 = 20,
                .stunSetting3 = 30,
                .stunServerHost = "stun.example.net",
                .stunServerPort = 3478};
  HostConfig record{&media, &nat};
  bool available = true;
  std::atomic<bool> throws = false;
};

// A device with one interface and a default route, and an agent that is not started yet.
class AgentTest : public testing::Test {
 protected:
  AgentTest();
  ~AgentTest() override;  // stops a running agent

  // Starts the agent and waits until its main loop waits.
  void StartAgent();
  // Lets the agent take the message in, with everything that follows from it on its own thread.
  static void Deliver(u32 queue, Message message);
  static void Connect(u32 queue) { Deliver(queue, {}); }
  static void HangUp(u32 queue) { Deliver(queue, {.kind = HANG_UP}); }
  // Only what the message brings about is in the journal then; the answers.
  static Strings Ask(u32 queue, Message message);

  TestSource m_source;
};

// The same, started, with an empty journal.
class RunningAgentTest : public AgentTest {
 protected:
  RunningAgentTest() {
    StartAgent();
    fake::Take({});
  }
};

// The same, with the settings lock held, as a turn of the main loop holds it.
class LockedAgentTest : public RunningAgentTest {
 protected:
  LockedAgentTest() { g_settingsLock.Lock(); }
  ~LockedAgentTest() override { g_settingsLock.Unlock(); }

  // The SIP agent's public port; 0 without a mapping.
  u16 PublicPort(u16 port, NatPortType type = NATPORT_UDP) {
    NatSetting setting{.selfPort = port, .portType = type};
    return m_storage.GetCSMapping(CA_PROTO_SIP, setting) ? setting.mappedPort : 0;
  }

  QorMappingStorage& m_storage = *_NatAgent.m_qorStorage;
  NatConfigManager& m_manager = *_NatAgent.m_configManager;
  StunManagerWrapper& m_stun = _NatAgent.m_stunWrapper;
};
