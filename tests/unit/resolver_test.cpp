// Requests that wait for their destination's name.

#include "tests/unit/support.h"

namespace {

class ResolverTest : public RunningAgentTest {
 protected:
  ResolverTest() {
    Connect(kSip);
    Connect(kCm);
    fake::Device()->hosts = {{"far.example", Ip(kInternet)}, {"near.example", Ip(kNeighbour)}};
    fake::Take({});
  }

  static void AskCs(u64 id, const char* name) { Deliver(kSip, {CS, id, name, {{kUplink, 5060}}}); }
  static void LetReturn(int lookUps) { fake::Device()->lookUpsToReturn = lookUps; }
  static void AskOneThatHangs() {
    LetReturn(0);
    AskCs(1, "far.example");
    ASSERT_TRUE(fake::WaitForCall("lookup far.example"));
  }
  // Waits for the answers, in this order, and that nothing else was answered.
  static void Answered(const Strings& answers) {
    for (const std::string& answer : answers) {
      ASSERT_TRUE(fake::WaitForCall(answer)) << answer;
    }
    ASSERT_TRUE(fake::WaitUntilIdle());
    EXPECT_EQ(fake::Calls({"send"}), answers);
  }
  void Restart() {
    StopNatMain();
    fake::Take({});
    fake::Device()->online = {kSip};
    StartAgent();
  }
};

TEST_F(ResolverTest, LoggedToTheByte) {
  fake::Device()->hosts["255.255.255.255"] = Ip(kInternet);
  Deliver(kSip, {CS, 1, "255.255.255.255", {{kUplink, 5060}}, 9, NATPORT_TCP});
  Answered({"send 112 cs 1 203.0.113.7:15061/1 value 0"});
  EXPECT_THAT(fake::Log(), testing::HasSubstr("selfPort = 5060 - Tcp\r\n"));
  EXPECT_EQ(fake::Take({"log4"}).front(),
            "log4 Got CS Request\r\nDest host name - 255.255.255.255\r\nSetQueryforResolve\r\nqueryId = 1\r\n");
  Deliver(kCc, {RTP, 0x1'0000'0002, "", {{0, 10000}}, CA_PROTO_CM});
  Answered({"send 115 rtp 4294967298 0.0.0.0:10000=0.0.0.0:0/0 value 0"});
  EXPECT_THAT(fake::Log(), testing::StartsWith("SetQueryfor CA_Proto 3\r\nGot RTP Request\r\nDest host name - \r\n"
                                               "SetQueryforResolve\r\nqueryId = 4294967298\r\n"
                                               "CA_Proto 3\r\n\r\n-----"));
}

// A signalling request of CM comes back as an RTP request with the number it carried, an RTP request of the SIP agent
// as a signalling request, and of a list the first item.
TEST_F(ResolverTest, WhatIsReissuedFollowsTheProtocolOfTheChannel) {
  LetReturn(0);
  Deliver(kCm, {CS, 5, "far.example", {{kUplink, 10000}}, CA_PROTO_CM});
  Deliver(kSip, {RTP, 6, "far.example", {{0, 5060}}, 3});
  Deliver(kSip, {CS_LIST, 7, "far.example", {{1, 5060}, {2, 5061}}});
  Deliver(kSip, {CS_LIST, 8, "far.example", {}});
  LetReturn(fake::kAll);
  Answered({"send 114 rtp 5 10.77.0.2:10000=203.0.113.7:20000/1 value 0", "send 112 cs 6 203.0.113.7:15060/1 value 0",
            "send 112 cs 7 203.0.113.7:15060/1 value 0", "send 112 cs 8 0.0.0.0:0/2 value 0"});
  Deliver(kCm, {CLOSE, 5});
}

TEST_F(ResolverTest, NamesInTheOrderTheyCame) {
  LetReturn(0);
  AskCs(1, "one.example");
  AskCs(2, "far.example");
  AskCs(3, "near.example");
  AskCs(5, "FAR.example");  // case counts
  AskCs(5, "FAR.example");
  Deliver(kSip, {CLOSE, 5});  // drops the first of the two, but not the name
  LetReturn(fake::kAll);
  Answered({"send 112 cs 1 203.0.113.7:15060/1 value 0", "send 112 cs 2 203.0.113.7:15060/1 value 0",
            "send 112 cs 3 0.0.0.0:0/0 value 0", "send 112 cs 5 203.0.113.7:15060/1 value 0"});
  ASSERT_TRUE(fake::WaitForCall("poll release", 5));  // each result wakes the loop
  EXPECT_EQ(fake::Calls({"lookup"}), (Strings{"lookup one.example", "lookup far.example", "lookup near.example",
                                              "lookup FAR.example", "lookup FAR.example"}));
}

// Names that somebody waits for come first, then given-up ones, and at last those of gone parties.
TEST_F(ResolverTest, PartiesTakeTurnsAndEveryNameWaitsForItsOwnLookUp) {
  Connect(kCc);
  AskOneThatHangs();
  Deliver(kSip, {CS_LIST, 2, "far.example", std::list<NatItem>(1024)});
  AskCs(3, "two.example");
  Deliver(kCm, {RTP, 4, "one.example"});
  Deliver(kCm, {RTP, 5, "three.example"});
  Deliver(kCc, {RTP, 7, "left.example"});
  HangUp(kCc);
  AskCs(7, "closed.example");
  Deliver(kSip, {CLOSE, 7});  // its own, and not the one that a gone party left under the same id
  EXPECT_GT(fake::Device()->kept[kSip].bytes, 32768U);
  LetReturn(1);
  Answered({"send 112 cs 1 203.0.113.7:15060/1 value 0", "send 112 cs 2 0.0.0.0:0/2 value 0"});
  EXPECT_EQ(fake::Device()->kept[kSip].requests, 3U);
  EXPECT_LT(fake::Device()->kept[kSip].bytes, 1024U);
  LetReturn(fake::kAll);
  ASSERT_TRUE(fake::WaitForCall("poll release", 7));
  ASSERT_TRUE(fake::WaitUntilIdle());
  EXPECT_EQ(fake::Calls({"lookup"}),
            (Strings{"lookup far.example", "lookup one.example", "lookup two.example", "lookup three.example",
                     "lookup closed.example", "lookup far.example", "lookup left.example"}));
  for (const std::string& answer : fake::Calls({"send"})) {
    EXPECT_FALSE(answer.starts_with("send 112 cs 7 ")) << answer;
  }
  for (const auto& [queue, kept] : fake::Device()->kept) {
    EXPECT_EQ(kept.requests + kept.bytes, 0U) << queue;
  }
}

TEST_F(ResolverTest, TheOldestThatGonePartiesLeftIsDropped) {
  AskOneThatHangs();
  for (const char* name : {"one.example", "near.example", "two.example"}) {
    AskCs(2, name);
  }
  fake::Device()->mayBeLeft = 2;
  HangUp(kSip);
  Connect(kSip);
  AskCs(3, "one.example");
  LetReturn(fake::kAll);
  ASSERT_TRUE(fake::WaitForCall("lookup two.example"));
  Answered({"send 112 cs 1 203.0.113.7:15060/1 value 0", "send 112 cs 3 203.0.113.7:15060/1 value 0",
            "send 112 cs 2 203.0.113.7:15060/1 value 0"});
  EXPECT_EQ(fake::Calls({"lookup"}), (Strings{"lookup far.example", "lookup one.example", "lookup two.example"}));
  EXPECT_EQ(fake::Device()->kept[kSip].requests, 0U);
}

TEST(NameQueueTest, APartyHeldBackByNamesThatNobodyWaitsForKeepsItsTurns) {
  NameQueue queue;
  const auto push = [&queue](CA_PROTO party, const char* name) {
    NameList names;
    names.push_back({name});
    const auto pushed = names.begin();
    queue.Push(party, names);
    return pushed;
  };
  for (std::size_t i = 0; i < LateRequest::kMaxRequests; ++i) {
    queue.GiveUp(push(CA_PROTO_SIP, "sip"));
  }
  for (int i = 0; i < 3; ++i) {
    push(CA_PROTO_CM, "cm");
  }
  for (const char* expected : {"sip", "cm", "cm", "cm", "sip"}) {
    EXPECT_EQ(queue.Pop().front().hostName, expected);
  }
}

// A stop abandons the look-up but not the request: the next run asks again and answers it.
TEST_F(ResolverTest, StopDuringALookUp) {
  AskOneThatHangs();
  AskCs(2, "near.example");
  Restart();
  LetReturn(fake::kAll);
  Answered({"send 112 cs 1 203.0.113.7:15060/1 value 0", "send 112 cs 2 0.0.0.0:0/0 value 0"});
  EXPECT_EQ(fake::Calls({"lookup"}), (Strings{"lookup far.example", "lookup near.example"}));
}

// A result that comes after the loop's last turn is not left lying in the next run.
TEST_F(ResolverTest, ResultBehindTheLastTurn) {
  AskOneThatHangs();
  fake::OnLog("Nat Messenger stoped\r\n", [] {
    fake::Take({});
    LetReturn(fake::kAll);
    fake::WaitForCall("poll release");
  });
  Restart();
  Answered({"send 112 cs 1 203.0.113.7:15060/1 value 0"});
}

// A resolver that outlived its run neither wakes nor ends the next one, and its name is not lost.
TEST_F(ResolverTest, LateResolver) {
  fake::Device()->lookUpsIgnoreStop = true;
  AskOneThatHangs();
  fake::OnLog("Stoping host name resolver thread\r\n", [] {
    fake::Device()->giveUpWaits = true;
    fake::OnLog("Resolver thread stoped\r\n", [] { fake::Device()->giveUpWaits = false; });
  });
  Restart();
  LetReturn(fake::kAll);
  ASSERT_TRUE(fake::WaitForCall("send 112 cs 1 203.0.113.7:15060/1 value 0"));
  fake::JoinAbandonedThreads();
  AskCs(2, "near.example");
  Answered({"send 112 cs 1 203.0.113.7:15060/1 value 0", "send 112 cs 2 0.0.0.0:0/0 value 0"});
}

}  // namespace
