// Several parties at once, each sending signalling requests as fast as the agent takes them. Counts that every one is
// answered exactly once and right. Usage: load_client RUNTIME_DIR REQUESTS_PER_PARTY
#include <arpa/inet.h>
#include <poll.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <vector>

#include "client/natclient.h"

namespace {

constexpr int kPatienceMs = 60000;

struct Party {
  const char* name = "";
  natclient* client = nullptr;
  std::size_t sent = 0;
  std::size_t answered = 0;
  std::vector<unsigned char> answers;  // how often each id was answered
  bool failed = false;
};

void Fail(Party& party, const char* what) {
  std::fprintf(stderr, "%s: %s\n", party.name, what);
  party.failed = true;
}

void OnCs(void* context, std::uint64_t id, const natclient_item*, std::uint32_t flag, std::uint32_t) {
  Party& party = *static_cast<Party*>(context);
  if (id >= party.answers.size() || party.answers[id]++ != 0) {
    Fail(party, "an answer to nothing, or a second one");
  }
  // Toward an address behind the router: the SIP agent's own port is mapped, everything else is not.
  const bool sip = party.name[0] == 's';
  const std::uint32_t expected = sip && id % 2 == 0 ? NATCLIENT_MAPPED : NATCLIENT_NO_MAPPING;
  if (flag != expected) {
    Fail(party, "a wrong answer");
  }
  ++party.answered;
}

void OnRefused(void* context, std::uint64_t, std::uint32_t, const char* text) {
  Fail(*static_cast<Party*>(context), text);
}

void OnHangUp(void* context) { Fail(*static_cast<Party*>(context), "hung up"); }

// Sends until the agent does not take more.
void SendSome(Party& party) {
  while (party.sent < party.answers.size()) {
    natclient_item item{};
    item.ip = inet_addr("10.77.0.2");
    item.port = party.sent % 2 == 0 ? 5060 : 5070;
    const int result = natclient_request_cs(party.client, party.sent, "198.51.100.9", &item, NATCLIENT_UDP, 0);
    if (result == -EAGAIN) {
      return;
    }
    if (result != 0) {
      Fail(party, natclient_strerror(result));
      return;
    }
    ++party.sent;
  }
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 3) {
    std::fprintf(stderr, "usage: load_client RUNTIME_DIR REQUESTS_PER_PARTY\n");
    return 2;
  }
  const std::size_t requests = std::strtoul(argv[2], nullptr, 10);
  std::array<Party, 3> parties;
  const std::array<std::pair<const char*, natclient_party>, 3> names = {
      {{"sip", NATCLIENT_SIP}, {"cm", NATCLIENT_CM}, {"cc", NATCLIENT_CC}}};
  for (std::size_t i = 0; i < parties.size(); ++i) {
    parties[i].name = names[i].first;
    parties[i].answers.resize(requests);
    const int result = natclient_open(&parties[i].client, argv[1], names[i].second, kPatienceMs);
    if (result != 0) {
      std::fprintf(stderr, "%s: %s\n", parties[i].name, natclient_strerror(result));
      return 1;
    }
  }
  natclient_handlers handlers{};
  handlers.cs = OnCs;
  handlers.refused = OnRefused;
  handlers.hang_up = OnHangUp;

  const auto open = [requests](const Party& party) { return !party.failed && party.answered < requests; };
  while (std::any_of(parties.begin(), parties.end(), open)) {
    std::array<pollfd, 3> fds{};
    for (std::size_t i = 0; i < parties.size(); ++i) {
      fds[i].fd = open(parties[i]) ? natclient_fd(parties[i].client) : -1;
      fds[i].events = POLLIN;
      if (parties[i].sent < requests) {
        fds[i].events |= POLLOUT;
      }
    }
    if (poll(fds.data(), fds.size(), kPatienceMs) <= 0) {
      std::fprintf(stderr, "no answer within %d ms\n", kPatienceMs);
      return 1;
    }
    for (std::size_t i = 0; i < parties.size(); ++i) {
      if ((fds[i].revents & POLLOUT) != 0) {
        SendSome(parties[i]);
      }
      if ((fds[i].revents & ~POLLOUT) != 0) {
        natclient_dispatch(parties[i].client, &handlers, &parties[i]);
      }
    }
  }
  bool failed = false;
  for (Party& party : parties) {
    std::printf("%s: %zu requests, %zu answers\n", party.name, party.sent, party.answered);
    failed = failed || party.failed || party.answered != requests;
    natclient_close(party.client);
  }
  return failed ? 1 : 0;
}
