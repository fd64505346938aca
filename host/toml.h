#pragma once

// The one place that includes the TOML library, so that every file sees it configured alike: a parse gives a result,
// nothing throws.
#define TOML_EXCEPTIONS 0
#include <toml++/toml.h>
