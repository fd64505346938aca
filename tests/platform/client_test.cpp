#include "client/natclient.h"

#include <cerrno>

#include "tests/platform/messaging_fixture.h"

using namespace messaging_test;

namespace {

using ClientTest = MessagingTest;

TEST_F(ClientTest, EveryRequestReachesItsHandlerAndIsAnswered) {
  const Channel& channel = m_loop->Open(112);
  const CgiChannel& cgi = m_loop->OpenCgi();
  Party sip(NATCLIENT_SIP);
  Party cgiParty(NATCLIENT_CGI);
  const natclient_item items[] = {{1, 10, 0}, {2, 20, 0}};
  const char* texts[] = {"a", "b"};
  EXPECT_EQ(sip.Cs(1), 0);
  EXPECT_EQ(natclient_request_cs_list(sip, 2, "a.example", items, 2, 0), 0);
  EXPECT_EQ(natclient_request_rtp(sip, UINT64_MAX, "", items, 1, NATCLIENT_SERVER_CC), 0);
  EXPECT_EQ(natclient_request_reverse(sip, 4, nullptr, 0, 8), 0);
  EXPECT_EQ(sip.Close(5), 0);
  EXPECT_EQ(natclient_update(cgiParty, 6, 84, texts, 2, 5), 0);
  m_loop->Settle();
  EXPECT_EQ(channel.requests, (Lines{"cs 1 pbx 5060 2 3", "cs-list 2 a.example 2 0", "rtp 18446744073709551615  1 3",
                                     "reverse 4 0 8", "close 5"}));
  EXPECT_EQ(sip.Told(),
            (Lines{"welcome", "cs 1 5060 1 3", "list 2 2 9 0", "list 18446744073709551615 1 9 3", "list 4 0 0 0"}));
  EXPECT_EQ(cgi.updates, Lines{"84 a b"});
  EXPECT_EQ(cgiParty.Told(), (Lines{"welcome", "update 6 84 1"}));
}

TEST_F(ClientTest, WrongArgumentsAreRefusedBeforeAnythingIsSent) {
  const Channel& channel = m_loop->Open(114);
  const Party cm(NATCLIENT_CM);
  const std::vector<natclient_item> items(NATCLIENT_MAX_ITEMS + 1);
  const natclient_item* item = items.data();
  const std::string text(NATCLIENT_MAX_TEXT_BYTES + 1, 'x');
  EXPECT_EQ(natclient_request_cs(nullptr, 1, "a", item, NATCLIENT_UDP, 0), -EINVAL);
  EXPECT_EQ(natclient_request_cs(cm, 1, nullptr, item, NATCLIENT_UDP, 0), -EINVAL);
  EXPECT_EQ(natclient_request_cs(cm, 1, "a", nullptr, NATCLIENT_UDP, 0), -EINVAL);
  EXPECT_EQ(natclient_request_cs(cm, 1, text.c_str(), item, NATCLIENT_UDP, 0), -EINVAL);
  EXPECT_EQ(natclient_request_cs_list(cm, 1, "a", item, items.size(), 0), -EINVAL);
  EXPECT_EQ(natclient_request_rtp(cm, 1, "a", nullptr, 1, 0), -EINVAL);
  EXPECT_EQ(natclient_request_reverse(cm, 1, item, SIZE_MAX, 0), -EINVAL);
  EXPECT_EQ(natclient_update(cm, 1, 84, nullptr, 0, 0), -EINVAL) << "not the CGI party";
  EXPECT_EQ(natclient_dispatch(cm, nullptr, nullptr), -EINVAL);
  m_loop->Settle();
  EXPECT_TRUE(channel.requests.empty());
  natclient* other = cm;
  EXPECT_EQ(natclient_open(&other, nullptr, static_cast<natclient_party>(103), 0), -EINVAL);
  EXPECT_EQ(other, nullptr);
  EXPECT_EQ(natclient_open(&other, nullptr, NATCLIENT_CC, 0), -ENOENT);
  EXPECT_EQ(natclient_open(&other, text.c_str(), NATCLIENT_CC, 0), -ENAMETOOLONG);
}

TEST_F(ClientTest, OpeningEndsInTime) {
  Channel busy(112);
  std::list<natclient*> waiting;
  natclient* none = nullptr;
  EXPECT_EQ(natclient_open(&none, m_dir.c_str(), NATCLIENT_SIP, 1), -ETIMEDOUT) << "nobody welcomes it";
  int result = 0;
  while (result == 0) result = natclient_open(&waiting.emplace_back(), nullptr, NATCLIENT_SIP, 0);
  EXPECT_EQ(result, -EAGAIN) << "the backlog is full";
  EXPECT_EQ(natclient_open(&none, nullptr, NATCLIENT_SIP, 20), -ETIMEDOUT);
  for (natclient* one : waiting) natclient_close(one);
}

TEST_F(ClientTest, AFullSocketIsSaidAndNothingIsLostUpToTheEnd) {
  const Channel& channel = m_loop->Open(112);
  Party sip(NATCLIENT_SIP);
  u64 sent = 0;
  int result = 0;
  while ((result = sip.Cs(sent)) == 0) ++sent;
  EXPECT_EQ(result, -EAGAIN);
  EXPECT_EQ(natclient_wait_writable(sip, 0), 0);
  m_loop->Settle();
  EXPECT_EQ(channel.requests.size(), sent);
  std::size_t told = 0;
  for (std::size_t before = 1; told != before; m_loop->Settle()) {
    before = told;
    told += sip.Told().size();
  }
  EXPECT_EQ(told, sent + 1) << "with the welcome";
  m_loop.reset();
  EXPECT_EQ(sip.Told(), Lines{"hang_up"});
  EXPECT_EQ(sip.result, -ECONNRESET);
  EXPECT_TRUE(sip.Told().empty()) << "the end is told once";
  EXPECT_EQ(sip.Close(1), -EPIPE);
}

}  // namespace
