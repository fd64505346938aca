// The table of RTP translations against a bare std::map of the same keys, in one run: the look-up at 1e5 endpoints, or
// with --all ns an operation and bytes an endpoint, for 1e3 to 1e6 endpoints. Ten endpoints a query id. Each
// measurement has a process, and so a heap, of its own; the two sides take turns.
#include <malloc.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <numeric>
#include <random>
#include <vector>

#include "bench/figures.h"
#include "rtp/reverse_nat_manager.h"

namespace {

constexpr std::size_t kEndpointsPerQuery = 10;
constexpr std::size_t kLookUps = 1'000'000;
constexpr int kRounds = 5;

// The bare map's key and value, ordered like the table's.
struct Endpoint {
  u32 ip = 0;
  u16 port = 0;
  bool operator<(const Endpoint& other) const { return ip != other.ip ? ip < other.ip : port < other.port; }
};

struct Result {
  double add = 0;    // ns
  double ask = 0;    // ns
  double close = 0;  // ns
  double bytes = 0;
  std::size_t found = 0;
};

// What both sides are asked to do.
struct Task {
  explicit Task(std::size_t endpoints) : settings(endpoints), addOrder(endpoints), askOrder(endpoints) {
    for (std::size_t i = 0; i < endpoints; ++i) {
      settings[i].mappedIp = static_cast<u32>(i / 50000 + 1) * 0x01000193U;
      settings[i].mappedPort = static_cast<u16>(i % 50000 + 1024);
      settings[i].localIp = 0x0200000A;
      settings[i].selfPort = settings[i].mappedPort;
    }
    std::mt19937 random(1);
    std::iota(addOrder.begin(), addOrder.end(), 0);
    std::shuffle(addOrder.begin(), addOrder.end(), random);
    askOrder = addOrder;
    std::shuffle(askOrder.begin(), askOrder.end(), random);
  }
  std::vector<NatSetting> settings;
  std::vector<std::size_t> addOrder;
  std::vector<std::size_t> askOrder;
};

template <class Work>
double NsEach(std::size_t operations, Work work) {
  const auto begin = std::chrono::steady_clock::now();
  work();
  const std::chrono::duration<double, std::nano> took = std::chrono::steady_clock::now() - begin;
  return took.count() / static_cast<double>(operations);
}

template <class Add, class Ask, class Close>
Result Measure(const Task& task, Add add, Ask ask, Close close) {
  const std::size_t endpoints = task.settings.size();
  const std::size_t repeats = std::max(kLookUps / endpoints, std::size_t{1});
  Result result;
  const std::size_t before = mallinfo2().uordblks;
  result.add = NsEach(endpoints, [&] {
    for (const std::size_t i : task.addOrder) {
      add(i / kEndpointsPerQuery, task.settings[i]);
    }
  });
  result.bytes = static_cast<double>(mallinfo2().uordblks - before) / static_cast<double>(endpoints);
  result.ask = NsEach(repeats * endpoints, [&] {
    for (std::size_t repeat = 0; repeat < repeats; ++repeat) {
      for (const std::size_t i : task.askOrder) {
        NatSetting asked = task.settings[i];
        ask(asked);
        result.found += asked.selfPort;
      }
    }
  });
  result.close = NsEach(endpoints, [&] {
    for (std::size_t query = 0; query * kEndpointsPerQuery < endpoints; ++query) {
      close(query);
    }
  });
  return result;
}

Result MeasureTable(const Task& task) {
  ReverseNatManager table;
  return Measure(
      task, [&](u64 query, const NatSetting& setting) { table.AddRevTarget(query, setting); },
      [&](NatSetting& setting) { table.GetRevSettings(setting); }, [&](u64 query) { table.DeleteRevTarget(query); });
}

Result MeasureMap(const Task& task) {
  std::map<Endpoint, Endpoint> map;
  return Measure(
      task,
      [&](u64, const NatSetting& setting) {
        map.try_emplace({setting.mappedIp, setting.mappedPort}, Endpoint{setting.localIp, setting.selfPort});
      },
      [&](NatSetting& setting) {
        const auto found = map.find({setting.mappedIp, setting.mappedPort});
        setting.localIp = found->second.ip;
        setting.selfPort = found->second.port;
      },
      [](u64) {});
}

// In a process of its own.
Result Apart(Result (*measure)(const Task&), const Task& task) {
  std::array<int, 2> ends{};
  if (::pipe(ends.data()) != 0) {
    std::perror("pipe");
    std::exit(1);
  }
  const pid_t child = ::fork();
  if (child == 0) {
    const Result result = measure(task);
    ::_exit(::write(ends[1], &result, sizeof(result)) == sizeof(result) ? 0 : 1);
  }
  Result result;
  int status = 1;
  if (child < 0 || ::read(ends[0], &result, sizeof(result)) != sizeof(result) ||
      ::waitpid(child, &status, 0) != child || status != 0) {
    std::fprintf(stderr, "a measurement failed\n");
    std::exit(1);
  }
  ::close(ends[0]);
  ::close(ends[1]);
  return result;
}

double Median(const std::vector<Result>& results, double Result::*field) {
  std::vector<double> values;
  for (const Result& result : results) {
    values.push_back(result.*field);
  }
  return ::Median(std::move(values));
}

double AskRatio(const std::vector<Result>& one, const std::vector<Result>& other) {
  return Median(one, &Result::ask) / Median(other, &Result::ask);
}

Measurement Compare() {
  const Task task(100'000);
  std::vector<Result> table;
  std::vector<Result> map;
  std::vector<Result> again;
  for (int round = 0; round < 2 * kRounds; ++round) {
    map.push_back(Apart(MeasureMap, task));
    table.push_back(Apart(MeasureTable, task));
    again.push_back(Apart(MeasureMap, task));
  }
  return {AskRatio(again, map),
          {{"RTP table at 1e5 endpoints / bare map", "x", AskRatio(table, map), Figure::AT_MOST, 1.10}}};
}

void PrintAll() {
  std::printf("%9s  %31s   %23s   %s\n", "", "table: ns an operation", "bare map", "look-up");
  std::printf("%9s  %7s %7s %7s  %6s   %7s %7s  %6s   %s\n", "endpoints", "add", "ask", "close", "bytes", "add", "ask",
              "bytes", "ratio");
  for (const std::size_t endpoints : {1000, 10000, 100000, 1000000}) {
    const Task task(endpoints);
    std::vector<Result> table;
    std::vector<Result> map;
    for (int round = 0; round < kRounds; ++round) {
      table.push_back(Apart(MeasureTable, task));
      map.push_back(Apart(MeasureMap, task));
      if (table.back().found != map.back().found) {
        std::fprintf(stderr, "the two did not find the same\n");
        std::exit(1);
      }
    }
    std::printf("%9zu  %7.0f %7.0f %7.0f  %6.0f   %7.0f %7.0f  %6.0f   %5.2f\n", endpoints, Median(table, &Result::add),
                Median(table, &Result::ask), Median(table, &Result::close), Median(table, &Result::bytes),
                Median(map, &Result::add), Median(map, &Result::ask), Median(map, &Result::bytes),
                AskRatio(table, map));
  }
}

}  // namespace

int main(int argc, char** argv) {
  if (argc > 1 && std::strcmp(argv[1], "--all") == 0) {
    PrintAll();
    return 0;
  }
  Figures figures;
  figures.Add(Compare);
  return figures.Status();
}
