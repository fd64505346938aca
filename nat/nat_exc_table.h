#pragma once

#include <cstddef>
#include <list>
#include <optional>
#include <span>
#include <vector>

#include "platform/thread_safety.h"
#include "platform/types.h"
#include "platform/vxsysutils/thread_mutex.h"

// A network reached without translation. Network byte order; neither host bits nor the mask's shape are checked.
struct NatExcEntry {
  u32 ip = 0;
  u32 mask = 0;
};

// The NAT exclusion table. Any thread: a look-up sees the old rules or the new ones, never a mixture. Which rule
// matches makes no difference, so a look-up is a search among ranges of addresses, whatever the number of rules.
class NatExcTable {
 public:
  NatExcTable() = default;
  virtual ~NatExcTable() = default;
  NatExcTable(const NatExcTable&) = delete;
  NatExcTable& operator=(const NatExcTable&) = delete;

  // Replaces every rule by the given ones.
  void SetTable(const std::list<NatExcEntry>& entries) NAT_EXCLUDES(lock);

  // 1 when a rule matches the address, else 0.
  u32 IsExcluded(u32 address) NAT_EXCLUDES(lock);

  // The first rule that matches.
  std::optional<NatExcEntry> Find(u32 address) NAT_EXCLUDES(lock);
  std::size_t Size() NAT_EXCLUDES(lock);
  // Copies rules from the one of this number on; how many.
  std::size_t Copy(std::size_t from, std::span<NatExcEntry> to) NAT_EXCLUDES(lock);

 private:
  // The addresses of a rule, or of several that meet, in host byte order.
  struct Range {
    u32 first = 0;
    u32 last = 0;
  };
  static std::vector<Range> Merged(std::vector<Range> found);

  ThreadMutex lock;
  std::vector<NatExcEntry> rules NAT_GUARDED_BY(lock);   // as given, for those who ask which one matches
  std::vector<Range> ranges NAT_GUARDED_BY(lock);        // in order, apart from each other
  std::vector<NatExcEntry> others NAT_GUARDED_BY(lock);  // the rules whose mask has holes
};
