#pragma once

// The one place that includes the TOML library, so that every file sees it configured alike: a parse gives a result,
// and an assertion of the library's that fails is thrown, in every kind of build, instead of ending the daemon.

#include <stdexcept>

struct TomlAssertion : std::logic_error {
  using std::logic_error::logic_error;
};

[[noreturn]] inline void ThrowTomlAssertion(const char* expression) { throw TomlAssertion(expression); }

#define TOML_EXCEPTIONS 0
#define TOML_ASSERT(expression) (static_cast<bool>(expression) ? void() : ThrowTomlAssertion(#expression))
#pragma push_macro("NDEBUG")
#undef NDEBUG  // with it the library lets the compiler assume what it asserts
#include <toml++/toml.h>
#pragma pop_macro("NDEBUG")
