#pragma once

#include <cerrno>
#include <new>

namespace natclient_detail {

// Runs a function of the interface; the only thing that C++ throws in there is a lack of memory.
template <class Function>
int Guarded(Function function) noexcept {
  try {
    return function();
  } catch (const std::bad_alloc&) {
    return -ENOMEM;
  }
}

}  // namespace natclient_detail
