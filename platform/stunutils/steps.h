#pragma once

#include <cstddef>

namespace stun {

// The step of a table that begins with this state and event; when there is none, nothing changes.
template <class Step, std::size_t N, class State, class Event>
constexpr Step After(const Step (&table)[N], State state, Event event) {
  for (const Step& step : table) {
    if (step.from == state && step.event == event) {
      return step;
    }
  }
  return {state, event, state, {}};
}

// A table has at most one step for each state and event.
template <class Step, std::size_t N>
constexpr bool IsUnambiguous(const Step (&table)[N]) {
  for (std::size_t i = 0; i < N; ++i) {
    for (std::size_t j = 0; j < i; ++j) {
      if (table[i].from == table[j].from && table[i].event == table[j].event) {
        return false;
      }
    }
  }
  return true;
}

}  // namespace stun
