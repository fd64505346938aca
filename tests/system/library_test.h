#pragma once

// The library as a host loads it, with a configuration and parties.

#include <dlfcn.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <chrono>
#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <thread>

#include "client/natclient.h"
#include "nat/host_config.h"
#include "tests/system/left_behind.h"

// Two records; every reload changes to the other one, as a host does it: on its own thread, inside UpdateNatMain.
class Source final : public ConfigSource {
 public:
  Source() {
    for (std::size_t i = 0; i < m_nat.size(); ++i) {
      m_nat[i].gwInterface = "*";
      m_nat[i].sipUdpPort = 5060;
      m_nat[i].sipUdpPublicIp = kPublicIps[i];
      m_nat[i].sipUdpPublicPort = kPublicPorts[i];
      m_config[i] = {&m_media, &m_nat[i]};
    }
  }
  void ChangeOnNextReload() { m_change = true; }

  HostConfig* GetConfig() override {
    if (std::this_thread::get_id() == m_host && m_change) {
      m_current = 1 - m_current;
      m_change = false;
    }
    return &m_config[m_current];
  }

  static constexpr std::array<std::uint32_t, 2> kPublicIps = {0x077100CB, 0x087100CB};  // 203.0.113.7 and .8
  static constexpr std::array<std::uint16_t, 2> kPublicPorts = {15060, 25060};

 private:
  const std::thread::id m_host = std::this_thread::get_id();
  bool m_change = false;  // host thread only
  std::size_t m_current = 0;
  MediaConfig m_media;
  std::array<NatConfig, 2> m_nat;
  std::array<HostConfig, 2> m_config;
};

class LibraryTest : public testing::Test {
 protected:
  void SetUp() override {
    char name[] = "/tmp/natagent-lifecycle-XXXXXX";
    ASSERT_NE(::mkdtemp(name), nullptr);
    m_directory = name;
    ::setenv("NATAGENT_RUNTIME_DIR", name, 1);
    ::setenv("NATAGENT_LOG_DIR", name, 1);
    Load();
  }
  void TearDown() override {
    Unload();
    std::filesystem::remove_all(m_directory);
  }

  void Load() {
    m_library = ::dlopen(NATAGENT_LIBRARY, RTLD_NOW | RTLD_LOCAL);
    ASSERT_NE(m_library, nullptr) << ::dlerror();
    m_start = reinterpret_cast<void (*)(void*)>(::dlsym(m_library, "NatMain"));
    m_stop = reinterpret_cast<void (*)()>(::dlsym(m_library, "StopNatMain"));
    m_update = reinterpret_cast<void (*)(unsigned short)>(::dlsym(m_library, "UpdateNatMain"));
    ASSERT_TRUE(m_start != nullptr && m_stop != nullptr && m_update != nullptr);
  }
  void Unload() {
    if (m_library != nullptr) {
      EXPECT_EQ(::dlclose(m_library), 0);
      m_library = nullptr;
    }
  }

  // A connected party; waits until the agent's queues are there and it is welcomed.
  natclient* Connect(natclient_party party) {
    natclient* client = nullptr;
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(kPatienceMs);
    int result = 0;
    do {
      result = natclient_open(&client, m_directory.c_str(), party, kPatienceMs);
    } while ((result == -ENOENT || result == -ECONNREFUSED || result == -ECONNRESET) &&
             std::chrono::steady_clock::now() < deadline);
    EXPECT_EQ(result, 0) << natclient_strerror(result);
    return client;
  }

  static void Send(natclient* client, const char* destination, std::uint64_t id) {
    const natclient_item item{0x0100007F, 5060, 0};
    ASSERT_EQ(natclient_request_cs(client, id, destination, &item, NATCLIENT_UDP, 0), 0);
  }

  // One signalling request to an address of the machine itself: decided without any configuration.
  static void Ask(natclient* client, std::uint64_t id) {
    Send(client, "127.0.0.1", id);
    natclient_handlers handlers{};
    handlers.cs = [](void* context, std::uint64_t answered, const natclient_item*, std::uint32_t flag, std::uint32_t) {
      EXPECT_EQ(flag, NATCLIENT_NO_NEED_NAT);
      *static_cast<std::uint64_t*>(context) = answered;
    };
    std::uint64_t answered = id + 1;
    while (answered != id) {
      ASSERT_EQ(natclient_wait(client, kPatienceMs), 1);
      ASSERT_GE(natclient_dispatch(client, &handlers, &answered), 0);
    }
  }

  Source m_source;
  std::string m_directory;
  void* m_library = nullptr;
  void (*m_start)(void*) = nullptr;
  void (*m_stop)() = nullptr;
  void (*m_update)(unsigned short) = nullptr;
};

// A network that test_host.py makes: a default route, and a name server that never answers.
inline bool HasBed() { return std::getenv("NATAGENT_BED") != nullptr; }
