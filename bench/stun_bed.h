#pragma once

#include <sys/types.h>

#include <chrono>
#include <optional>
#include <string>

#include "bench/delay_relay.h"

struct PacketCount {
  unsigned long out = 0;
  unsigned long in = 0;
};

// A device behind a NAT, in network namespaces of its own, and a real STUN server beyond it:
//
//   device 10.77.0.2 -- 10.77.0.1 router 203.0.113.2 -- 203.0.113.1 inet
//
// Needs root, nft, ip and turnserver; what goes wrong throws std::runtime_error. All of it is gone with the object.
class StunBed {
 public:
  // The calling thread, and what it starts from then on, is on the device. A packet takes `delay` from the router to
  // the server, and as long back.
  explicit StunBed(std::chrono::milliseconds delay = {});
  // Moves the thread back; to be called on the same one.
  ~StunBed();
  StunBed(const StunBed&) = delete;
  StunBed& operator=(const StunBed&) = delete;

  static constexpr const char* kDevice = "10.77.0.2";
  static constexpr const char* kServer = "203.0.113.1";
  static constexpr const char* kPort = "3478";

  // How many of 100 packets the router loses each way, and how many requests it lets pass in a second (0: all).
  void Spoil(int lossPercent, int requestsPerSecond);

  // What the device has sent and received so far. On its thread.
  PacketCount Packets() const;

 private:
  void BuildNetwork();
  void Interpose();
  void RunServer();
  void TearDown();

  const int m_home;  // the namespace of before
  const std::chrono::milliseconds m_delay;
  const std::string m_dev, m_rtr, m_inet, m_between;
  std::optional<DelayRelay> m_relay;
  std::string m_directory;
  pid_t m_server = -1;
};
