#pragma once

#include <cstdint>
#include <string>

#include "agent/host.h"

// The words in which natagentd reports what the agent knows. None is ever null.

const char* PartyWord(int queue);           // "sip"
int QueueOfParty(const std::string& word);  // 0: there is none
const char* KindWord(std::uint32_t kind);   // of a request: "cs-list"
const char* WhyWord(std::uint32_t why);     // NAT_WHY_...: "other local address"
const char* FlagWord(std::uint32_t flag);   // "mapped"
const char* FlagWordOfWhy(std::uint32_t why);
const char* RefusalWord(std::uint32_t reason);  // "queue taken"
const char* StunWord(std::uint32_t state);      // "works"
const char* NatWord(std::uint32_t nat);         // "same"
const char* LoadWord(std::uint32_t state);      // "loaded"

// "10.77.0.2", from network byte order.
std::string IpText(std::uint32_t address);
// "10.77.0.2:5060"; "unknown" without an address.
std::string EndpointText(const NatHostEndpoint& endpoint);
// "2026-11-23T11:15:19.250Z", from milliseconds since 1970.
std::string TimeText(std::int64_t time);
// The interface that has the address; empty when there is none.
std::string InterfaceOf(std::uint32_t address);
