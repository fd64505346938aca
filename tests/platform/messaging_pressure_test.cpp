#include "platform/messaging/notice_inbox.h"
#include "platform/messaging/packet_batch.h"
#include "tests/platform/messaging_fixture.h"

using namespace messaging_test;

namespace {

// Parties that do not read, and notices, which nobody asked for.
using PressureTest = MessagingTest;

TEST_F(PressureTest, APartyThatDoesNotReadStopsItselfOnlyAndLosesNothing) {
  Channel& stuck = m_loop->Open(112);
  m_loop->Open(114);
  Party lazy(NATCLIENT_SIP);
  Party lively(NATCLIENT_CM);
  // Requests with the largest answers, until neither side goes on.
  const std::vector<natclient_item> items(NATCLIENT_MAX_ITEMS);
  u64 sent = 0;
  for (u64 before = 1; sent != before; m_loop->Settle()) {
    before = sent;
    while (natclient_request_reverse(lazy, sent + 1, items.data(), items.size(), 0) == 0) ++sent;
  }
  const std::size_t taken = stuck.requests.size();
  EXPECT_LT(taken, sent) << "requests wait in the party's own socket";
  EXPECT_EQ(lively.Told(), Lines{"welcome"});
  for (u64 id = 1; id <= 1000; ++id) {
    EXPECT_EQ(lively.Cs(id), 0);
    Notify(92);
    Notify(92, {"a"});
    m_loop->Settle();
    EXPECT_EQ(lively.Told().size(), 3U);
  }
  Party second(NATCLIENT_SIP);
  m_loop->Settle();
  EXPECT_EQ(second.Told().front(), "refused 0 1") << "in that state too";
  EXPECT_TRUE(m_loop->IsIdle()) << "neither taken nor spun on";
  EXPECT_EQ(stuck.requests.size(), taken);

  // Every answer once and in order; behind those that waited, each notice once.
  Lines answers{"welcome"};
  for (u64 id = 1; id <= sent; ++id) answers.push_back(Line("list", id, NATCLIENT_MAX_ITEMS, 9, 0));
  Lines told;
  Lines notices;
  while (told.size() < answers.size() || notices.size() < 2) {
    for (const std::string& line : lazy.Told()) (line.starts_with("notice") ? notices : told).push_back(line);
    ASSERT_TRUE(told == answers || m_loop->Step() == 112);
  }
  EXPECT_EQ(told, answers);
  EXPECT_EQ(notices, (Lines{"notice 92 0 ", "notice 92 1 a"}));
}

// Whatever comes together is answered as if it had come one by one.
TEST_F(PressureTest, RequestsThatComeTogetherAreAnsweredInOrderAndOnce) {
  Channel& busy = m_loop->Open(112);
  m_loop->Open(114);
  Party lively(NATCLIENT_CM);
  m_loop->Settle();
  lively.Told();
  constexpr natclient_item kItem{};
  const Lines each[] = {{"cs 7 5060 1 3"}, {"list 7 1 9 0"}, {}, {"refused 0 2"}, {"refused 0 2"}};
  // True when it is a request that reaches a handler.
  const auto send = [&](Party& party, std::size_t which) {
    switch (which) {
      case 0:
        return party.Cs(7) == 0;
      case 1:
        return natclient_request_reverse(party, 7, &kItem, 1, 0) == 0;
      case 2:
        return party.Close(7) == 0;
      default:
        party.SendBytes(which == 3 ? "?" : "");
        return false;
    }
  };
  // By the last one's kind, and by the party's end: it stays, closes its sending side, or is gone.
  for (std::size_t last = 0; last < std::size(each); ++last) {
    for (int end = 0; end < 3; ++end) {
      if (last == 4 && end == 1) continue;  // empty packets right before the end may count as the end
      std::optional<Party> party(NATCLIENT_SIP);
      m_loop->Settle();
      party->Told();
      busy.requests.clear();
      busy.states.clear();
      Lines expected;
      std::size_t good = 0;
      for (std::size_t i = 0; i <= 100; ++i) {
        const std::size_t which = i == 100 ? last : i % std::size(each);
        good += send(*party, which) ? 1 : 0;
        expected.insert(expected.end(), each[which].begin(), each[which].end());
      }
      EXPECT_EQ(lively.Cs(1), 0);
      m_loop->RunUntil([&] { return !lively.Told().empty(); });
      EXPECT_LE(busy.requests.size(), messaging::kBatch) << "a busy party has one batch at a time";
      if (end == 1) {
        ASSERT_EQ(::shutdown(natclient_fd(*party), SHUT_WR), 0);
        expected.push_back("hang_up");
      } else if (end == 2) {
        party.reset();
      }
      m_loop->RunUntil([&] { return busy.requests.size() == good && busy.states.size() == (end == 0 ? 0U : 1U); });
      m_loop->Settle();
      if (party) {
        EXPECT_EQ(party->Told(), expected) << last << ' ' << end;
      }
      party.reset();
      m_loop->Settle();
    }
  }
}

TEST_F(PressureTest, NoticesReachWhoIsConnectedAndTheOwnConfigurationQueueOnce) {
  for (const int queue : {112, 113, 114}) m_loop->Open(queue);
  CgiChannel& cgi = m_loop->OpenCgi();
  Party sip(NATCLIENT_SIP);
  Party cm(NATCLIENT_CM);
  Party cgiParty(NATCLIENT_CGI);
  m_loop->Settle();
  Notify(92, {"x", "y"});
  Party late(NATCLIENT_Q113);
  m_loop->Settle();
  EXPECT_EQ(cgi.updates, Lines{"92 x y"});
  for (Party* party : {&sip, &cm, &cgiParty}) EXPECT_EQ(party->Told(), (Lines{"welcome", "notice 92 2 x"}));
  EXPECT_EQ(late.Told(), Lines{"welcome"});
}

TEST_F(PressureTest, WaitingNoticesAreOnceEachBoundedAndWithinTheLimits) {
  CgiChannel& cgi = m_loop->OpenCgi();
  EXPECT_NE(Journal([] { Notify(92, {std::string(300, 'x')}); }).find("is not sent"), std::string::npos);
  for (int i = 0; i < 100; ++i) Notify(92);
  const auto tooMany = [] {
    for (u32 type = 1000; type < 1100; ++type) Notify(type);
  };
  EXPECT_NE(Journal(tooMany).find("too many different notices"), std::string::npos);
  m_loop->Settle();
  EXPECT_EQ(cgi.updates.size(), messaging::NoticeInbox::kMaxWaiting);
  Notify(92);
  m_loop->Settle();
  EXPECT_EQ(cgi.updates.size(), messaging::NoticeInbox::kMaxWaiting + 1) << "what was handled no longer waits";
}

TEST_F(PressureTest, NoticesOfOtherThreadsWhileQueuesAndPartiesComeAndGo) {
  const auto notify = [](const std::stop_token& stop) {
    while (!stop.stop_requested()) Notify(92);
  };
  const std::jthread senders[] = {std::jthread(notify), std::jthread(notify)};
  for (int round = 0; round < 20; ++round) {
    m_loop.emplace();
    m_loop->Open(112);
    const CgiChannel& cgi = m_loop->OpenCgi();
    for (int connection = 0; connection < 5; ++connection) {
      Party party(NATCLIENT_SIP);
      m_loop->RunUntil([&] {
        const Lines told = party.Told();
        return !told.empty() && told.back() == "notice 92 0 ";
      });
    }
    m_loop->RunUntil([&] { return !cgi.updates.empty(); });
  }
}

}  // namespace
