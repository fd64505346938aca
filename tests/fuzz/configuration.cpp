// The text of a configuration file.

#include "host/config_file.h"
#include "tests/fuzz/fuzz.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const ConfigResult result = ParseConfig(fuzz::Text(data, size), "file");
  fuzz::Require(result.settings.has_value() == result.errors.empty(), "settings, or errors");
  for (const std::string& error : result.errors) {
    fuzz::Require(error.starts_with("file:"), "an error names the file");
  }
  if (result.settings) {
    const ConfigResult again = ParseConfig(RenderConfig(result.values), "printed");
    fuzz::Require(again.settings && ChangesBetween(*result.settings, *again.settings) == 0, "printed settings hold");
  }
  return 0;
}
