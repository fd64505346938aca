#pragma once

#include <cerrno>

// What the library under test asks of the C and C++ libraries, taken over by the test program: allocations,
// descriptors, calls of the network and threads that fail, and threads that begin late.
namespace interposed {

// The kernel's are the errno of the call that fails.
enum class Fault {
  NONE,
  ALLOCATION,
  ALLOCATIONS,
  THREAD = EAGAIN,
  NO_MEMORY = ENOMEM,
  DESCRIPTOR = EMFILE,
  NO_BUFFERS = ENOBUFS
};

// The nth (from 1) allocation, or call that may so fail, fails from now on; ALLOCATIONS: and each one after it. Those
// of a spared thread do not count.
void Arm(Fault fault, int nth);
bool HasFailed();
// No fault any more; whether there was one.
bool Disarm();

// The calling thread is the test's own, but inside Unspared.
void SpareThisThread(bool spared);
struct Unspared {
  Unspared() { SpareThisThread(false); }
  ~Unspared() { SpareThisThread(true); }
};

// The next threads that are started by another one than the test's stay before their first step until Release, or, once
// ReleaseSoon has been called, for 300 ms at most.
void HoldThreads(int count);
void ReleaseSoon();
void Release();

}  // namespace interposed
