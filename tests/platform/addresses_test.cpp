#include <arpa/inet.h>

#include <climits>
#include <vector>

#include "platform/sockets/inet.h"
#include "platform/vxnetutils/bsd_socket.h"
#include "tests/platform/own_namespace.h"

namespace {

// "name=address ..." in the list's order.
std::string List() {
  std::vector<InterfaceInfo> interfaces{{SockAddr(1), "stale"}};
  const unsigned count = BsdSocket::GetLocalHostEx(&interfaces, nullptr);
  EXPECT_EQ(count, interfaces.size());
  std::string text;
  for (const InterfaceInfo& info : interfaces) {
    text += info.name + "=" + sockets::inet_ntoa(info.address.IPAddrNetOrder()) + " ";
  }
  return text;
}

using InterfacesTest = NamespaceTest;

TEST_F(InterfacesTest, EveryAddressOfEveryInterfaceThatIsUpAndTheHostsName) {
  InOwnNetwork([] {
    EXPECT_EQ(List(), "");
    Sh("ip link set lo up; ip link add a0 index 501 type veth peer name a1; ip link set a0 up");
    Sh("ip addr add 10.1.0.2/24 dev a0; ip link add b0 index 502 type veth peer name b1; ip link set b0 up");
    Sh("ip link add c0 index 503 type veth peer name c1; ip addr add 10.3.0.2/24 dev c0");
    EXPECT_EQ(List(), "lo=127.0.0.1 a0=10.1.0.2 b0=0.0.0.0 ");
    Sh("ip addr add 10.1.0.3/24 dev a0 label a0:1; ip addr add 10.9.0.2/24 dev a0; ip link set c0 up");
    EXPECT_EQ(List(), "lo=127.0.0.1 a0=10.1.0.2 a0=10.9.0.2 a0=10.1.0.3 b0=0.0.0.0 c0=10.3.0.2 ");
  });
  char expected[HOST_NAME_MAX + 1] = "";
  ASSERT_EQ(::gethostname(expected, sizeof(expected)), 0);
  std::string name = "stale";
  BsdSocket::GetLocalHostEx(nullptr, &name);
  EXPECT_EQ(name, expected);
}

TEST(InetTest, AddrTakesTheNumbersAndDotsNotationAndNtoaWritesItPlain) {
  const std::pair<const char*, const char*> cases[] = {
      {"10.77.0.2", "10.77.0.2"}, {"0.0.0.0", "0.0.0.0"},  {"101.200.249.99", "101.200.249.99"},
      {"127.1", "127.0.0.1"},     {"0x7f.1", "127.0.0.1"}, {"010.0.0.1", "8.0.0.1"}};
  for (const char* text :
       {"1.2.3.4 ", "1.2.3.4 x", "1.2.3.", "1..3.4", "00.1.2.3", "1.2.3.04", "1.2.3.256", " 1.2.3.4"}) {
    EXPECT_EQ(sockets::inet_addr(text), ::inet_addr(text)) << text;
  }
  for (const auto& [text, expected] : cases) EXPECT_STREQ(sockets::inet_ntoa(sockets::inet_addr(text)), expected);
  for (const char* text :
       {"255.255.255.255", "", "256.1.1.1", "1.2.3.4.5", "pbx.example", "::1", static_cast<const char*>(nullptr)}) {
    EXPECT_EQ(sockets::inet_addr(text), sockets::kNoAddress);
  }
}

TEST(InetTest, NtoasTextBelongsToItsThread) {
  const char* const mine = sockets::inet_ntoa(sockets::inet_addr("10.0.0.1"));
  std::thread([] { EXPECT_STREQ(sockets::inet_ntoa(0xFFFFFFFF), "255.255.255.255"); }).join();
  EXPECT_STREQ(mine, "10.0.0.1");
}

}  // namespace
