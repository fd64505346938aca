#pragma once

// The STUN library's own diagnostics, which go to the host's journal. Repeated calls of either, in any order, are fine.
class StunLogger {
 public:
  static void Create();
  static void Destroy();
};
