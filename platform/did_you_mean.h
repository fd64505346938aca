#pragma once

#include <span>
#include <string>
#include <string_view>

// The known word that a person most likely meant; empty when none is near. Counts letters that are wrong, missing, too
// many or swapped with their neighbour; case counts too. Of words equally near, the first.
std::string_view NearestWord(std::string_view word, std::span<const std::string_view> known);

// "; did you mean 'cs'?" for the end of an error, or an empty text.
std::string DidYouMean(std::string_view word, std::span<const std::string_view> known);
