#pragma once

#include <cstdint>

// The widths every record, message and table is described in. The device's `unsigned long` is 32 bits wide, so what
// it called that is a u32 here; only the exported entry points and thread functions keep the word itself.
using u8 = std::uint8_t;
using u16 = std::uint16_t;
using u32 = std::uint32_t;
using u64 = std::uint64_t;
