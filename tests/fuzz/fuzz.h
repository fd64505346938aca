#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <optional>
#include <string_view>

// Every fuzzer is this one function. libFuzzer calls it with inputs of its own, replay.cpp with those that are kept.
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);

namespace fuzz {

inline std::string_view Text(const std::uint8_t* data, std::size_t size) {
  return {reinterpret_cast<const char*>(data), size};
}

// Ends the program when something does not hold that must hold for every input, in builds without assertions too.
inline void Require(bool holds, const char* what) {
  if (!holds) {
    std::fprintf(stderr, "does not hold: %s\n", what);
    std::abort();
  }
}

// One of several packets that make up an input.
struct Packet {
  std::string_view bytes;
  bool isLast = false;  // of an answer of several packets
};

// The next packet: two bytes of length, 15 bits of them, in the host's order, then the bytes as far as there are any.
// The upper bit says that the next packet belongs to the same answer. Nothing when the input is at its end.
inline std::optional<Packet> TakePacket(std::string_view& input) {
  std::uint16_t head = 0;
  if (input.size() < sizeof head) {
    return std::nullopt;
  }
  std::memcpy(&head, input.data(), sizeof head);
  input.remove_prefix(sizeof head);
  const Packet packet{input.substr(0, head & 0x7FFFU), (head & 0x8000U) == 0};
  input.remove_prefix(packet.bytes.size());
  return packet;
}

}  // namespace fuzz
