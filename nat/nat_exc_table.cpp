#include "nat/nat_exc_table.h"

#include <algorithm>

NatExcTable::~NatExcTable() {
  ScopedLock guard(lock);
  Clear();
}

void NatExcTable::SetTable(const std::list<NatExcEntry>& entries) {
  ScopedLock guard(lock);
  Clear();
  rules.insert(rules.end(), entries.begin(), entries.end());
}

u32 NatExcTable::IsExcluded(u32 address) { return Find(address) ? 1 : 0; }

std::optional<NatExcEntry> NatExcTable::Find(u32 address) {
  ScopedLock guard(lock);
  const auto found = std::find_if(rules.begin(), rules.end(), [address](const NatExcEntry& rule) {
    return (rule.ip & rule.mask) == (address & rule.mask);
  });
  return found == rules.end() ? std::nullopt : std::optional(*found);
}

std::size_t NatExcTable::Size() {
  ScopedLock guard(lock);
  return rules.size();
}

std::size_t NatExcTable::Copy(std::size_t from, std::span<NatExcEntry> to) {
  ScopedLock guard(lock);
  const std::size_t begin = std::min(from, rules.size());
  const std::size_t count = std::min(to.size(), rules.size() - begin);
  std::copy_n(rules.begin() + static_cast<std::ptrdiff_t>(begin), count, to.begin());
  return count;
}
