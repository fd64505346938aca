// How long the STUN client takes to learn 1000 ports behind a real NAT, without loss and with 5 % loss each way, next
// to what one socket, bind and sendto for each port takes on the same bed. Needs root; makes and removes its own
// network namespaces. Exits with 1 when not everything was learnt, or not in time.

#include <arpa/inet.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <cstdio>
#include <exception>
#include <limits>
#include <vector>

#include "bench/stun_bed.h"
#include "platform/stunutils/message.h"
#include "platform/stunutils/stun_manager.h"

namespace {

using Clock = std::chrono::steady_clock;

constexpr u16 kPorts = 1000;
constexpr int kRounds = 5;
constexpr std::chrono::seconds kLimit(30);
constexpr double kNoBound = std::numeric_limits<double>::infinity();

double Since(Clock::time_point begin) {
  return std::chrono::duration<double, std::milli>(Clock::now() - begin).count();
}

// What a round came to, in milliseconds; a negative time was not reached.
struct Round {
  double most = -1;  // 99 % of the ports
  double all = -1;
};

Round LearnWithClient(u16 first) {
  StunManager manager(true, true);
  manager.UpdateSettings({{StunBed::kServer, StunBed::kPort}}, 0, 0, 0);
  const auto last = static_cast<u16>(first + kPorts - 1);
  Round round;
  const auto begin = Clock::now();
  manager.AddPorts(first, last, 1, 3, true, true);
  if (!manager.Start(true, true)) {
    return round;
  }
  std::vector<u16> missing(kPorts);
  for (u16 i = 0; i < kPorts; ++i) {
    missing[i] = static_cast<u16>(first + i);
  }
  while (!missing.empty() && Clock::now() - begin < kLimit) {
    std::erase_if(missing, [&manager](u16 port) {
      StunResult result;
      manager.GetPortResult(port, result);
      return result.port2 != 0;
    });
    const double now = Since(begin);
    if (round.most < 0 && missing.size() <= kPorts / 100) {
      round.most = now;
    }
    if (missing.empty()) {
      round.all = now;
    }
    ::poll(nullptr, 0, 1);
  }
  return round;
}

struct Plain {
  double sent = 0;  // when the last request was out
  double all = -1;  // when the last answer was in
  int answered = 0;
};

// Without a schedule: everything at once, nothing sent again.
Plain AskWithSockets(u16 first) {
  sockaddr_in to{};
  to.sin_family = AF_INET;
  to.sin_addr.s_addr = ::inet_addr(StunBed::kServer);
  to.sin_port = htons(3478);
  const auto request = stun::BindingRequest({7, 7, 7});
  Plain plain;
  std::vector<pollfd> sockets;
  const auto begin = Clock::now();
  for (u16 i = 0; i < kPorts; ++i) {
    sockaddr_in local{};
    local.sin_family = AF_INET;
    local.sin_addr.s_addr = ::inet_addr(StunBed::kDevice);
    local.sin_port = htons(static_cast<u16>(first + i));
    const int fd = ::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    if (fd < 0 || ::bind(fd, reinterpret_cast<const sockaddr*>(&local), sizeof(local)) != 0 ||
        ::sendto(fd, request.data(), request.size(), 0, reinterpret_cast<const sockaddr*>(&to), sizeof(to)) < 0) {
      std::perror("socket, bind or sendto");
    }
    sockets.push_back({fd, POLLIN, 0});
  }
  plain.sent = Since(begin);
  while (plain.answered<kPorts&& ::poll(sockets.data(), sockets.size(), 1000)> 0) {
    for (pollfd& socket : sockets) {
      std::array<u8, 512> answer;
      if ((socket.revents & POLLIN) != 0 && ::recv(socket.fd, answer.data(), answer.size(), 0) > 0) {
        ++plain.answered;
        ::close(socket.fd);
        socket.fd = -1;
      }
    }
    plain.all = Since(begin);
  }
  for (const pollfd& socket : sockets) {
    if (socket.fd >= 0) {
      ::close(socket.fd);
    }
  }
  return plain;
}

template <class Value>
Value Median(std::vector<Value> values) {
  std::sort(values.begin(), values.end());
  return values[values.size() / 2];
}

// Rounds on ports that the NAT has not seen. False when one did not learn all, or a median is above its bound.
bool Measure(const char* name, u16 first, double mostBound, double allBound) {
  std::vector<double> most, all, sent, answered;
  std::vector<int> counts;
  for (int i = 0; i < kRounds; ++i) {
    const auto base = static_cast<u16>(first + 2 * i * kPorts);
    const Round round = LearnWithClient(base);
    const Plain plain = AskWithSockets(static_cast<u16>(base + kPorts));
    most.push_back(round.most);
    all.push_back(round.all);
    sent.push_back(plain.sent);
    answered.push_back(plain.all);
    counts.push_back(plain.answered);
  }
  const bool isComplete = *std::min_element(all.begin(), all.end()) >= 0;
  const bool isInTime = Median(most) <= mostBound && Median(all) <= allBound;
  std::printf("%-10s client: 99 %% in %7.1f ms (bound %6.1f, worst %7.1f), all in %7.1f ms (bound %6.1f)%s%s\n", name,
              Median(most), mostBound, *std::max_element(most.begin(), most.end()), Median(all), allBound,
              isComplete ? "" : " -- NOT ALL", isInTime ? "" : " -- BOUND MISSED");
  std::printf("%-10s socket/bind/sendto each: sent in %7.1f ms, last answer after %7.1f ms, %d of %d answered\n", name,
              Median(sent), Median(answered), Median(counts), int{kPorts});
  return isComplete && isInTime;
}

double RoundTrip() {
  const int fd = ::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  sockaddr_in to{};
  to.sin_family = AF_INET;
  to.sin_addr.s_addr = ::inet_addr(StunBed::kServer);
  to.sin_port = htons(3478);
  const auto request = stun::BindingRequest({9});
  std::vector<double> times;
  for (int i = 0; i < 21; ++i) {
    const auto begin = Clock::now();
    pollfd waiting{fd, POLLIN, 0};
    std::array<u8, 512> answer;
    if (::sendto(fd, request.data(), request.size(), 0, reinterpret_cast<const sockaddr*>(&to), sizeof(to)) > 0 &&
        ::poll(&waiting, 1, 1000) == 1 && ::recv(fd, answer.data(), answer.size(), 0) > 0) {
      times.push_back(Since(begin));
    }
  }
  ::close(fd);
  return times.empty() ? -1 : Median(times);
}

}  // namespace

int main() {
  if (::geteuid() != 0) {
    std::fprintf(stderr, "stun_learning: needs root, for network namespaces\n");
    return 1;
  }
  try {
    StunBed bed;
    const double roundTrip = RoundTrip();
    std::printf("%d ports, median of %d rounds; round-trip %.2f ms\n", int{kPorts}, kRounds, roundTrip);
    bool isInTime = Measure("no loss", 10001, kNoBound, 3 * roundTrip + 150);
    bed.Lose(5);
    isInTime = Measure("5 % loss", 30001, 1500, kNoBound) && isInTime;
    return isInTime ? 0 : 1;
  } catch (const std::exception& error) {
    std::fprintf(stderr, "stun_learning: %s\n", error.what());
    return 1;
  }
}
