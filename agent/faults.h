#pragma once

// What the host's GetConfig throws, or an allocation, is caught where the agent is entered: by each entry point, each
// thread's function, each turn of the main loop and each handler of a request.

// Says in the journal what was not done, and the reason. Within a catch block only. Any thread; throws nothing.
void ReportFault(const char* what) noexcept;

// Runs a step. What it throws is reported and goes no further; false then.
template <class Step>
bool Contain(const char* what, Step step) noexcept {
  try {
    step();
    return true;
  } catch (...) {
    ReportFault(what);
    return false;
  }
}
