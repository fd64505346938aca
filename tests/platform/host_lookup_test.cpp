#include "platform/sockets/host_lookup.h"

#include <arpa/inet.h>
#include <sys/mount.h>
#include <sys/socket.h>

#include <chrono>
#include <fstream>
#include <vector>

#include "platform/sockets/inet.h"
#include "platform/sockets/sanitizers.h"
#include "tests/platform/own_namespace.h"

namespace {

using Clock = std::chrono::steady_clock;

std::string LookUp(const char* name) { return sockets::inet_ntoa(sockets::LookUpHost(name, std::stop_token())); }

// Lays a file with this text over the one at `path`, for this process.
void Overlay(const char* path, const char* text) {
  char copy[] = "/tmp/natagent-lookup-XXXXXX";
  ::close(::mkstemp(copy));
  std::ofstream(copy) << text;
  ASSERT_EQ(::mount(copy, path, nullptr, MS_BIND, nullptr), 0);
  ::unlink(copy);
}

// Looks names up where the only name server is one that takes questions and never answers.
void LookUpAndStop() {
  ASSERT_EQ(::unshare(CLONE_NEWNS | CLONE_NEWNET), 0);
  ASSERT_EQ(::mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr), 0);
  Sh("ip link set lo up");
  Overlay("/etc/resolv.conf", "nameserver 127.0.0.1\noptions timeout:30 attempts:5\n");
  Overlay("/etc/host.conf", "multi on\n");
  Overlay("/etc/hosts",
          "0.0.0.0 known.example\n192.0.2.1 known.example\n192.0.2.2 known.example\n192.0.2.1 known.example\n");
  Overlay("/etc/nsswitch.conf", "hosts: files dns\n");
  const int server = ::socket(AF_INET, SOCK_DGRAM, 0);
  const sockaddr_in own{AF_INET, htons(53), {htonl(INADDR_LOOPBACK)}, {}};
  ASSERT_EQ(::bind(server, reinterpret_cast<const sockaddr*>(&own), sizeof(own)), 0);

  EXPECT_EQ(LookUp("198.51.100.9"), "198.51.100.9");
  EXPECT_EQ(LookUp("KNOWN.example"), "192.0.2.1") << "the first";
  EXPECT_EQ(sockets::LookUpHostAddresses("known.example", std::stop_token()),
            std::vector({sockets::inet_addr("192.0.2.1"), sockets::inet_addr("192.0.2.2")}));
  EXPECT_EQ(LookUp(""), "0.0.0.0");
  EXPECT_EQ(LookUp(nullptr), "0.0.0.0");
  // One that hangs; then more than the C library has threads for, of which the later are still queued.
  for (const int lookUps : {1, 40}) {
    std::stop_source stop;
    std::vector<std::thread> workers;
    for (int i = 0; i < lookUps; ++i) {
      workers.emplace_back([&stop, name = "name-" + std::to_string(i + lookUps) + ".example"] {
        EXPECT_EQ(sockets::LookUpHost(name.c_str(), stop.get_token()), 0U);
      });
    }
    char question[512];
    EXPECT_GT(::recv(server, question, sizeof(question), 0), 0);
    const Clock::time_point begin = Clock::now();
    stop.request_stop();
    for (std::thread& worker : workers) worker.join();
    EXPECT_LT(Clock::now() - begin, std::chrono::seconds(2));
#ifdef NAT_THREAD_SANITIZER
    break;  // there the next one waits for one that hangs
#endif
    EXPECT_TRUE(lookUps > 1 || LookUp("known.example") == "192.0.2.1") << "held up by one that hangs";
  }
}

using HostLookUpDeathTest = NamespaceTest;

// In a process of its own, as the C library's look-up threads keep the namespaces they were born in; started anew, as a
// fork would wait for the threads it left behind; left at once, as look-ups may be under way.
TEST_F(HostLookUpDeathTest, FindsTheAddressesAndAStopEndsWhatHangs) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  EXPECT_EXIT((LookUpAndStop(), std::_Exit(HasFailure() ? 1 : 0)), testing::ExitedWithCode(0), "");
}

}  // namespace
