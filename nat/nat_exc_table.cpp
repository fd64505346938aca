#include "nat/nat_exc_table.h"

#include <algorithm>
#include <bit>

namespace {

u32 HostOrder(u32 networkOrder) {
  return std::endian::native == std::endian::little ? __builtin_bswap32(networkOrder) : networkOrder;
}

// Ones followed by zeros only, in host byte order.
bool IsPrefix(u32 mask) { return (~mask & (~mask + 1)) == 0; }

}  // namespace

void NatExcTable::SetTable(const std::list<NatExcEntry>& entries) {
  std::vector<Range> prefixes;
  std::vector<NatExcEntry> withHoles;
  for (const NatExcEntry& entry : entries) {
    const u32 mask = HostOrder(entry.mask);
    if (IsPrefix(mask)) {
      const u32 first = HostOrder(entry.ip) & mask;
      prefixes.push_back({first, first | ~mask});
    } else {
      withHoles.push_back(entry);
    }
  }
  prefixes = Merged(std::move(prefixes));
  std::vector<NatExcEntry> all(entries.begin(), entries.end());
  ScopedLock guard(lock);
  rules.swap(all);
  ranges.swap(prefixes);
  others.swap(withHoles);
}

std::vector<NatExcTable::Range> NatExcTable::Merged(std::vector<Range> found) {
  std::sort(found.begin(), found.end(), [](const Range& a, const Range& b) { return a.first < b.first; });
  std::vector<Range> merged;
  for (const Range& range : found) {
    if (merged.empty() || range.first > merged.back().last) {
      merged.push_back(range);
    } else {
      merged.back().last = std::max(merged.back().last, range.last);
    }
  }
  return merged;
}

u32 NatExcTable::IsExcluded(u32 address) {
  const u32 sought = HostOrder(address);
  ScopedLock guard(lock);
  const auto behind = std::upper_bound(ranges.begin(), ranges.end(), sought,
                                       [](u32 value, const Range& range) { return value < range.first; });
  const bool matched = (behind != ranges.begin() && sought <= std::prev(behind)->last) ||
                       std::any_of(others.begin(), others.end(), [address](const NatExcEntry& rule) {
                         return (rule.ip & rule.mask) == (address & rule.mask);
                       });
  return matched ? 1 : 0;
}

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
