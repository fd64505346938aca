// How long a host's reading holds the settings lock, with tables as large as they come: 1e6 RTP endpoints, 1e5
// exclusion rules, 64 000 ports of STUN. Microseconds a call, which is a little more than the lock is held.
#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <vector>

#include "agent/host.h"
#include "agent/nat_agent.h"
#include "agent/natagent.h"
#include "nat/host_config.h"

namespace {

using Clock = std::chrono::steady_clock;

double Micros(Clock::duration time) { return std::chrono::duration<double, std::micro>(time).count(); }

struct Source final : ConfigSource {
  HostConfig* GetConfig() override { return &config; }
  MediaConfig media;
  NatConfig nat;
  HostConfig config{&media, &nat};
};

void Print(const char* what, std::vector<double>& times, std::size_t rows) {
  std::sort(times.begin(), times.end());
  std::printf("%-12s %8zu rows  median %6.2f  99.9 %% %6.2f  worst %6.2f us\n", what, rows, times[times.size() / 2],
              times[times.size() - 1 - times.size() / 1000], times.back());
}

// Pages through a listing, as a host does.
template <class Row, class Function>
void Measure(const char* what, Function list) {
  std::vector<double> times;
  std::size_t rows = 0;
  NatHostPlace place{};
  for (int count = 1; count > 0;) {
    Row page[16];
    page[0].size = sizeof(Row);
    const Clock::time_point begin = Clock::now();
    count = list(&place, page, std::size(page));
    times.push_back(Micros(Clock::now() - begin));
    rows += static_cast<std::size_t>(std::max(count, 0));
  }
  Print(what, times, rows);
}

void FillTables() NAT_NO_THREAD_SAFETY_ANALYSIS {
  g_settingsLock.Lock();
  auto& calls = const_cast<ReverseNatManager&>(_NatAgent.Calls());
  for (u32 i = 0; i < 1'000'000; ++i) {
    calls.AddRevTarget(i / 10 * 7919ULL % 1'000'003,
                       {.selfPort = 1, .mappedPort = static_cast<u16>(i), .mappedIp = i / 60'000 + 1, .localIp = 1});
  }
  std::list<NatExcEntry> rules;
  for (u32 i = 0; i < 100'000; ++i) {
    rules.push_back({i, 0xFFFFFFFF});
  }
  _NatAgent.m_excTable.SetTable(rules);
  g_settingsLock.Unlock();
}

void MeasurePorts() {
  StunManager manager(true, true);
  manager.AddPorts(1024, 65023, 1, 0, true, true);
  std::vector<double> times;
  std::size_t rows = 0;
  for (u32 from = 0;;) {
    StunPort page[16];
    const Clock::time_point begin = Clock::now();
    const std::size_t count = manager.ListPorts(from, page);
    times.push_back(Micros(Clock::now() - begin));
    if (count == 0) {
      break;
    }
    rows += count;
    from = page[count - 1].port + 1U;
  }
  Print("ports", times, rows);
}

void MeasureStatus() {
  std::vector<double> times;
  for (int i = 0; i < 10'000; ++i) {
    NatHostStatus status{};
    status.size = sizeof status;
    const Clock::time_point begin = Clock::now();
    NatHostReadStatus(&status);
    times.push_back(Micros(Clock::now() - begin));
  }
  Print("status", times, 1);
}

}  // namespace

int main() {
  std::string directory = std::filesystem::temp_directory_path() / "natagent-bench-XXXXXX";
  if (::mkdtemp(directory.data()) == nullptr || NatHostUseRuntimeDir(directory.c_str(), -1) != 0 ||
      NatHostUseLogDir(directory.c_str()) != 0) {
    std::perror("a directory");
    return 1;
  }
  Source source;
  NatMain(static_cast<ConfigSource*>(&source));
  NatHostHealth health{};
  for (health.size = sizeof health; NatHostReadHealth(&health) == 0;) {
  }
  FillTables();
  MeasureStatus();
  Measure<NatHostCall>("calls", NatHostListCalls);
  Measure<NatHostExclusion>("exclusions", NatHostListExclusions);
  Measure<NatHostCounter>("counters", NatHostListCounters);
  MeasurePorts();
  StopNatMain();
  std::filesystem::remove_all(directory);
  return 0;
}
