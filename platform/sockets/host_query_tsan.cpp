// Look-ups for builds with the thread sanitizer, which cannot bear threads that the C library starts behind its back: a
// thread started here, whose function is the C library's own gethostbyname. Look-ups then wait for each other, those
// that were given up included.

#include "platform/sockets/sanitizers.h"

#ifdef NAT_THREAD_SANITIZER
#include <netdb.h>
#include <pthread.h>

#include <cstdlib>
#include <cstring>
#include <ctime>
#include <memory>

#include "platform/sockets/host_query.h"

namespace sockets {

struct HostQuery {
  pthread_t thread{};
  char* name = nullptr;
  const hostent* found = nullptr;
};

HostQuery* BeginQuery(const char* name) {
  auto query = std::make_unique<HostQuery>();
  query->name = ::strdup(name);
  // One pointer in, one pointer out: called the same way on every system that has the C library.
  auto* const function = reinterpret_cast<void* (*)(void*)>(reinterpret_cast<void (*)()>(&::gethostbyname));
  if (query->name == nullptr || ::pthread_create(&query->thread, nullptr, function, query->name) != 0) {
    std::free(query->name);
    return nullptr;
  }
  return query.release();
}

bool AwaitQuery(HostQuery* query, std::chrono::milliseconds time) {
  timespec end{};
  ::clock_gettime(CLOCK_REALTIME, &end);
  end.tv_nsec += time.count() * 1'000'000;
  end.tv_sec += end.tv_nsec / 1'000'000'000;
  end.tv_nsec %= 1'000'000'000;
  void* found = nullptr;
  const bool ended = ::pthread_timedjoin_np(query->thread, &found, &end) == 0;
  query->found = static_cast<const hostent*>(found);
  return ended;
}

std::vector<u32> FinishQuery(HostQuery* query) {
  const std::unique_ptr<HostQuery> owned(query);
  std::vector<u32> addresses;
  if (query->found != nullptr && query->found->h_addrtype == AF_INET) {
    for (char** entry = query->found->h_addr_list; *entry != nullptr; ++entry) {
      std::memcpy(&addresses.emplace_back(), *entry, sizeof(u32));
    }
  }
  std::free(query->name);
  return addresses;
}

// The thread still reads the name, so the name stays.
void AbandonQuery(HostQuery* query) {
  ::pthread_detach(query->thread);
  delete query;
}

}  // namespace sockets
#endif
