// Look-ups by the C library's own look-up threads (getaddrinfo_a).

#include "platform/sockets/host_query.h"

#include <netdb.h>
#include <netinet/in.h>

#include <ctime>
#include <memory>
#include <string>
#include <thread>

#include "platform/sockets/sanitizers.h"
#include "platform/thread_safety.h"
#include "platform/vxsysutils/thread_mutex.h"

#ifdef NAT_ADDRESS_SANITIZER
#include <sanitizer/lsan_interface.h>
#endif

#ifndef NAT_THREAD_SANITIZER
namespace sockets {

// The look-up thread reads the name and the hints and writes the result for as long as it works, so all of it lives on
// the heap, in one block that outlives the caller and even the library.
struct HostQuery {
  std::string name;
  addrinfo hints{};
  gaicb block{};
  HostQuery* next = nullptr;

  explicit HostQuery(const char* text) : name(text) {
    hints.ai_family = AF_INET;
    hints.ai_socktype = SOCK_STREAM;  // one entry an address
    block.ar_name = name.c_str();
    block.ar_request = &hints;
  }
  ~HostQuery() {
    if (block.ar_result != nullptr) {
      ::freeaddrinfo(block.ar_result);
    }
  }
  HostQuery(const HostQuery&) = delete;
  HostQuery& operator=(const HostQuery&) = delete;

  // Whether the C library holds nothing of the block any more. gai_error alone would not tell: it reads the result
  // without a lock, a moment before the look-up thread has let go of the block. A question not yet begun is withdrawn.
  bool Withdraw() { return ::gai_cancel(&block) != EAI_NOTCANCELED; }

  std::vector<u32> Addresses() const {
    std::vector<u32> addresses;
    for (const addrinfo* entry = block.ar_result; entry != nullptr; entry = entry->ai_next) {
      if (entry->ai_family == AF_INET) {
        addresses.push_back(reinterpret_cast<const sockaddr_in*>(entry->ai_addr)->sin_addr.s_addr);
      }
    }
    return addresses;
  }
};

namespace {

// Queries that were given up while the C library was at work on them, kept until it is done. Neither variable has a
// destructor: what is still at work when the library is unloaded stays allocated for good, since its thread cannot be
// stopped and would otherwise write into freed memory. That is one block for each look-up under way.
ThreadMutex s_mutex;
HostQuery* s_abandoned NAT_GUARDED_BY(s_mutex) = nullptr;

void FreeEnded() {
  const ScopedLock lock(s_mutex);
  for (HostQuery** link = &s_abandoned; *link != nullptr;) {
    HostQuery* const query = *link;
    if (query->Withdraw()) {
      *link = query->next;
      delete query;
    } else {
      link = &query->next;
    }
  }
}

}  // namespace

HostQuery* BeginQuery(const char* name) {
  FreeEnded();
  auto query = std::make_unique<HostQuery>(name);
  gaicb* list[] = {&query->block};
  return ::getaddrinfo_a(GAI_NOWAIT, list, 1, nullptr) == 0 ? query.release() : nullptr;
}

bool AwaitQuery(HostQuery* query, std::chrono::milliseconds time) {
  const gaicb* const waiting[] = {&query->block};
  const timespec limit{time.count() / 1000, time.count() % 1000 * 1'000'000};
  ::gai_suspend(waiting, 1, &limit);
  return ::gai_error(&query->block) != EAI_INPROGRESS;
}

std::vector<u32> FinishQuery(HostQuery* query) {
  const std::unique_ptr<HostQuery> owned(query);
  while (!query->Withdraw()) {
    std::this_thread::yield();
  }
  return query->Addresses();
}

void AbandonQuery(HostQuery* query) {
  if (query->Withdraw()) {
    delete query;
    return;
  }
#ifdef NAT_ADDRESS_SANITIZER
  // Once the library has gone nothing points to the block any more but the C library's thread.
  __lsan_ignore_object(query);
#endif
  const ScopedLock lock(s_mutex);
  query->next = s_abandoned;
  s_abandoned = query;
}

}  // namespace sockets
#endif
