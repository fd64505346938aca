#pragma once

#include <algorithm>
#include <chrono>
#include <cstddef>
#include <cstring>
#include <string_view>

#include "platform/types.h"

namespace journal {

using Clock = std::chrono::steady_clock;

// So many at once, then one in each interval.
template <int kAtOnce, int kIntervalMs>
class Rate {
 public:
  bool HasRoom(Clock::time_point now) const { return m_usedUntil - now <= kInterval * (kAtOnce - 1); }
  void Use(Clock::time_point now) { m_usedUntil = std::max(m_usedUntil, now) + kInterval; }
  Clock::time_point UsedUntil() const { return m_usedUntil; }

 private:
  static constexpr std::chrono::milliseconds kInterval{kIntervalMs};

  Clock::time_point m_usedUntil{};
};

// Which lines may be written, and how many were left out. Lines are equal when they differ in their numbers only. It
// knows the kinds of line that came last; whatever it forgets, the numbers left out are told. One thread at a time.
class LineLimit {
 public:
  // Whether the line may be written now.
  bool Admit(std::string_view line, Clock::time_point now) {
    Kind& kind = KindOf(line);
    if (!kind.rate.HasRoom(now)) {
      ++kind.leftOut;
      return false;
    }
    if (!m_all.HasRoom(now)) {
      ++m_leftOut;
      return false;
    }
    kind.rate.Use(now);
    m_all.Use(now);
    m_admitted = &kind;
    return true;
  }

  // To be called before an admitted line is written: hands what was left out of its kind, and of every other kind that
  // may be written again, to `tell(number, example)`; the example is empty for lines of several kinds. A number is
  // forgotten once `tell` returned true; after false nothing more is told.
  template <class Tell>
  void TellLeftOut(Clock::time_point now, const Tell& tell) {
    if (m_leftOut > 0 && m_several.HasRoom(now)) {
      if (!TellOne(m_leftOut, {}, tell)) {
        return;
      }
      m_several.Use(now);
    }
    for (Kind& kind : m_kinds) {
      if (kind.leftOut == 0 || (&kind != m_admitted && !kind.rate.HasRoom(now))) {
        continue;
      }
      if (!TellOne(kind.leftOut, {kind.example, kind.exampleSize}, tell)) {
        return;
      }
      if (&kind != m_admitted) {
        kind.rate.Use(now);
      }
    }
  }

 private:
  struct Kind {
    u64 hash = 0;
    Rate<20, 10'000> rate;
    u64 leftOut = 0;
    std::size_t exampleSize = 0;
    char example[160] = {};
  };

  template <class Tell>
  static bool TellOne(u64& number, std::string_view example, const Tell& tell) {
    if (number > 0 && !tell(number, example)) {
      return false;
    }
    number = 0;
    return true;
  }

  // FNV-1a, with every number taken as one zero.
  static u64 HashOf(std::string_view line) {
    u64 hash = 0xcbf29ce484222325;
    bool inNumber = false;
    for (const char c : line) {
      const bool digit = c >= '0' && c <= '9';
      if (!digit || !inNumber) {
        hash = (hash ^ static_cast<unsigned char>(digit ? '0' : c)) * 0x100000001b3;
      }
      inNumber = digit;
    }
    return hash;
  }

  // The line's kind; a new one takes the place of the kind that has rested longest.
  Kind& KindOf(std::string_view line) {
    const u64 hash = HashOf(line);
    Kind* oldest = &m_kinds[0];
    for (Kind& kind : m_kinds) {
      if (kind.hash == hash) {
        return kind;
      }
      if (kind.rate.UsedUntil() < oldest->rate.UsedUntil()) {
        oldest = &kind;
      }
    }
    m_leftOut += oldest->leftOut;
    *oldest = Kind();
    oldest->hash = hash;
    oldest->exampleSize = std::min(line.size(), sizeof oldest->example);
    std::memcpy(oldest->example, line.data(), oldest->exampleSize);
    return *oldest;
  }

  Kind m_kinds[32];
  Rate<200, 50> m_all;
  Rate<1, 10'000> m_several;  // of the lines that tell m_leftOut
  u64 m_leftOut = 0;          // for the sake of all, or of a kind that was forgotten
  const Kind* m_admitted = nullptr;
};

}  // namespace journal
