// The log to the byte: the texts stand here in full, as whoever reads the file sees them. Those of reverse requests and
// of parties that come and go are the system tests'.

#include "tests/unit/support.h"

namespace {

TEST_F(RunningAgentTest, RequestsAreLoggedToTheByte) {
  const struct {
    u32 queue;
    Message message;
    std::string log;
  } cases[] = {
      {kSip,
       {CS, ~u64{0}, kInternet, {{kUplink, 5060}}},
       "Got Request for CS Nat Settings\r\n for protocol Sip\r\nLocalIp = 10.77.0.2\r\nremoteIp = 198.51.100.9\r\n"
       "selfPort = 5060 - Udp\r\nqueryId = 18446744073709551615\r\n\r\n"
       "Send Response CS Nat Settings\r\nFor protocol Sip\r\n Mapped Successfully \r\n"
       "queryId = 18446744073709551615\r\nMappedIp = 203.0.113.7\r\nMapPort = 15060\r\n" +
           kDashes},
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
      {kCc,
       {RTP, 8, kInternet, {{0, 10005}, {kUplink, 9}}, CA_PROTO_CM},
       "CA_PROTO 3\r\n\r\n" + kDashes +
           "Got RTP Request for Nat Settings\r\nremoteIp = 198.51.100.9\r\n for CS H323\r\n"
           "queryId  = 8\r\nLocalIp  = 0.0.0.0 10.77.0.2 \r\nSelfPort = 10005          9          \r\n\r\n"
           "Need Qor Nat\r\nNeed Qor Nat\r\nCA_Proto 3\r\nSend Response RTP Nat Settings\r\nqueryId = 8\r\n"
           "MappedIps  = 203.0.113.7 No need Nat \r\nMappedPort = 20005                    \r\n" +
           kDashes},
  };
  Connect(kSip);
  Connect(kCm);
  for (const auto& test : cases) {
    Ask(test.queue, test.message);
    EXPECT_EQ(fake::Log(), test.log) << "query " << test.message.id;
  }
}

}  // namespace
