#pragma once

#include <condition_variable>
#include <deque>
#include <functional>
#include <map>
#include <mutex>
#include <optional>
#include <set>
#include <sstream>
#include <thread>

#include "nat/nat_records.h"
#include "platform/stunutils/stun_manager.h"
#include "platform/vxnetutils/bsd_socket.h"

// The device under the agent, played by the tests: what the platform answers is scripted here, and every call that
// leaves the agent is kept in one journal, in order. Any thread. Waits have a deadline, after which they report false.
namespace fake {

inline constexpr int kAll = 1'000'000;

using Strings = std::vector<std::string>;
using Route = std::pair<u32, u32>;  // the interface's address, the gateway

// What a party sends.
struct Message {
  enum Kind { CONNECT, HANG_UP, CS, CS_LIST, RTP, REVERSE, CLOSE };
  Kind kind = CONNECT;
  u64 id = 0;
  std::string destination{};
  std::list<NatItem> items{};
  u32 value = 9;
  NatPortType portType = NATPORT_UDP;
};

// What a test has scripted, and what has come of it.
struct Script {
  Strings journal;  // "kind what"; kinds: log4 log0 log logfile stun stunlogger send notice poll thread route lookup
  std::string hookText;  // `hook` is called, once, on the thread that logs this text, after it is logged
  std::function<void()> hook;

  std::map<u32, std::deque<Message>> messages;  // by queue
  std::deque<int> events;                       // queues that are reported to the poller
  std::set<u32> online;                         // parties that are there
  struct Kept {
    std::size_t requests = 0;
    std::size_t bytes = 0;
  };
  std::map<u32, Kept> kept;      // what waits, by queue; also of gone parties,
  std::size_t mayBeLeft = 1024;  // of which so many requests may wait
  bool released = false;

  std::map<u32, std::optional<Route>> routes;  // by destination, 0 being the uplink
  std::optional<Route> otherRoutes;
  int routesThrow = 0;   // so many look-ups want for memory
  int routeChanges = 0;  // each lets NotifyRouteChange return once
  bool watchStopped = false;
  std::vector<InterfaceInfo> interfaces;
  std::map<std::string, u32> hosts;
  int lookUpsToReturn = kAll;  // further ones do not return, except that a stop request ends them with 0
  bool lookUpsIgnoreStop = false;

  bool stunStarts = true;
  std::map<u16, std::pair<u32, u16>> stunPorts;                  // their public sides
  std::pair<StunManager::ChangedPortsCallback, void*> callback;  // with its context

  int threadsAsked = 0;
  std::set<int> refusedThreads;  // counted from 1: the agent's own, the uplink watch, the resolver
  bool giveUpWaits = false;      // waiting for a worker (1000 ms) gives up at once, as if the time had passed
};

struct State : Script {
  std::mutex mutex;
  std::condition_variable_any changed;
  bool logHeld = false;
  bool waiting = false;                // the main loop
  std::vector<std::thread> abandoned;  // nobody waits for them any more
};

// The device, locked for as long as this object lives; whoever waits for a change then looks again.
class Device {
 public:
  Device();
  ~Device() { m_state.changed.notify_all(); }
  State* operator->() { return &m_state; }
  std::unique_lock<std::mutex>& Lock() { return m_lock; }

 private:
  State& m_state;
  std::unique_lock<std::mutex> m_lock;
};

template <class... Parts>
void Record(const Parts&... parts) {
  std::ostringstream text;
  text << std::boolalpha;
  (text << ... << parts);
  Device()->journal.push_back(text.str());
}

void Reset();  // a new script

// The journal's entries of these kinds; Take empties it, too.
Strings Calls(std::initializer_list<std::string> kinds);
Strings Take(std::initializer_list<std::string> kinds);
std::string Log();  // every text, one after the other
void OnLog(const std::string& text, std::function<void()> then);

bool WaitForCall(const std::string& entry, int times = 1);  // in the journal
bool WaitUntilIdle();  // until the main loop waits and nothing is left for it to do
void JoinAbandonedThreads();

void ReportChangedPorts(std::list<std::pair<u16, u16>> ports);  // as STUN does

}  // namespace fake
