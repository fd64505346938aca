#pragma once

#include <cstddef>
#include <map>
#include <span>
#include <vector>

#include "agent/host.h"
#include "nat/nat_records.h"
#include "rtp/endpoint_table.h"

// The RTP translations handed out: per query id the public endpoints in the order they were handed out, and for each
// public endpoint the local one behind it. Unbounded; only DeleteRevTarget removes. The journal says when 10 000 ids
// are open, and each tenfold; again only after the number fell below half of that. Agent thread only.
class ReverseNatManager {
 public:
  ReverseNatManager() = default;
  virtual ~ReverseNatManager() = default;
  ReverseNatManager(const ReverseNatManager&) = delete;
  ReverseNatManager& operator=(const ReverseNatManager&) = delete;

  // Records the setting's public endpoint (mappedIp, mappedPort) under the query id. The local endpoint (localIp,
  // selfPort) recorded first for a public endpoint stays, whoever hands it out again.
  void AddRevTarget(const u64& queryId, const NatSetting& setting);

  // Fills localIp and selfPort of the public endpoint's translation; false, with the setting unchanged, without one.
  bool GetRevSettings(NatSetting& setting) const;

  // Ends the query id and every translation its endpoints have, also where another id was handed the same endpoint.
  // False when the id is not known.
  bool DeleteRevTarget(const u64& queryId);

  // Fills what was handed out, from the place on, in the order of the ids; moves the place and returns how many.
  std::size_t List(NatHostPlace& place, std::span<NatHostCall> rows) const;

  // How many query ids have translations.
  std::size_t OpenIds() const { return revTargets.size(); }

 private:
  static constexpr std::size_t kFirstManyIds = 10'000;

  void TellManyIds();

  std::map<u64, std::vector<NatItem>> revTargets;
  EndpointTable revMappings;              // public -> local
  std::size_t m_manyIds = kFirstManyIds;  // the number that the journal says next
};
