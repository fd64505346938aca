// What a signalling request costs beside a raw echo over the same kind of socket, on one core: the round-trip, its p99,
// pipelined throughput, a further item of a list, 10 000 exclusion rules, a lone party beside two that flood, memory
// and the start. `signalling --trace SECONDS` only asks, for strace, perf and the like.
#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <thread>

#include "bench/interleaved.h"
#include "bench/signalling_bed.h"

namespace {

using messaging::FrameKind;
using Clock = std::chrono::steady_clock;

constexpr char kInMemory[] = "/dev/shm";
constexpr char kOnDisk[] = "/var/tmp";
constexpr int kSip = 112;
constexpr int kCm = 114;
constexpr int kCc = 115;
constexpr int kCore = 1;
constexpr double kRtpItemMust = 0.32;  // us
constexpr double kIdleMust = 6.0;      // MB

double Micros(Clock::duration time) { return std::chrono::duration<double, std::micro>(time).count(); }

std::string Number(double value) {
  char text[32];
  std::snprintf(text, sizeof(text), "%.2f", value);
  return text;
}

Measurement RoundTrip() {
  const RawEcho echo;
  const RawEcho again;
  const Daemon inMemory(kInMemory);
  const Daemon onDisk(kOnDisk);
  const Line sip = inMemory.Connect(kSip);
  const Line diskSip = onDisk.Connect(kSip);
  const std::string request = CsRequest(7);
  const Interleaved run({[&] { echo.Peer().Call(request); }, [&] { sip.Call(request); },
                         [&] { again.Peer().Call(request); }, [&] { diskSip.Call(request); }},
                        120);
  Measurement measured;
  measured.control = run.Mean(2) / run.Mean(0);
  measured.figures = {{"round-trip / raw echo", "x", run.Mean(1) / run.Mean(0), Figure::AT_MOST, 1.40,
                       "echo " + Number(run.Mean(0)) + " us; log on disk " + Number(run.Mean(3) / run.Mean(0))},
                      {"p99 / echo's p99", "x", run.P99(1) / run.P99(0), Figure::AT_MOST, 1.80,
                       "echo " + Number(run.P99(0)) + " us; log on disk " + Number(run.P99(3) / run.P99(0))}};
  return measured;
}

// Time of so many requests with at most 64 under way.
void Pipeline(const Line& line, const std::string& request, int requests) {
  constexpr int kWindow = 64;
  for (int i = 0; i < kWindow; ++i) {
    line.Send(request);
  }
  for (int i = kWindow; i < requests; ++i) {
    line.Receive();
    line.Send(request);
  }
  for (int i = 0; i < kWindow; ++i) {
    line.Receive();
  }
}

Measurement Pipelined() {
  const RawEcho echo;
  const RawEcho again;
  const Daemon inMemory(kInMemory);
  const Daemon onDisk(kOnDisk);
  const Line sip = inMemory.Connect(kSip);
  const Line diskSip = onDisk.Connect(kSip);
  const std::string request = CsRequest(7);
  const auto pipeline = [&request](const Line& line) { return [&] { Pipeline(line, request, 5000); }; };
  const Interleaved run({pipeline(echo.Peer()), pipeline(sip), pipeline(again.Peer()), pipeline(diskSip)}, 40, 1);
  Measurement measured;
  measured.control = run.Mean(2) / run.Mean(0);
  measured.figures = {{"pipelined (64): throughput / echo's", "x", run.Mean(0) / run.Mean(1), Figure::AT_LEAST, 0.80,
                       "echo " + Number(run.Mean(0) / 5000) + " us; log on disk " + Number(run.Mean(0) / run.Mean(3))}};
  return measured;
}

Measurement Items() {
  constexpr int kItems = 512;
  const RawEcho echo;
  const RawEcho again;
  const Daemon inMemory(kInMemory);
  const Daemon onDisk(kOnDisk);
  const Line sip = inMemory.Connect(kSip);
  const Line diskSip = onDisk.Connect(kSip);
  const Line cm = inMemory.Connect(kCm);
  const Line cc = inMemory.Connect(kCc);
  const std::string small = CsRequest(7);
  const std::string one = ListRequest(FrameKind::CS_LIST_REQUEST, 7, 1);
  const std::string many = ListRequest(FrameKind::CS_LIST_REQUEST, 7, kItems);
  const std::string rtpOne = ListRequest(FrameKind::RTP_REQUEST, 7, 1, CA_PROTO_CC);
  const std::string rtpMany = ListRequest(FrameKind::RTP_REQUEST, 7, kItems, CA_PROTO_CC);
  const std::string close = CloseRequest(7);
  const auto rtp = [&](const std::string& request) {
    return [&] {
      cc.Call(request);
      cc.Send(close);
    };
  };
  const Interleaved run(
      {[&] { echo.Peer().Call(small); }, [&] { again.Peer().Call(small); }, [&] { sip.Call(one); },
       [&] { sip.Call(many); }, [&] { diskSip.Call(one); }, [&] { diskSip.Call(many); }, rtp(rtpOne), rtp(rtpMany)},
      60, 100);
  const auto each = [&run](std::size_t with, std::size_t without) {
    return (run.Mean(with) - run.Mean(without)) / (kItems - 1);
  };
  Measurement measured;
  measured.control = run.Mean(1) / run.Mean(0);
  measured.figures = {{"one further item in a list of 512", "us", each(3, 2), Figure::AT_MOST, 0.20,
                       "log on disk " + Number(each(5, 4))},
                      {"the same of RTP, recorded, then closed", "us", each(7, 6), Figure::AT_MOST, kRtpItemMust}};
  return measured;
}

Measurement Rules() {
  const RawEcho echo;
  const RawEcho again;
  const Daemon few(kInMemory, 10);
  const Daemon many(kInMemory, 10'000);
  // The first connection of this party loads the rules.
  const Line fewCm = few.Connect(kCm);
  const Line manyCm = many.Connect(kCm);
  const Line fewSip = few.Connect(kSip);
  const Line manySip = many.Connect(kSip);
  const std::string request = CsRequest(7);
  const Interleaved run({[&] { echo.Peer().Call(request); }, [&] { again.Peer().Call(request); },
                         [&] { fewSip.Call(request); }, [&] { manySip.Call(request); }},
                        60);
  Measurement measured;
  measured.control = run.Mean(1) / run.Mean(0);
  measured.figures = {
      {"10 000 exclusion rules / 10 rules, round-trip", "x", run.Mean(3) / run.Mean(2), Figure::AT_MOST, 1.05}};
  return measured;
}

// The agent has a core of its own, and is busy with the two all the time.
Measurement Fairness() {
  constexpr int kCalls = 20'000;
  const Daemon daemon(kInMemory);
  const Line sip = daemon.Connect(kSip);
  const Line cm = daemon.Connect(kCm);
  const Line cc = daemon.Connect(kCc);
  const std::string request = CsRequest(7);
  const Interleaved alone({[&] { sip.Call(request); }}, kCalls / Interleaved::kBlock);
  std::atomic<bool> isEnding{false};
  std::atomic<u64> answers{0};
  const auto flood = [&](const Line& line) {
    return std::thread([&] {
      StayOnCore(0);
      while (!isEnding) {
        Pipeline(line, request, 1024);
        answers += 1024;
      }
    });
  };
  std::thread floods[] = {flood(cm), flood(cc)};
  const Clock::time_point begin = Clock::now();
  const Interleaved beside({[&] { sip.Call(request); }}, kCalls / Interleaved::kBlock);
  const double each = Micros(Clock::now() - begin) / static_cast<double>(answers.load());
  isEnding = true;
  for (std::thread& one : floods) {
    one.join();
  }
  return {1,
          {{"p99 of a lone party beside two that flood", "us", beside.P99(0), Figure::NONE, 0,
            "alone " + Number(alone.P99(0)) + "; mean " + Number(beside.Mean(0)) + " beside, " + Number(alone.Mean(0)) +
                " alone; an answer to the two every " + Number(each)}}};
}

Measurement Memory() {
  const Daemon daemon(kInMemory);
  const Line sip = daemon.Connect(kSip);
  const std::string request = CsRequest(7);
  sip.Call(request);
  const double idle = daemon.Memory();
  Pipeline(sip, request, 1'000'000);
  const double after = daemon.Memory();
  return {1,
          {{"resident memory, idle", "MB", idle, Figure::AT_MOST, kIdleMust},
           {"more of it after 1e6 requests", "MB", after - idle, Figure::AT_MOST, 0.35}}};
}

Measurement Start() {
  const std::string request = ListRequest(FrameKind::RTP_REQUEST, 7, 1, CA_PROTO_CC);
  std::vector<double> times;
  for (int i = 0; i < 15; ++i) {
    const Clock::time_point begin = Clock::now();
    const Daemon daemon(kInMemory, 10, 200);
    daemon.Connect(kCc).Call(request);
    times.push_back(Micros(Clock::now() - begin) / 1000);
  }
  return {1, {{"start to first answer, 200 static ports", "ms", Median(times), Figure::AT_MOST, 20}}};
}

void Trace(double seconds, const std::string& what) {
  const Daemon daemon(kInMemory);
  const Line sip = daemon.Connect(kSip);
  const std::string request = CsRequest(7);
  const std::string list = ListRequest(FrameKind::CS_LIST_REQUEST, 7, 512);
  const Line cm = daemon.Connect(kCm);
  const Line cc = daemon.Connect(kCc);
  const std::string rtp = ListRequest(FrameKind::RTP_REQUEST, 7, 512, CA_PROTO_CC);
  const std::string close = CloseRequest(7);
  sip.Call(request);
  const double busy = daemon.Busy();
  const Clock::time_point begin = Clock::now();
  u64 requests = 0;
  for (; Micros(Clock::now() - begin) < seconds * 1e6; ++requests) {
    if (what == "pipelined") {
      Pipeline(sip, request, 1000);
      requests += 999;
    } else if (what == "rtp") {
      cc.Call(rtp);
      cc.Send(close);
    } else {
      sip.Call(what == "list" ? list : request);
    }
  }
  std::printf("%lu requests, %.2f us of the processor each\n", static_cast<unsigned long>(requests),
              (daemon.Busy() - busy) / static_cast<double>(requests));
}

}  // namespace

int main(int argc, char** argv) {
  try {
    EnterOwnNetwork();
    StayOnCore(kCore);
    if (argc > 2 && std::strcmp(argv[1], "--trace") == 0) {
      Trace(std::strtod(argv[2], nullptr), argc > 3 ? argv[3] : "");
      return 0;
    }
    Figures figures;
    const std::pair<const char*, Measurement (*)()> all[] = {
        {"round-trip", RoundTrip}, {"pipelined", Pipelined}, {"items", Items}, {"rules", Rules},
        {"fairness", Fairness},    {"memory", Memory},       {"start", Start}};
    for (const auto& [name, measure] : all) {
      if (argc < 2 || std::strcmp(argv[1], name) == 0) {
        figures.Add(measure);
      }
    }
    return figures.Status();
  } catch (const std::exception& fault) {
    std::fprintf(stderr, "signalling: %s\n", fault.what());
    return 2;
  }
}
