#include "platform/did_you_mean.h"

#include <algorithm>
#include <array>

namespace {

constexpr std::size_t kLongest = 48;  // characters; far above any key or command
using Row = std::array<std::size_t, kLongest + 1>;

// The Damerau-Levenshtein distance, in the form that changes no letter twice. Both words are within kLongest.
std::size_t Distance(std::string_view a, std::string_view b) {
  Row rows[3];  // of the last two letters of `a`, and of the one at hand
  Row* before = &rows[0];
  Row* last = &rows[1];
  Row* row = &rows[2];
  for (std::size_t j = 0; j <= b.size(); ++j) {
    (*last)[j] = j;
  }
  for (std::size_t i = 1; i <= a.size(); ++i) {
    (*row)[0] = i;
    for (std::size_t j = 1; j <= b.size(); ++j) {
      const std::size_t replaced = (*last)[j - 1] + (a[i - 1] == b[j - 1] ? 0 : 1);
      (*row)[j] = std::min({(*last)[j] + 1, (*row)[j - 1] + 1, replaced});
      if (i > 1 && j > 1 && a[i - 1] == b[j - 2] && a[i - 2] == b[j - 1]) {
        (*row)[j] = std::min((*row)[j], (*before)[j - 2] + 1);
      }
    }
    std::swap(before, last);
    std::swap(last, row);
  }
  return (*last)[b.size()];
}

}  // namespace

std::string_view NearestWord(std::string_view word, std::span<const std::string_view> known) {
  std::string_view nearest;
  std::size_t least = 1 + std::max<std::size_t>(1, word.size() / 3);  // a third of the letters may be wrong
  for (const std::string_view each : known) {
    if (word.size() < 2 || word.size() > kLongest || each.size() > kLongest) {
      continue;
    }
    const std::size_t distance = Distance(word, each);
    if (distance < least) {
      least = distance;
      nearest = each;
    }
  }
  return nearest;
}

std::string DidYouMean(std::string_view word, std::span<const std::string_view> known) {
  const std::string_view nearest = NearestWord(word, known);
  return nearest.empty() ? std::string() : "; did you mean '" + std::string(nearest) + "'?";
}
