// How long the STUN client takes to learn 1000 ports behind a real NAT, on good networks and bad ones, next to what one
// socket, bind and sendto for each port takes on the same bed. Needs root; makes and removes its own network
// namespaces. Exits with 1 when not everything was learnt, or not in time.
//
// With --idle MINUTES it measures instead what 200 learnt ports cost from then on.

#include <arpa/inet.h>
#include <poll.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <limits>
#include <string_view>
#include <vector>

#include "bench/stun_bed.h"
#include "platform/stunutils/message.h"
#include "platform/stunutils/stun_manager.h"

namespace {

using Clock = std::chrono::steady_clock;

constexpr u16 kPorts = 1000;
constexpr int kRounds = 5;
constexpr std::chrono::seconds kLimit(60);
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

struct Bounds {
  double most = kNoBound;       // of the median round, for 99 % of the ports
  double worstMost = kNoBound;  // of each round, for 99 % of the ports
  double all = kNoBound;        // of the median round
};

// Rounds on ports that the NAT has not seen. False when one did not learn nearly all, or a bound is missed.
bool Measure(const char* name, u16 first, int rounds, const Bounds& bounds) {
  std::vector<double> most, all, sent, answered;
  std::vector<int> counts;
  for (int i = 0; i < rounds; ++i) {
    const auto base = static_cast<u16>(first + 2 * i * kPorts);
    const Round round = LearnWithClient(base);
    const Plain plain = AskWithSockets(static_cast<u16>(base + kPorts));
    most.push_back(round.most);
    all.push_back(round.all < 0 ? kNoBound : round.all);
    sent.push_back(plain.sent);
    answered.push_back(plain.all);
    counts.push_back(plain.answered);
  }
  const double worst = *std::max_element(most.begin(), most.end());
  const bool isComplete = *std::min_element(most.begin(), most.end()) >= 0;
  const bool isInTime = Median(most) <= bounds.most && worst <= bounds.worstMost && Median(all) <= bounds.all;
  std::printf(
      "%-14s client: 99 %% in %7.1f ms (bound %7.1f), at worst %7.1f (bound %7.1f), all in %7.1f ms (bound "
      "%7.1f)%s%s\n",
      name, Median(most), bounds.most, worst, bounds.worstMost, Median(all), bounds.all,
      isComplete ? "" : " -- NOT 99 %", isInTime ? "" : " -- BOUND MISSED");
  std::printf("%-14s socket/bind/sendto each: sent in %7.1f ms, last answer after %7.1f ms, %d of %d answered\n", name,
              Median(sent), Median(answered), Median(counts), int{kPorts});
  std::fflush(stdout);
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

bool MeasureLearning() {
  bool isInTime = true;
  {
    StunBed bed;
    const double roundTrip = RoundTrip();
    std::printf("%d ports, median of %d rounds; round-trip %.2f ms\n", int{kPorts}, kRounds, roundTrip);
    isInTime = Measure("no loss", 1001, kRounds, {.all = 2 * roundTrip + 60});
    bed.Spoil(5, 0);
    isInTime = Measure("5 % loss", 11001, kRounds, {.most = 1000, .worstMost = 1600}) && isInTime;
    bed.Spoil(20, 0);
    isInTime = Measure("20 % loss", 21001, kRounds, {.most = 10000, .worstMost = 16000}) && isInTime;
    bed.Spoil(0, 200);
    isInTime = Measure("200 requests/s", 31001, 3, {.most = 12000}) && isInTime;
  }
  StunBed bed(std::chrono::milliseconds(50));
  std::printf("round-trip %.2f ms\n", RoundTrip());
  return Measure("far away", 1001, 3, {.all = 2500}) && isInTime;
}

// Of the whole process, which does nothing else meanwhile.
double CpuSeconds() {
  rusage usage{};
  ::getrusage(RUSAGE_SELF, &usage);
  const auto seconds = [](const timeval& time) {
    return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_usec) / 1e6;
  };
  return seconds(usage.ru_utime) + seconds(usage.ru_stime);
}

bool MeasureIdle(int minutes) {
  const StunBed bed;
  StunManager manager(true, true);
  manager.UpdateSettings({{StunBed::kServer, StunBed::kPort}}, 0, 0, 0);
  manager.AddPorts(10000, 10199, 1, 3, true, true);
  if (!manager.Start(true, true)) {
    return false;
  }
  ::poll(nullptr, 0, 5000);
  const double cpu = CpuSeconds();
  const PacketCount before = bed.Packets();
  ::poll(nullptr, 0, minutes * 60000);
  const PacketCount after = bed.Packets();
  const double seconds = minutes * 60.0;
  const double percent = 100 * (CpuSeconds() - cpu) / seconds;
  const double out = static_cast<double>(after.out - before.out) / seconds;
  const double in = static_cast<double>(after.in - before.in) / seconds;
  std::printf("200 ports for %d min: %.3f %% of a core (bound 0.2), %.1f packets/s out, %.1f in (bound 10)\n", minutes,
              percent, out, in);
  return percent < 0.2 && out < 10 && in < 10;
}

}  // namespace

int main(int argc, char** argv) {
  if (::geteuid() != 0) {
    std::fprintf(stderr, "stun_learning: needs root, for network namespaces\n");
    return 1;
  }
  const int minutes = argc == 3 && std::string_view(argv[1]) == "--idle" ? std::atoi(argv[2]) : 0;
  if (argc != 1 && (minutes < 1 || minutes > 1440)) {
    std::fprintf(stderr, "usage: stun_learning [--idle MINUTES]\n");
    return 2;
  }
  try {
    return (minutes != 0 ? MeasureIdle(minutes) : MeasureLearning()) ? 0 : 1;
  } catch (const std::exception& error) {
    std::fprintf(stderr, "stun_learning: %s\n", error.what());
    return 1;
  }
}
