// What is logged of requests that fail, to the byte; that of those that go well is in the system tests.

#include "tests/unit/support.h"

namespace {

TEST_F(RunningAgentTest, FailuresAreLoggedToTheByte) {
  const struct {
    u32 queue;
    Message message;
    std::string log;
  } cases[] = {
      {kCm,
       {CS, 2, kInternet, {{0, 0}}, 9, NATPORT_TLS},
       "Got Request for CS Nat Settings\r\n for protocol H323\r\nLocalIp = 0.0.0.0\r\nremoteIp = 198.51.100.9\r\n"
       "selfPort = 0 - Tls\r\nqueryId = 2\r\n\r\nError:GetCSNatSettings\r\n"
       "Send Response CS Nat Settings\r\nFor protocol H323\r\n Error No Mapping \r\nqueryId = 2\r\n"},
      {kSip,
       {CS_LIST, 7, "0.0.0.0", {}},
       "\r\n" + kDashes +
           "Got CS Request for Nat Settings\r\nremoteIp = 0.0.0.0\r\n for CS H323\r\nqueryId  = 7\r\n"
           "LocalIp  = \r\nSelfPort = \r\n\r\nError:Wrong dest ip\r\n"
           "Send Response CS Nat Settings\r\nqueryId = 7\r\nError Nat map(may be wrong hostname?)\r\n"},
  };
  Connect(kSip);
  Connect(kCm);
  for (const auto& test : cases) {
    Ask(test.queue, test.message);
    EXPECT_EQ(fake::Log(), test.log) << "query " << test.message.id;
  }
}

}  // namespace
