#include "platform/messaging/late_requests.h"
#include "tests/platform/messaging_fixture.h"

using namespace messaging_test;

namespace {

// Keeps the single requests, as those for host names are kept at first.
class LateChannel : public Channel {
 public:
  using Channel::Channel;
  using Channel::OnRequestCSNatMapping;
  u32 OnRequestCSNatMapping(const u64& id, const std::string&, const NatItem&, const NatPortType&,
                            const u32&) override {
    requests.push_back(Line(id));
    tickets.push_back(KeepRequest());
    return 0;
  }
  // The request that came at that place, from 0.
  u32 AnswerLate(u64 place, u64 id) {
    ResumeRequest(tickets.at(place));
    const u32 sent = ResponseCSNatMapping(id, NatItem{}, NATFLAG_MAPPED, 0);
    FinishRequest(tickets.at(place));
    return sent;
  }

  std::vector<u64> tickets;
};

class LateAnswerTest : public MessagingTest {
 protected:
  LateAnswerTest() { EXPECT_TRUE(m_loop->poller.SelectQueue(112, "/", true, false)); }
  void Settle() {
    int turns = 0;
    while (m_sip.ProcessMessageFromQueue(1)) ASSERT_LT(++turns, 10000) << "spins";
  }
  // Another peer is refused and the poller comes to rest; a hang-up may be told of once.
  void ExpectTakenAndAtRest() {
    Party another(NATCLIENT_SIP);
    Settle();
    EXPECT_EQ(another.Told(), (Lines{"refused 0 1", "hang_up"}));
    if (m_loop->Step(milliseconds(50)) != -1) m_sip.ProcessMessageFromQueue(1);
    EXPECT_TRUE(m_loop->IsIdle());
  }

  std::optional<LateChannel> m_channel{112};
  LateChannel& m_sip = *m_channel;
};

TEST_F(LateAnswerTest, ReachesThePartyThatAskedAndNoSuccessor) {
  // Both parties use the same ids, and the answers come in any order.
  std::optional<Party> party(NATCLIENT_SIP);
  EXPECT_EQ(party->Cs(0) | party->Cs(1) | party->Cs(2), 0);
  Settle();
  EXPECT_EQ(m_sip.AnswerLate(2, 2), 1U);
  EXPECT_EQ(m_sip.AnswerLate(2, 2), 0U) << "once";
  party.emplace(NATCLIENT_SIP);
  EXPECT_EQ(party->Cs(1) | party->Cs(0) | party->Cs(3) | party->Close(3), 0);
  Settle();
  EXPECT_EQ(m_sip.AnswerLate(3, 1), 1U);
  EXPECT_EQ(m_sip.AnswerLate(0, 0), 0U);
  EXPECT_EQ(m_sip.AnswerLate(1, 1), 0U);
  EXPECT_EQ(m_sip.AnswerLate(4, 0), 1U);
  EXPECT_EQ(party->Told(), (Lines{"welcome", "cs 1 0 1 0", "cs 0 0 1 0"}));
  EXPECT_EQ(LateChannel::KeepRequest(), 0U) << "nothing is being handled";

  // The queue goes with all that waits, and its tickets are nobody's among those of the next.
  const std::vector<u64> tickets = m_sip.tickets;
  m_channel.emplace(112);
  party.emplace(NATCLIENT_SIP);
  EXPECT_EQ(party->Cs(3), 0);
  Settle();
  m_sip.tickets.insert(m_sip.tickets.end(), tickets.begin(), tickets.end());
  EXPECT_EQ(m_sip.AnswerLate(1 + 5, 3), 0U);
  EXPECT_EQ(m_sip.AnswerLate(0, 3), 1U);
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
    EXPECT_EQ(m_sip.AnswerLate(id, id), 0U);
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
