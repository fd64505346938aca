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

u32 NatExcTable::IsExcluded(u32 address) {
  ScopedLock guard(lock);
  const bool matched = std::any_of(rules.begin(), rules.end(), [address](const NatExcEntry& rule) {
    return (rule.ip & rule.mask) == (address & rule.mask);
  });
  return matched ? 1 : 0;
}
