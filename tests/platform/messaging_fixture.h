#pragma once

#include <gtest/gtest.h>
#include <stdlib.h>
#include <sys/socket.h>

#include <chrono>
#include <condition_variable>
#include <filesystem>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <sstream>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "client/natclient.h"
#include "platform/messaging/cfg_update_messenger.h"
#include "platform/messaging/cgi_messenger.h"
#include "platform/messaging/cyclic_queue_poller.h"
#include "platform/messaging/frame.h"
#include "platform/messaging/nat_messenger.h"
#include "tests/platform/captured_journal.h"

namespace messaging_test {

using std::chrono::milliseconds;
using Lines = std::vector<std::string>;

template <class... Words>
std::string Line(const Words&... words) {
  std::ostringstream text;
  ((text << (text.tellp() > 0 ? " " : "") << words), ...);
  return text.str();
}

// A call agent's channel that writes down what it was called with and answers at once.
class Channel : public NatMessenger {
 public:
  using NatMessenger::NatMessenger;

  std::vector<bool> states;
  Lines requests;  // the kind, the id, then what the kind has; of lists the length

 protected:
  bool OnPartyStateChanged(bool online) override {
    EXPECT_EQ(IsPartyOnline(), online);
    states.push_back(online);
    return true;
  }
  u32 OnRequestCSNatMapping(const u64& id, const std::string& destination, const std::list<NatItem>& items,
                            const u32& value) override {
    requests.push_back(Line("cs-list", id, destination, items.size(), value));
    return ResponseCSNatMapping(id, Answers(items), value);
  }
  u32 OnRequestCSNatMapping(const u64& id, const std::string& destination, const NatItem& item,
                            const NatPortType& portType, const u32& value) override {
    requests.push_back(Line("cs", id, destination, item.port, portType, value));
    return ResponseCSNatMapping(id, item, NATFLAG_MAPPED, value);
  }
  u32 OnRequestRTPNatMapping(const u64& id, const std::string& destination, const std::list<NatItem>& items,
                             const u32& csProto) override {
    requests.push_back(Line("rtp", id, destination, items.size(), csProto));
    return ResponseRTPNatMapping(id, Answers(items), csProto);
  }
  u32 OnRequestReverceRTPNatMapping(const u64& id, const std::list<NatItem>& items, const u32& value) override {
    requests.push_back(Line("reverse", id, items.size(), value));
    return ResponseReverceRTPNatMapping(id, Answers(items), 0);
  }
  u32 OnCloseRTPNatMapping(const u64& id) override {
    requests.push_back(Line("close", id));
    return 0;
  }

 private:
  static std::list<NatRespItem> Answers(const std::list<NatItem>& items) {
    return std::list<NatRespItem>(items.size(), {1, 2, 0, 3, 9, 0, NATFLAG_MAPPED});
  }
};

// The CGI party's channel: acknowledges every update with value 1.
class CgiChannel : public CGIMessenger {
 public:
  CgiChannel() : CGIMessenger(NATCLIENT_CGI) {}

  Lines updates;  // the type, then the strings

 protected:
  int OnUpdate(UpdateType type, const std::list<std::string>& texts, unsigned) override {
    updates.push_back(Line(static_cast<u32>(type)));
    for (const std::string& text : texts) updates.back() += " " + text;
    return Update(type, texts, 1);
  }
};

// The queues of an agent and its loop, driven by the test.
class Loop {
 public:
  Channel& Open(int queue) {
    auto& channel = m_channels[queue] = std::make_unique<Channel>(static_cast<u32>(queue));
    EXPECT_TRUE(poller.SelectQueue(queue, "/", true, false));
    return *channel;
  }
  CgiChannel& OpenCgi() {
    m_cgi = std::make_unique<CgiChannel>();
    EXPECT_TRUE(poller.SelectQueue(NATCLIENT_CGI, "/", true, true));
    return *m_cgi;
  }

  // The queue of the next event, which is processed; -1 when none came in time.
  int Step(milliseconds patience = std::chrono::seconds(10)) {
    const std::jthread alarm([&](const std::stop_token& stop) {
      std::mutex mutex;
      std::unique_lock lock(mutex);
      std::condition_variable_any().wait_for(lock, stop, patience, [] { return false; });
      if (!stop.stop_requested()) poller.Release();
    });
    const int number = poller.WaitForEvents();
    if (number == NATCLIENT_CGI) m_cgi->ProcessMessageFromQueue(1);
    if (m_channels.contains(number)) {
      do {
        m_channels[number]->ProcessMessageFromQueue(1);
      } while (m_channels[number]->HasMore());
    }
    return number;
  }
  bool IsIdle() { return Step(milliseconds(50)) == -1; }
  void RunUntil(const std::function<bool()>& done) {
    while (!done()) ASSERT_NE(Step(), -1);
  }
  // Processes, without waiting, until nothing is ready.
  void Settle() {
    for (bool busy = true; busy;) {
      busy = m_cgi && m_cgi->ProcessMessageFromQueue(1);
      for (auto& [number, channel] : m_channels) busy |= channel->ProcessMessageFromQueue(1);
    }
  }

  CyclicQueuePoller poller{56};

 private:
  std::map<int, std::unique_ptr<Channel>> m_channels;
  std::unique_ptr<CgiChannel> m_cgi;
};

// A party, on the client library, that writes down what it is told.
class Party {
 public:
  explicit Party(natclient_party queue) { EXPECT_EQ(natclient_open(&m_client, nullptr, queue, 0), 0); }
  ~Party() { natclient_close(m_client); }
  Party(const Party&) = delete;
  Party& operator=(const Party&) = delete;
  operator natclient*() const { return m_client; }

  int Cs(u64 id) {
    const natclient_item item{0x0100000A, 5060, 0};
    return natclient_request_cs(m_client, id, "pbx", &item, NATCLIENT_TLS, 3);
  }
  int Close(u64 id) { return natclient_request_close(m_client, id); }
  void SendBytes(const std::string& packet) {
    EXPECT_GE(::send(natclient_fd(m_client), packet.data(), packet.size(), MSG_DONTWAIT), 0);
  }

  // What has come, the kind and what the kind has; of lists the length and the last mapped port.
  Lines Told() {
    natclient_handlers handlers{};
    handlers.welcome = [](void* self) { Note(self, "welcome"); };
    handlers.cs = [](void* self, uint64_t id, const natclient_item* mapped, uint32_t flag, uint32_t value) {
      Note(self, "cs", id, mapped->port, flag, value);
    };
    handlers.cs_list = handlers.rtp = handlers.reverse = [](void* self, uint64_t id, const natclient_answer_item* items,
                                                            size_t count, uint32_t value) {
      Note(self, "list", id, count, count > 0 ? items[count - 1].mapped_port : 0, value);
    };
    handlers.update = [](void* self, uint64_t id, uint32_t type, uint32_t value) {
      Note(self, "update", id, type, value);
    };
    handlers.notice = [](void* self, uint32_t type, const char* const* texts, size_t count) {
      Note(self, "notice", type, count, count > 0 ? texts[0] : "");
    };
    handlers.refused = [](void* self, uint64_t id, uint32_t reason, const char* text) {
      Note(self, *text != '\0' ? "refused" : "refused without a word", id, reason);
    };
    handlers.hang_up = [](void* self) { Note(self, "hang_up"); };
    result = natclient_dispatch(m_client, &handlers, this);
    return std::exchange(m_told, {});
  }
  int result = 0;  // of the last dispatch

 private:
  template <class... Words>
  static void Note(void* self, const Words&... words) {
    static_cast<Party*>(self)->m_told.push_back(Line(words...));
  }
  natclient* m_client = nullptr;
  Lines m_told;
};

// Any thread.
inline void Notify(u32 type, const std::list<std::string>& texts = {}) {
  CfgUpdateMessenger(0).SendMessageA(static_cast<UpdateType>(type), texts, false);
}

// A runtime directory of its own for each test, and an agent's loop in it.
class MessagingTest : public testing::Test {
 protected:
  MessagingTest() { ::setenv("NATAGENT_RUNTIME_DIR", m_dir.c_str(), 1); }
  ~MessagingTest() override { std::filesystem::remove_all(m_dir); }

  // What the journal got while it ran.
  static std::string Journal(const std::function<void()>& action) {
    testing::internal::CaptureStderr();
    action();
    return CapturedJournal();
  }

  char m_name[28] = "/tmp/natagent-test-XXXXXX";
  const std::string m_dir = ::mkdtemp(m_name);
  std::optional<Loop> m_loop{std::in_place};
};

}  // namespace messaging_test
