// The main function of a fuzzer in a build without libFuzzer: runs every file of the directories that are named.

#include <exception>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <vector>

#include "tests/fuzz/fuzz.h"

int main(int argc, char** argv) {
  try {
    int inputs = 0;
    for (int i = 1; i < argc; ++i) {
      for (const auto& entry : std::filesystem::directory_iterator(argv[i])) {
        std::ifstream file(entry.path(), std::ios::binary);
        const std::vector<char> bytes{std::istreambuf_iterator<char>(file), {}};
        fuzz::Require(!file.bad() && file.is_open(), entry.path().c_str());
        // The last line before a crash names the input.
        std::printf("%s\n", entry.path().c_str());
        std::fflush(stdout);
        LLVMFuzzerTestOneInput(reinterpret_cast<const std::uint8_t*>(bytes.data()), bytes.size());
        ++inputs;
      }
    }
    std::printf("%d inputs\n", inputs);
    return inputs > 0 ? 0 : 1;
  } catch (const std::exception& failure) {
    std::fprintf(stderr, "%s\n", failure.what());
    return 1;
  }
}
