#include "platform/messaging/late_requests.h"
#include "tests/platform/messaging_fixture.h"

using namespace messaging_test;

namespace {

// Leaves the single requests unanswered, as those for host names are at first.
class LateChannel : public Channel {
 public:
  using Channel::Channel;
  using Channel::OnRequestCSNatMapping;
  u32 OnRequestCSNatMapping(const u64& id, const std::string&, const NatItem&, const NatPortType&,
                            const u32&) override {
    requests.push_back(Line(id));
    return 0;
  }
  u32 AnswerLate(u64 id) { return ResponseCSNatMapping(id, NatItem{}, NATFLAG_MAPPED, 0); }
};

class LateAnswerTest : public MessagingTest {
 protected:
  LateAnswerTest() { EXPECT_TRUE(m_loop->poller.SelectQueue(112, "/", true, false)); }
  void Settle() {
    int turns = 0;
    while (m_sip.ProcessMessageFromQueue(1) || m_cm.ProcessMessageFromQueue(1)) ASSERT_LT(++turns, 10000) << "spins";
  }
  // Another peer is refused and the poller comes to rest; a hang-up may be told of once.
  void ExpectTakenAndAtRest() {
    Party another(NATCLIENT_SIP);
    Settle();
    EXPECT_EQ(another.Told(), (Lines{"refused 0 1", "hang_up"}));
    if (m_loop->Step(milliseconds(50)) != -1) m_sip.ProcessMessageFromQueue(1);
    EXPECT_TRUE(m_loop->IsIdle());
  }

  LateChannel m_sip{112};
  LateChannel m_cm{114};
};

TEST_F(LateAnswerTest, ReachesThePartyThatAskedAndNoSuccessor) {
  std::optional<Party> party(NATCLIENT_SIP);
  for (const u64 id : {1, 2, 2, 3, 4, 5}) EXPECT_EQ(party->Cs(id), 0);
  EXPECT_EQ(party->Close(3), 0);
  Settle();
  EXPECT_EQ(m_sip.AnswerLate(1), 1U);
  party.emplace(NATCLIENT_SIP);
  Party cm(NATCLIENT_CM);
  EXPECT_EQ(party->Cs(2) | party->Cs(3) | party->Close(4) | cm.Close(5) | cm.Cs(6), 0);
  Settle();
  // 2: two of the first party's, one of the second's. 3, 4, 5: closed. 6: waits on another queue.
  std::vector<u32> sent;
  for (const u64 id : {2, 2, 2, 3, 4, 5, 6}) sent.push_back(m_sip.AnswerLate(id));
  EXPECT_EQ(sent, (std::vector<u32>{0, 0, 1, 1, 1, 1, 1}));
  EXPECT_EQ(party->Told().size(), 6U);
  EXPECT_EQ(m_cm.AnswerLate(6), 1U);
}

TEST_F(LateAnswerTest, AFloodWaitsInThePartysSocketAndIsTakenInTheEnd) {
  constexpr u64 kMost = messaging::LateRequests::kMaxWaiting;
  std::optional<Party> party(NATCLIENT_SIP);
  u64 sent = 0;
  for (u64 before = 1; sent != before; Settle()) {
    for (before = sent; party->Cs(sent) == 0;) ++sent;
  }
  ExpectTakenAndAtRest();
  party.reset();
  ExpectTakenAndAtRest();
  for (u64 id = 0; id < sent; ++id) {
    EXPECT_EQ(m_sip.requests.size(), std::min(sent, id + kMost));
    EXPECT_EQ(m_sip.AnswerLate(id), 0U);
    // There is room for one request more now; at last for the hang-up.
    ASSERT_TRUE(id + kMost > sent || m_loop->Step() == 112);
    Settle();
  }
  EXPECT_EQ(m_sip.states, (std::vector<bool>{true, false}));
}

TEST_F(LateAnswerTest, AHalfClosedPartyThatDoesNotReadStaysTheParty) {
  Party lazy(NATCLIENT_SIP);
  const std::vector<natclient_item> items(NATCLIENT_MAX_ITEMS);
  for (u64 sent = 0, before = 1; sent != before; Settle()) {
    for (before = sent; natclient_request_reverse(lazy, 1, items.data(), items.size(), 0) == 0;) ++sent;
  }
  ASSERT_EQ(::shutdown(natclient_fd(lazy), SHUT_WR), 0);
  ExpectTakenAndAtRest();
  for (int turn = 0; turn < 1000 && m_sip.states.size() < 2; ++turn, Settle()) lazy.Told();
  EXPECT_EQ(m_sip.states, (std::vector<bool>{true, false}));
}

}  // namespace
