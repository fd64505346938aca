#pragma once

// natctl's exit status; the graver one counts.
enum class ExitStatus { ANSWERED = 0, UNANSWERED = 1, USAGE = 2, NO_CONNECTION = 3 };

constexpr ExitStatus Graver(ExitStatus a, ExitStatus b) {
  constexpr int kGravity[] = {0, 1, 3, 2};  // wrong usage: the rest of the commands did not run
  return kGravity[static_cast<int>(a)] >= kGravity[static_cast<int>(b)] ? a : b;
}
