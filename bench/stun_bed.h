#pragma once

#include <sys/types.h>

#include <string>

// A device behind a NAT, in network namespaces of its own, and a real STUN server beyond it:
//
//   device 10.77.0.2 -- 10.77.0.1 router 203.0.113.2 -- 203.0.113.1 inet
//
// Needs root, nft, ip and turnserver; what goes wrong throws std::runtime_error. All of it is gone with the object.
class StunBed {
 public:
  // The calling thread, and what it starts from then on, is on the device.
  StunBed();
  // Moves the thread back; to be called on the same one.
  ~StunBed();
  StunBed(const StunBed&) = delete;
  StunBed& operator=(const StunBed&) = delete;

  static constexpr const char* kDevice = "10.77.0.2";
  static constexpr const char* kServer = "203.0.113.1";
  static constexpr const char* kPort = "3478";

  // How many of 100 packets the router loses each way.
  void Lose(int percent);

 private:
  void BuildNetwork();
  void RunServer();
  void TearDown();

  const int m_home;  // the namespace of before
  const std::string m_dev, m_rtr, m_inet;
  std::string m_directory;
  pid_t m_server = -1;
};
