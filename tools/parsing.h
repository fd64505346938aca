#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "client/natclient.h"

// The words of the command line, each taken whole or not at all.

std::optional<std::uint64_t> ParseNumber(std::string_view word, std::uint64_t most);
std::optional<int> ParseMilliseconds(std::string_view seconds);  // "1", "0.5"; at most a day
std::optional<natclient_party> ParseParty(std::string_view word);
std::optional<natclient_item> ParseItem(std::string_view word);  // IP:PORT, dotted quad and 0..65535

const char* PartyName(natclient_party party);

// "10.77.0.2", from network byte order.
std::string AddressText(std::uint32_t ip);
