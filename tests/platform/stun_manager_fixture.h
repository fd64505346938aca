#pragma once

#include <arpa/inet.h>
#include <fcntl.h>
#include <gmock/gmock.h>
#include <linux/capability.h>
#include <poll.h>
#include <sys/syscall.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <list>
#include <mutex>
#include <optional>

#include "platform/stunutils/stun_logger.h"
#include "platform/stunutils/stun_manager.h"
#include "tests/platform/captured_journal.h"
#include "tests/platform/own_namespace.h"

using namespace std::chrono_literals;

inline constexpr const char* kDevice = "10.77.0.2";
inline constexpr const char* kServer = "10.77.0.3";
inline constexpr const char* kOtherServer = "10.77.0.4";
inline const StunServInfo kFirst{kServer, "3478"};
inline const StunServInfo kSecond{kOtherServer, "3478"};

// A UDP socket for an endpoint of this network namespace; -1 when that is taken.
inline int BoundSocket(const char* address, u16 port) {
  const int fd = ::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  const sockaddr_in local{AF_INET, htons(port), {::inet_addr(address)}, {}};
  if (::bind(fd, reinterpret_cast<const sockaddr*>(&local), sizeof(local)) == 0) {
    return fd;
  }
  ::close(fd);
  return -1;
}

// A server, at port 3478 of an address of this network namespace, that answers as the test says.
class StunResponder {
 public:
  std::atomic<int> offset = 1000;  // from the client's port to the one on 203.0.113.2 it is mapped to
  std::atomic<bool> isSilent = false;
  std::atomic<bool> hasOtherId = false;
  std::atomic<int> socket;  // that answers

  // `begin` is called first on the server's thread.
  explicit StunResponder(
      const char* address, void (*begin)() = [] {})
      : socket(BoundSocket(address, 3478)), m_socket(socket), m_thread([this, begin] { begin(), Run(); }) {}
  ~StunResponder() {
    ::shutdown(m_socket, SHUT_RDWR);
    m_thread.join();
    ::close(m_socket);
  }

  // The ports that requests came from, in their order.
  std::vector<u16> Asked() {
    const std::lock_guard lock(m_mutex);
    return m_asked;
  }

 private:
  void Run() {
    u8 request[2048];
    sockaddr_in from{};
    const auto to = reinterpret_cast<sockaddr*>(&from);
    socklen_t size = sizeof(from);
    while (::recvfrom(m_socket, request, sizeof(request), 0, to, &size) > 0) {
      const std::lock_guard lock(m_mutex);
      m_asked.push_back(ntohs(from.sin_port));
      const int port = m_asked.back() + offset;
      std::vector<u8> answer{1, 1, 0, 12};
      answer.insert(answer.end(), request + 4, request + 20);
      answer.insert(answer.end(),
                    {0, 1, 0, 8, 0, 1, static_cast<u8>(port >> 8), static_cast<u8>(port), 203, 0, 113, 2});
      answer[19] ^= hasOtherId;
      if (!isSilent) {
        ::sendto(socket, answer.data(), answer.size(), 0, to, size);
      }
    }
  }

  const int m_socket;
  std::mutex m_mutex;
  std::vector<u16> m_asked;
  std::thread m_thread;
};

// A device 10.77.0.2 with a default route, in a network namespace of the test's own where the servers' addresses are
// too. The client asks kServer, which maps each port to the one 1000 above it.
class StunManagerTest : public NamespaceTest {
 protected:
  using Changes = std::list<std::pair<u16, u16>>;

  void SetUp() override {
    NamespaceTest::SetUp();
    if (IsSkipped()) {
      return;
    }
    m_home = ::open("/proc/thread-self/ns/net", O_RDONLY | O_CLOEXEC);
    ASSERT_EQ(::unshare(CLONE_NEWNET), 0);
    Sh("ip link set lo up && ip addr add 10.77.0.3/32 dev lo && ip addr add 10.77.0.4/32 dev lo");
    AddLink("up", "10.77.0.2/24");
    Sh("ip route add default via 10.77.0.1");
    StunLogger::Create();
    testing::internal::CaptureStderr();
    server.emplace(kServer);
    manager.emplace(true, true);
    manager->SetChangedPortsCallback(&Report, this);
  }
  void TearDown() override {
    if (m_home >= 0) {
      manager.reset();
      server.reset();
      EXPECT_THAT(CapturedJournal(), said);
      StunLogger::Destroy();
      EXPECT_EQ(::setns(m_home, CLONE_NEWNET), 0);
      ::close(m_home);
    }
  }

  // Probes every second, the first retransmission after 100 ms.
  void Configure(const std::list<StunServInfo>& servers) { manager->UpdateSettings(servers, 1, 5, 100); }
  void Start(const std::list<StunServInfo>& servers = {kFirst}) {
    Configure(servers);
    ASSERT_TRUE(manager->Start(true, true));
  }
  void Add(u16 first, u16 last, u8 owner, u8 interval = 1) {
    manager->AddPorts(first, last, interval, owner, owner != 1, true);
  }

  u16 PublicPort(u16 port) {
    StunResult result;
    manager->GetPortResult(port, result);
    return result.port2;
  }
  // Looks again and again until it holds; false when that takes too long.
  static bool Eventually(const std::function<bool()>& holds) {
    const auto end = std::chrono::steady_clock::now() + 10s;
    bool isSo = false;
    while (!(isSo = holds()) && std::chrono::steady_clock::now() < end) {
      ::poll(nullptr, 0, 1);
    }
    return isSo;
  }
  // Whether each of the ports comes to be mapped to the one so much above it.
  bool Learns(const std::vector<u16>& ports, int offset = 1000) {
    const auto isLearnt = [&](u16 port) { return PublicPort(port) == port + offset; };
    return Eventually([&] { return std::all_of(ports.begin(), ports.end(), isLearnt); });
  }
  // Whether the server gets so many requests from now on.
  bool IsAskedAgain(std::size_t count) {
    return Eventually([this, all = server->Asked().size() + count] { return server->Asked().size() >= all; });
  }

  // The changes of all reports. How many reports they come in depends on what was under way when they began.
  Changes Reported() {
    const std::lock_guard lock(m_mutex);
    return m_reported;
  }

  std::optional<StunResponder> server;
  std::optional<StunManager> manager;
  testing::Matcher<std::string> said = "";  // in the journal, by the end of the test

  // Without CAP_NET_RAW, for threads started meanwhile too.
  static void BeUnableToBeRaw(bool isUnable) {
    __user_cap_header_struct header{_LINUX_CAPABILITY_VERSION_3, 0};
    __user_cap_data_struct data[2];
    ASSERT_EQ(::syscall(SYS_capget, &header, data), 0);
    data[0].effective = isUnable ? data[0].effective & ~(1U << CAP_NET_RAW) : data[0].permitted;
    ASSERT_EQ(::syscall(SYS_capset, &header, data), 0);
  }

  Changes TakeReported() {
    const std::lock_guard lock(m_mutex);
    return std::exchange(m_reported, {});
  }

  static void Report(void* test, Changes& changes) {
    const std::lock_guard lock(static_cast<StunManagerTest*>(test)->m_mutex);
    auto& reported = static_cast<StunManagerTest*>(test)->m_reported;
    reported.splice(reported.end(), changes);  // without memory
  }

 private:
  int m_home = -1;
  std::mutex m_mutex;
  Changes m_reported;
};
