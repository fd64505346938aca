#include "platform/stunutils/random.h"

#include <sys/random.h>

#include <algorithm>
#include <array>
#include <random>

namespace stun {

u32 KernelRandom() {
  static thread_local std::array<u32, 64> s_bits;
  static thread_local std::size_t s_left = 0;
  if (s_left == 0) {
    // Requests of up to 256 bytes are neither cut short nor interrupted.
    if (::getrandom(s_bits.data(), sizeof(s_bits), 0) != static_cast<ssize_t>(sizeof(s_bits))) {
      std::random_device other;
      std::generate(s_bits.begin(), s_bits.end(), std::ref(other));
    }
    s_left = s_bits.size();
  }
  return s_bits[--s_left];
}

TransactionId NewTransactionId(const Random& random) {
  TransactionId id;
  for (auto at = id.begin(); at != id.end(); at += sizeof(u32)) {
    const u32 bits = random();
    std::copy_n(reinterpret_cast<const u8*>(&bits), sizeof(bits), at);
  }
  return id;
}

}  // namespace stun
