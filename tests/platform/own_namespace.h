#pragma once

#include <gtest/gtest.h>
#include <sched.h>
#include <unistd.h>

#include <cstdlib>
#include <functional>
#include <string>
#include <thread>

// Runs a shell command in the namespaces of the calling thread; its failure fails the test.
inline void Sh(const std::string& command) {
  EXPECT_EQ(std::system(command.c_str()), 0) << command;  // NOLINT(cert-env33-c)
}

// Tests in network namespaces of their own; skipped without root.
class NamespaceTest : public testing::Test {
 protected:
  void SetUp() override {
    if (::geteuid() != 0) GTEST_SKIP() << "needs root";
  }

  // Runs the body on a thread in a new, empty network namespace, which goes with the last thread and socket in it.
  // Threads and programs started by the body are in it too.
  static void InOwnNetwork(const std::function<void()>& body) {
    std::thread([&body] {
      ASSERT_EQ(::unshare(CLONE_NEWNET), 0);
      body();
    }).join();
  }

  // Link <name>0 with the address, its other end <name>1 without one; both up.
  static void AddLink(const std::string& name, const std::string& address) {
    Sh("ip link add " + name + "0 type veth peer name " + name + "1 && ip addr add " + address + " dev " + name +
       "0 && ip link set " + name + "0 up && " + PlugIn(name));
  }

  // Commands that take the carrier from <name>0 by its other end, or give it back. The kernel lets the near end know on
  // a thread of its own, which they wait for.
  static std::string PlugIn(const std::string& name) {
    return "ip link set " + name + "1 up; until ip -br link show " + name +
           "0 | grep -q ' UP ' && ! ip route show dev " + name + "0 | grep -q linkdown; do :; done";
  }
  static std::string PullOut(const std::string& name) {
    return "ip link set " + name + "1 down; until ip -br link show " + name +
           "0 | grep -q LOWERLAYERDOWN && ip route show dev " + name + "0 | grep -q linkdown; do :; done";
  }
};
