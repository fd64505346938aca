#include <sys/resource.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>

#include "platform/messaging/queue_users.h"
#include "tests/platform/messaging_fixture.h"

using namespace messaging_test;

namespace {

using PartyTest = MessagingTest;

TEST_F(PartyTest, EveryoneOfARowIsAnnouncedOnceEachWayAndTheLoopDoesNotSpin) {
  Channel channel(112);
  for (u64 id = 0; id < 10; ++id) EXPECT_EQ(Party(NATCLIENT_SIP).Close(id), 0);
  ASSERT_TRUE(m_loop->poller.SelectQueue(112, "/", true, false));
  EXPECT_TRUE(channel.IsPartyOnline()) << "the first is not announced, as it was there before the selection";
  int turns = 0;
  for (; channel.states.size() < 19 && turns < 1000; ++turns) {
    EXPECT_EQ(m_loop->poller.WaitForEvents(), 112);
    channel.ProcessMessageFromQueue(1);
  }
  // A connection, a request and a hang-up each; a turn more where the listener is seen before the hang-up.
  EXPECT_LE(turns, 50);
  EXPECT_EQ(channel.requests.size(), 10U);
  for (std::size_t i = 0; i < channel.states.size(); ++i) EXPECT_EQ(channel.states[i], i % 2 == 1);
  EXPECT_EQ(channel.ResponseCSNatMapping(1, NatItem{}, NATFLAG_MAPPED, 0), 0U);
}

TEST_F(PartyTest, OthersAreRefusedWhileThePartyIsBusyAndCostItNothing) {
  Channel& channel = m_loop->Open(112);
  Party first(NATCLIENT_SIP);
  m_loop->Settle();
  while (first.Cs(1) == 0) {
  }
  Party second(NATCLIENT_SIP);
  Party third(NATCLIENT_SIP);
  for (int turn = 0; turn < 4; ++turn) ASSERT_EQ(m_loop->Step(), 112);
  for (Party* late : {&second, &third}) EXPECT_EQ(late->Told(), (Lines{"refused 0 1", "hang_up"}));
  EXPECT_EQ(channel.requests.size(), 4U);
  EXPECT_EQ(channel.states, std::vector<bool>{true});
}

TEST_F(PartyTest, ADeadPartysRequestsAreTakenBeforeTheNextPartyAndAnsweredToNobody) {
  Channel& channel = m_loop->Open(112);
  {
    // It dies with its welcome unread, which the socket reports as an error in front of the requests.
    Party first(NATCLIENT_SIP);
    ASSERT_EQ(m_loop->Step(), 112);
    EXPECT_EQ(first.Cs(1), 0);
    first.SendBytes("");  // looks like the end of the connection
    EXPECT_EQ(first.Close(2), 0);
  }
  Party second(NATCLIENT_SIP);
  EXPECT_EQ(second.Close(3), 0);
  m_loop->Settle();
  EXPECT_EQ(channel.requests, (Lines{"cs 1 pbx 5060 2 3", "close 2", "close 3"}));
  EXPECT_EQ(channel.states, (std::vector<bool>{true, false, true}));
  EXPECT_EQ(second.Told(), Lines{"welcome"});
}

TEST_F(PartyTest, MalformedFramesAreRefusedWithTheirIdAndChangeNothing) {
  Channel& channel = m_loop->Open(112);
  CgiChannel& cgi = m_loop->OpenCgi();
  Party agent(NATCLIENT_SIP);
  Party cgiParty(NATCLIENT_CGI);
  m_loop->Settle();
  const auto encoded = [](messaging::FrameKind kind) {
    messaging::Frame frame;
    frame.kind = kind;
    frame.queryId = 77;
    std::string packet;
    EXPECT_TRUE(messaging::EncodeFrame(frame, packet));
    return packet;
  };
  const std::string close = encoded(messaging::FrameKind::CLOSE_REQUEST);
  const std::size_t most = messaging::MaxFrameBytes();
  for (const std::string& packet : {std::string(), close + std::string(most - close.size(), 'x'),
                                    close + std::string(most, 'x'), encoded(messaging::FrameKind::UPDATE)}) {
    agent.SendBytes(packet);
  }
  cgiParty.SendBytes(close);
  EXPECT_EQ(agent.Cs(78), 0);
  EXPECT_EQ(natclient_update(cgiParty, 79, 92, nullptr, 0, 0), 0);
  m_loop->Settle();
  EXPECT_EQ(agent.Told(),
            (Lines{"welcome", "refused 0 2", "refused 77 5", "refused 77 8", "refused 77 4", "cs 78 5060 1 3"}));
  EXPECT_EQ(cgiParty.Told(), (Lines{"welcome", "refused 77 4", "update 79 92 1"}));
  EXPECT_EQ(channel.requests.size(), 1U);
  EXPECT_EQ(cgi.updates, Lines{"92"});
}

TEST_F(PartyTest, EveryReleaseEndsAWaitBeforeTheQueuesThatAreReady) {
  CyclicQueuePoller& poller = m_loop->poller;
  std::atomic<int> seen{0};
  std::jthread releaser([&](const std::stop_token& stop) {
    while (!stop.stop_requested()) {
      const int before = seen;
      EXPECT_TRUE(poller.Release());
      while (seen == before && !stop.stop_requested()) std::this_thread::yield();
    }
  });
  // A wake-up that got lost would stop here for good.
  for (; seen < 2000; ++seen) ASSERT_EQ(poller.WaitForEvents(), -1);
  releaser = {};
  m_loop->Open(112);
  m_loop->Open(114);
  const Party one(NATCLIENT_SIP);
  const Party two(NATCLIENT_CM);
  while (poller.WaitForEvents() == -1) {
  }
  EXPECT_TRUE(poller.Release());
  EXPECT_EQ(poller.WaitForEvents(), -1) << "the other queue is known to be ready";
}

TEST_F(PartyTest, QuietQueuesAreServedWhileAnotherIsFlooded) {
  Channel& busy = m_loop->Open(112);
  Channel& quiet = m_loop->Open(114);
  Channel& calm = m_loop->Open(115);
  Party flooder(NATCLIENT_SIP);
  Party other(NATCLIENT_CM);
  Party third(NATCLIENT_CC);
  m_loop->Settle();
  for (u64 round = 1; round <= 50; ++round) {
    while (flooder.Cs(round) == 0) flooder.Told();
    EXPECT_EQ(other.Cs(round) | third.Cs(round), 0);
    const std::size_t before = busy.requests.size();
    m_loop->RunUntil([&] { return quiet.requests.size() == round && calm.requests.size() == round; });
    EXPECT_LE(busy.requests.size() - before, 2U) << "one turn of the flooded queue a round";
  }
}

TEST_F(PartyTest, AQueueIsForItsUsersOnlyAndTheHolderIsNamed) {
  using messaging::QueueUsers;
  const uid_t users[QueueUsers::kMax + 1] = {::geteuid() + 1};
  EXPECT_EQ(QueueUsers::Limit(115, users, QueueUsers::kMax + 1), E2BIG);
  EXPECT_EQ(QueueUsers::Limit(111, users, 1), EINVAL);
  m_loop->Open(115);
  const std::string who = std::to_string(::getpid()) + ", user " + std::to_string(::geteuid()) + ", program ";
  const std::string user = "user " + std::to_string(::geteuid());
  natclient* none = nullptr;
  const auto opened = [&] {
    const std::jthread agent([this] { m_loop->Step(); });
    return natclient_open(&none, nullptr, NATCLIENT_CC, 10000);
  };
  const auto limited = [&] {
    EXPECT_EQ(QueueUsers::Limit(115, nullptr, 0), 0);
    EXPECT_EQ(opened(), -EPERM);
    EXPECT_EQ(QueueUsers::Limit(115, users, 1), 0);
    Party stranger(NATCLIENT_CC);
    EXPECT_EQ(stranger.Close(1), 0);
    m_loop->Settle();
    EXPECT_EQ(stranger.Told(), (Lines{"refused 0 9", "hang_up"}));
    EXPECT_EQ(QueueUsers::Limit(115, nullptr, QueueUsers::kEveryone), 0);
  };
  const std::string refused = "queue 115 (cc) refused " + user + ", who is not among its users\n";
  EXPECT_EQ(Journal(limited), refused + refused);
  const auto taken = [&] {
    const Party party(NATCLIENT_CC);
    m_loop->Settle();
    EXPECT_EQ(opened(), -EBUSY);
  };
  const std::string connected = Journal(taken);
  EXPECT_TRUE(connected.starts_with("the party of queue 115 (cc) connected: process " + who)) << connected;
  const std::string hungUp = Journal([this] { m_loop->Settle(); });
  EXPECT_TRUE(hungUp.starts_with("the party of queue 115 (cc) hung up: process " + who)) << hungUp;
}

TEST_F(PartyTest, AStormOfPeersFindsPlaceAndEveryOneItsRefusal) {
  m_loop->Open(112);
  const Party first(NATCLIENT_SIP);
  m_loop->Settle();
  std::list<Party> storm;
  for (int i = 0; i < 128; ++i) {
    storm.emplace_back(NATCLIENT_SIP);
  }
  m_loop->Settle();
  for (Party& peer : storm) {
    EXPECT_EQ(peer.Told(), (Lines{"refused 0 1", "hang_up"}));
  }
}

TEST_F(PartyTest, AListenerWithoutDescriptorsRestsAndComesBackByItself) {
  m_loop->Open(112);
  Party party(NATCLIENT_SIP);
  rlimit before{};
  ASSERT_EQ(::getrlimit(RLIMIT_NOFILE, &before), 0);
  const rlimit none{0, before.rlim_max};
  const std::string journal = Journal([&] {
    ASSERT_EQ(::setrlimit(RLIMIT_NOFILE, &none), 0);
    EXPECT_EQ(m_loop->Step(), 112);
    EXPECT_TRUE(m_loop->IsIdle());
    EXPECT_EQ(m_loop->Step(), 112) << "it tries again";
    EXPECT_TRUE(m_loop->IsIdle());
    ASSERT_EQ(::setrlimit(RLIMIT_NOFILE, &before), 0);
  });
  EXPECT_EQ(journal, "cannot take in a peer at " + m_dir + "/queue-112: Too many open files\n");
  EXPECT_EQ(m_loop->Step(), 112);
  EXPECT_EQ(party.Told(), Lines{"welcome"});
}

}  // namespace
