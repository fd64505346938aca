// The arithmetic of translations.

#include <arpa/inet.h>

#include <random>

#include "nat/nat_exc_table.h"
#include "nat/nat_mappings.h"
#include "tests/unit/support.h"

namespace {

TEST(PortRange, Translate) {
  const PortRange media{10000, 10099, kPublic, 20000, 20049};
  const PortRange wrapping{65000, 65535, kPublic, 65500, 65535};
  const PortRange backwards{200, 100, kPublic, 1000, 2000};
  const struct {
    PortRange range;
    u16 port;
    bool result;
    u32 mappedIp;
    u16 mappedPort;
  } cases[] = {
      {media, 9999, false, 99, 4711},  // left as it was
      {media, 10000, true, kPublic, 20000},  {media, 10049, true, kPublic, 20049},
      {media, 10050, false, kPublic, 20050},  // beyond the public end
      {media, 10099, false, kPublic, 20099}, {media, 10100, false, 99, 4711},
      {wrapping, 65036, true, kPublic, 0},  // modulo 65536
      {backwards, 150, false, 99, 4711},
  };
  for (const auto& test : cases) {
    SCOPED_TRACE(test.port);
    NatSetting setting{test.port, 4711, 99, 5, NATPORT_TCP};
    EXPECT_EQ(test.range.Translate(setting), test.result);
    EXPECT_EQ(setting.mappedIp, test.mappedIp);
    EXPECT_EQ(setting.mappedPort, test.mappedPort);
    // Of a mapping, nothing is left when there is no translation.
    NatMappings mappings;
    mappings.range = test.range;
    mappings.mode = MAP_STATIC;
    EXPECT_EQ(mappings.GetMapping(setting), test.result);
    EXPECT_EQ(setting.mappedIp, test.result ? kPublic : 0u);
    EXPECT_EQ(setting.mappedPort, test.result ? test.mappedPort : 0u);
  }
}

TEST(NatExcTable, MatchesWhatAnyRuleMatches) {
  std::mt19937 random(1);
  const auto network = [](u32 host) { return htonl(host); };
  std::list<NatExcEntry> rules;
  std::vector<u32> asked = {0, 0xFFFFFFFF};
  NatExcTable table;
  for (u32 i = 0; i < 300; ++i) {
    const u32 mask = i % 10 == 9 ? random() : ~u32{0} << (i % 20);  // with holes, too
    const u32 ip = random() & 0x0FFFFFFF;                           // near each other, with host bits
    rules.push_back({network(ip), network(mask)});
    for (const u32 edge : {ip & mask, ip | ~mask}) {
      for (const u32 address : {edge - 1, edge, edge + 1}) asked.push_back(network(address));
    }
    if (i % 50 != 0) continue;
    table.SetTable(rules);
    for (const u32 address : asked) {
      const bool matches = std::any_of(rules.begin(), rules.end(), [address](const NatExcEntry& rule) {
        return (rule.ip & rule.mask) == (address & rule.mask);
      });
      ASSERT_EQ(table.IsExcluded(address), matches ? 1U : 0U) << i << ' ' << address;
    }
  }
  table.SetTable({{0, 0}});
  EXPECT_EQ(table.IsExcluded(7), 1U);
  table.SetTable({});
  EXPECT_EQ(table.IsExcluded(7), 0U);
}

}  // namespace
