#include "tools/parsing.h"

#include <arpa/inet.h>

#include <charconv>
#include <cmath>

namespace {

constexpr struct {
  const char* name;
  natclient_party party;
} kParties[] = {{"sip", NATCLIENT_SIP},
                {"q113", NATCLIENT_Q113},
                {"cm", NATCLIENT_CM},
                {"cc", NATCLIENT_CC},
                {"cgi", NATCLIENT_CGI}};

constexpr double kMaxSeconds = 86400;

}  // namespace

std::optional<std::uint64_t> ParseNumber(std::string_view word, std::uint64_t most) {
  std::uint64_t number = 0;
  const auto [end, error] = std::from_chars(word.data(), word.data() + word.size(), number);
  if (error != std::errc() || end != word.data() + word.size() || number > most) return std::nullopt;
  return number;
}

std::optional<int> ParseMilliseconds(std::string_view seconds) {
  double value = 0;
  const auto [end, error] =
      std::from_chars(seconds.data(), seconds.data() + seconds.size(), value, std::chars_format::fixed);
  if (error != std::errc() || end != seconds.data() + seconds.size()) return std::nullopt;
  if (!(value >= 0 && value <= kMaxSeconds)) return std::nullopt;  // so that a NaN fails too
  return static_cast<int>(std::lround(value * 1000));
}

std::optional<natclient_party> ParseParty(std::string_view word) {
  for (const auto& known : kParties) {
    if (word == known.name) return known.party;
  }
  return std::nullopt;
}

std::optional<natclient_item> ParseItem(std::string_view word) {
  const std::size_t colon = word.find(':');
  if (colon == std::string_view::npos || word.find('\0') != std::string_view::npos) return std::nullopt;
  in_addr ip{};
  if (::inet_pton(AF_INET, std::string(word.substr(0, colon)).c_str(), &ip) != 1) return std::nullopt;
  const auto port = ParseNumber(word.substr(colon + 1), 65535);
  if (!port) return std::nullopt;
  return natclient_item{ip.s_addr, static_cast<std::uint16_t>(*port), 0};
}

const char* PartyName(natclient_party party) {
  for (const auto& known : kParties) {
    if (party == known.party) return known.name;
  }
  return "?";
}

std::string AddressText(std::uint32_t ip) {
  char text[INET_ADDRSTRLEN];
  const in_addr address{ip};
  return ::inet_ntop(AF_INET, &address, text, sizeof text);
}
