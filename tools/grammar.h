#pragma once

#include <array>
#include <span>
#include <string>
#include <string_view>

#include "tools/command.h"

// What the words after a command's name may be, and what the help says of it. Which words are allowed is named; what
// is not named is not.
struct Grammar {
  std::string_view name;
  CommandKind kind;
  std::string_view words;    // of the usage line
  std::string_view summary;  // one line
  enum class Place { ANYWHERE, RUN, COMMAND_LINE } place = Place::ANYWHERE;
  bool party = false;
  bool destination = false;
  unsigned mostItems = 0;
  bool portType = false;
  bool id = false;
  bool value = false;
  bool server = false;
  bool nowait = false;
  struct Option {
    std::string_view name;   // with its dashes
    std::string_view value;  // empty: the option takes none
    std::string_view help;
  };
  std::array<Option, 2> options{};  // of its own, beside natctl's; the rest is empty
};

std::span<const Grammar> Grammars();
const Grammar* FindGrammar(std::string_view name);  // null: no such command

// Of any command; null: there is none.
const Grammar::Option* FindOption(std::string_view name);

// "; did you mean 'cs'?", or nothing.
std::string DidYouMeanCommand(std::string_view name);

// "Usage: natctl [OPTIONS] cs PARTY DEST ...", without a line end.
std::string UsageOf(const Grammar& grammar);

// What `natctl help COMMAND` prints.
std::string HelpOf(const Grammar& grammar);

// The commands with a line or two each, for the help of natctl itself.
std::string CommandList();
