#include "host/status_words.h"

#include <arpa/inet.h>
#include <ifaddrs.h>
#include <netinet/in.h>

#include <algorithm>
#include <cstdio>
#include <ctime>
#include <iterator>
#include <memory>

#include "platform/messaging/runtime_dir.h"

namespace {

template <std::size_t kCount>
const char* Word(const char* const (&words)[kCount], std::uint32_t number) {
  return number < kCount && words[number] != nullptr ? words[number] : "unknown";
}

constexpr const char* kWhys[] = {
    nullptr,
    "configured",
    "learnt",
    "found",
    nullptr,
    nullptr,
    nullptr,
    nullptr,
    "attached network",
    "excluded",
    "call server not connected",
    "media settings not loaded",
    "media settings dropped",
    "interface without address",
    "other local address",
    "outside the RTP range",
    "not handed out",
    nullptr,
    nullptr,
    nullptr,
    "no route",
    "no destination",
    "port 0",
    "not a signalling party",
    "other port",
    "no public side",
    "above the public range",
    "not watched",
    "not learnt",
    "fault",
};
static_assert(std::size(kWhys) == NAT_WHY_FAULT + 1);

}  // namespace

const char* PartyWord(int queue) {
  const auto* const found = std::find_if(std::begin(messaging::kQueues), std::end(messaging::kQueues),
                                         [queue](const auto& each) { return each.number == queue; });
  return found == std::end(messaging::kQueues) ? "unknown" : found->party;
}

int QueueOfParty(const std::string& word) {
  const auto* const found = std::find_if(std::begin(messaging::kQueues), std::end(messaging::kQueues),
                                         [&word](const auto& each) { return each.party == word; });
  return found == std::end(messaging::kQueues) ? 0 : found->number;
}

const char* KindWord(std::uint32_t kind) {
  constexpr const char* kWords[] = {nullptr, "cs", "cs-list", "rtp", "reverse", "close", "update"};
  return Word(kWords, kind);
}

const char* WhyWord(std::uint32_t why) { return Word(kWhys, why); }

const char* FlagWord(std::uint32_t flag) {
  constexpr const char* kWords[] = {"no translation needed", "mapped", "no mapping known"};
  return Word(kWords, flag);
}

const char* FlagWordOfWhy(std::uint32_t why) {
  return FlagWord(why < NAT_WHY_ATTACHED ? 1 : why < NAT_WHY_NO_ROUTE ? 0 : 2);
}

const char* RefusalWord(std::uint32_t reason) {
  constexpr const char* kWords[] = {nullptr,     "queue taken", "bad header", "bad version", "bad kind",
                                    "bad count", "bad text",    "bad value",  "too long",    "not allowed"};
  return Word(kWords, reason);
}

const char* StunWord(std::uint32_t state) {
  constexpr const char* kWords[] = {"off", "waiting", "asking", "works", "doubted", "silent", "refusing"};
  return Word(kWords, state);
}

const char* NatWord(std::uint32_t nat) {
  constexpr const char* kWords[] = {"unknown", "same", "different"};
  return Word(kWords, nat);
}

const char* LoadWord(std::uint32_t state) {
  constexpr const char* kWords[] = {"not loaded", "loaded", "dropped by cm", "dropped by cc", "dropped by sip"};
  return Word(kWords, state);
}

std::string IpText(std::uint32_t address) {
  char text[INET_ADDRSTRLEN] = "";
  ::inet_ntop(AF_INET, &address, text, sizeof text);
  return text;
}

std::string EndpointText(const NatHostEndpoint& endpoint) {
  return endpoint.ip == 0 ? "unknown" : IpText(endpoint.ip) + ":" + std::to_string(endpoint.port);
}

std::string TimeText(std::int64_t time) {
  const std::time_t seconds = time / 1000;
  std::tm parts{};
  ::gmtime_r(&seconds, &parts);
  char text[40];
  const std::size_t length = std::strftime(text, sizeof text, "%Y-%m-%dT%H:%M:%S", &parts);
  std::snprintf(text + length, sizeof text - length, ".%03dZ", static_cast<int>(time % 1000));
  return text;
}

std::string InterfaceOf(std::uint32_t address) {
  ifaddrs* list = nullptr;
  if (address == 0 || ::getifaddrs(&list) != 0) {
    return {};
  }
  const std::unique_ptr<ifaddrs, decltype(&::freeifaddrs)> owned(list, ::freeifaddrs);
  for (const ifaddrs* each = list; each != nullptr; each = each->ifa_next) {
    if (each->ifa_addr != nullptr && each->ifa_addr->sa_family == AF_INET &&
        reinterpret_cast<const sockaddr_in*>(each->ifa_addr)->sin_addr.s_addr == address) {
      return each->ifa_name;
    }
  }
  return {};
}
