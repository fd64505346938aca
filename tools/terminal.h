#pragma once

#include <string>
#include <string_view>

// What may be shown on a terminal: everything but printable ASCII comes out as \xNN, and so does every character of
// `also`. A text from a peer or a file cannot move the cursor, change colours or forge a line.
std::string Printable(std::string_view text, std::string_view also = {});

enum class Colour { NONE, GREEN, YELLOW, RED };

// The text in a colour, or as it is when colours are off.
std::string Coloured(std::string text, Colour colour, bool isOn);

// Whether the descriptor takes colours: it is a terminal, TERM is not "dumb", and NO_COLOR is not set to anything.
bool TakesColours(int fd);
