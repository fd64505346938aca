// The entry points, and the agent's start and stop.

#include "tests/unit/support.h"

namespace {

const Strings kStopLines = {"log4 Nat Messenger stoped\r\n", "log4 Stoping host name resolver thread\r\n",
                            "log4 Resolver thread stoped\r\n", "log4 Stoping IP Change informer thread\r\n",
                            "log4 IP Change informer thread stoped\r\n"};

TEST_F(AgentTest, StartsInOrderAndStopsInOrder) {
  fake::Device()->online = {kCc, kCm, kQueue113, kSip};
  m_source.nat.sipUdpUseStun = 1;
  StartAgent();
  EXPECT_EQ(fake::Calls({"logfile", "poll"}),
            (Strings{"logfile open natagent.log 204800 2 2048", "poll new 56", "poll select 114", "poll select 115",
                     "poll select 112", "poll select 113", "poll select 102"}));
  // Parties that are there already are announced before the first wait.
  Strings lines = fake::Take({"log4"});
  std::erase_if(lines, [](const std::string& line) { return !line.starts_with("log4 Conn"); });
  EXPECT_THAT(lines,
              testing::ElementsAre(testing::HasSubstr("Sip"), testing::HasSubstr("CM"), testing::HasSubstr("CC")));
  StopNatMain();
  Strings wanted = kStopLines;
  wanted.insert(wanted.begin() + 1,
                {"stun RemoveAllPorts", "stun Stop true", "stun delete", "log4 Stun Agent stoped\r\n"});
  EXPECT_EQ(fake::Calls({"log4", "log0", "stun"}), wanted);
  EXPECT_THAT(fake::Calls({"thread"}),
              testing::UnorderedElementsAre("thread wait 10000", "thread wait 1000", "thread wait 1000"));
  EXPECT_EQ(fake::Calls({"stunlogger", "logfile"}),
            (Strings{"stunlogger destroy", "logfile close", "stunlogger destroy"}));
}

TEST_F(RunningAgentTest, WhatIsThereAlreadyOrNoLongerIsLeftAlone) {
  const auto nothing = [] { EXPECT_EQ(fake::Take({"thread", "stunlogger", "log4", "logfile", "poll"}), Strings{}); };
  TestSource other;
  NatMain(&other);
  EXPECT_EQ(g_configSource, &m_source);
  EXPECT_TRUE(_NatAgent.Start());
  nothing();
  // The messenger alone can be stopped: started in the host's eyes, but nobody is there.
  EXPECT_TRUE(_NatAgent.StopMessenger());
  ASSERT_TRUE(fake::WaitForCall("logfile close"));
  EXPECT_FALSE(_NatAgent.StopMessenger());
  UpdateNatMain(0x0080);
  StopNatMain();
  EXPECT_EQ(fake::Take({"log4"}), kStopLines);
  StopNatMain();
  UpdateNatMain(0xFFFF);
  nothing();
}

TEST_F(AgentTest, ThreadsThatCannotBeStarted) {
  fake::Device()->refusedThreads = {1, 3, 4};
  NatMain(&m_source);
  EXPECT_EQ(g_agentThread, nullptr);
  NatMain(&m_source);  // tried again
  ASSERT_TRUE(fake::WaitUntilIdle());
  EXPECT_EQ(fake::Take({"log4"}),
            (Strings{"log4 Error Can't Start IpUpDownInformer\r\n", "log4 Error Can't Start HostNameResolver\r\n",
                     "log4 Starting Nat Agent Messenger\r\n"}));
}

TEST_F(RunningAgentTest, UpdateBits) {
  m_source.nat.natExclusions.clear();
  m_source.nat.sipUdpPublicIp = 0;
  const std::string reload = "Set NatExlTable\r\n" + kDashes + kDashes +
                             "\r\nUpdate Udp NatSettings for SIP\r\n"
                             "Update Gw Nat Settings \r\nError: Gw Not Added\r\n";
  const std::string stun = "Update Stun Server Settings\r\nReading Stun Cfg\r\n";
  for (const bool stunRuns : {false, true}) {
    if (stunRuns) {
      ScopedLock lock(g_settingsLock);
      _NatAgent.m_stunWrapper.Start();
    }
    for (const int changes : {0x0080, 0x0100, 0x0200, 0x0400, 0x2000, 0xFFFF, 0xD87F}) {
      fake::Take({});
      UpdateNatMain(static_cast<unsigned short>(changes));
      const bool handedOn = stunRuns && (changes & 0x2000) != 0;
      EXPECT_EQ(fake::Log(), ((changes & 0x0780) != 0 ? reload : "") + (handedOn ? stun : "")) << changes;
    }
  }
}

TEST_F(RunningAgentTest, TablesOutliveARestart) {
  Connect(kCm);
  Deliver(kCc, {RTP, 11, kInternet, {{kUplink, 10000}}, CA_PROTO_CM});
  StopNatMain();
  fake::Device()->online.clear();
  StartAgent();
  EXPECT_EQ(Ask(kCc, {REVERSE, 12, "", {{kPublic, 20000}}}),
            Strings{"send 115 reverse 12 10.77.0.2:10000=203.0.113.7:20000/1 value 0"});
  Deliver(kCc, {CLOSE, 11});
  ScopedLock lock(g_settingsLock);
  EXPECT_FALSE(_NatAgent.m_qorStorage->HasGw(kUplink));  // the storage is a new one
}

TEST_F(AgentTest, StopWhileTheAgentIsJustStarting) {
  // On the agent thread before there is a loop: the request is kept.
  fake::OnLog("Starting Nat Agent Messenger\r\n", [] { _NatAgent.RequestStop(); });
  NatMain(&m_source);
  ASSERT_TRUE(fake::WaitForCall("logfile close"));
  StopNatMain();
  StartAgent();  // and forgotten by the next start
}

// A request is spent with the run that it was for, also when that had ended before.
TEST_F(AgentTest, StartWithoutAnEntryPoint) {
  for (const bool endsBefore : {false, true}) {
    StartAgent();
    fake::Take({});
    if (endsBefore) {
      _NatAgent.StopMessenger();
      ASSERT_TRUE(fake::WaitForCall("logfile close"));
    }
    StopNatMain();
    std::thread direct([] { EXPECT_TRUE(_NatAgent.Start()); });
    EXPECT_TRUE(fake::WaitUntilIdle());
    EXPECT_TRUE(_NatAgent.StopMessenger());
    direct.join();
  }
}

}  // namespace
