#include "platform/messaging/late_request.h"

#include <algorithm>
#include <functional>

#include "tests/platform/messaging_fixture.h"

using namespace messaging_test;

namespace {

// Keeps the single requests, as those for host names are kept at first.
class LateChannel : public Channel {
 public:
  using Channel::Channel;
  using Channel::OnRequestCSNatMapping;
  bool OnPartyStateChanged(bool online) override {
    if (!online) {
      for (LateRequest& request : late) request.DropIfBeyondBounds();
    }
    return Channel::OnPartyStateChanged(online);
  }
  u32 OnRequestCSNatMapping(const u64& id, const std::string&, const NatItem&, const NatPortType&,
                            const u32&) override {
    requests.push_back(Line(id));
    late.emplace_back(bytes);
    return 0;
  }
  // The request that came at that place, from 0.
  u32 AnswerLate(u64 place, u64 id) {
    const LateRequest answered = std::move(late.at(place));
    const RequestScope scope(answered.Account());
    return ResponseCSNatMapping(id, NatItem{}, NATFLAG_MAPPED, 0);
  }
  std::size_t Kept() const {
    return static_cast<std::size_t>(std::count_if(late.begin(), late.end(), std::mem_fn(&LateRequest::IsKept)));
  }

  std::vector<LateRequest> late;
  std::size_t bytes = 100;  // that each occupies
};

class LateAnswerTest : public MessagingTest {
 protected:
  LateAnswerTest() { Reopen(); }
  void Reopen() {
    m_loop.emplace();
    m_channel.emplace(112);
    EXPECT_TRUE(m_loop->poller.SelectQueue(112, "/", true, false));
  }
  void Settle() {
    int turns = 0;
    while (m_sip.ProcessMessageFromQueue(1)) ASSERT_LT(++turns, 10000) << "spins";
  }
  // Another peer is refused and the poller comes to rest.
  void ExpectTakenAndAtRest() {
    Party another(NATCLIENT_SIP);
    Settle();
    EXPECT_EQ(another.Told(), (Lines{"refused 0 1", "hang_up"}));
    EXPECT_TRUE(m_loop->IsIdle());
  }
  // As much as the socket and the queue take; how many.
  u64 Flood(Party& party) {
    u64 sent = 0;
    for (u64 before = 1; sent != before; Settle()) {
      for (before = sent; party.Cs(sent) == 0;) ++sent;
    }
    return sent;
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
  EXPECT_FALSE(LateRequest(1).IsKept()) << "nothing is being handled";

  // The queue goes and what waits stays, but is nobody's at the next.
  auto old = std::move(m_sip.late);
  Reopen();
  party.emplace(NATCLIENT_SIP);
  EXPECT_EQ(party->Cs(3), 0);
  Settle();
  m_sip.late.push_back(std::move(old.at(5)));
  EXPECT_EQ(m_sip.AnswerLate(1, 3), 0U);
  EXPECT_EQ(m_sip.AnswerLate(0, 3), 1U);
}

TEST_F(LateAnswerTest, AFloodWaitsInThePartysSocketUntilThereIsRoom) {
  for (const auto& [bytes, most] : {std::pair<std::size_t, u64>{100, 1024}, {256 * 1024, 4}, {3 << 20, 1}}) {
    Reopen();
    m_sip.bytes = bytes;
    Party party(NATCLIENT_SIP);
    const u64 sent = Flood(party);
    ASSERT_GT(sent, most);
    ExpectTakenAndAtRest();
    ASSERT_EQ(::shutdown(natclient_fd(party), SHUT_WR), 0);
    ExpectTakenAndAtRest();  // half-closed it is still held back
    for (u64 id = 0; id < sent; ++id) {
      EXPECT_EQ(m_sip.requests.size(), std::min(sent, id + most));
      EXPECT_EQ(m_sip.AnswerLate(id, id), id + most > sent ? 0U : 1U) << "its hang-up comes behind its requests";
      party.Told();
      Settle();
    }
    EXPECT_EQ(m_sip.states, (std::vector<bool>{true, false}));
  }
}

// Its successor is taken in, whatever waits, and what parties leave is bounded.
TEST_F(LateAnswerTest, APartyThatDiesHeldBackMakesWay) {
  constexpr u64 kMost = LateRequest::kMaxRequests;
  std::optional<Party> party(NATCLIENT_SIP);
  const u64 sent = Flood(*party);
  party.emplace(NATCLIENT_SIP);
  const std::string journal = Journal([&] { Settle(); });
  EXPECT_NE(journal.find("queue 112: dropped " + std::to_string(sent - kMost) + " look-ups"), std::string::npos);
  EXPECT_EQ(m_sip.requests.size(), sent) << "what it had sent is taken";
  EXPECT_EQ(m_sip.Kept(), kMost);
  EXPECT_FALSE(m_sip.late.front().IsKept());
  EXPECT_EQ(m_sip.states, (std::vector<bool>{true, false, true}));
  EXPECT_EQ(Flood(*party), sent) << "the same room for the next";
  EXPECT_EQ(m_sip.AnswerLate(sent - 1, 1), 0U);
  EXPECT_EQ(m_sip.AnswerLate(sent, 1), 1U);
  EXPECT_EQ(party->Told(), (Lines{"welcome", "cs 1 0 1 0"}));
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
