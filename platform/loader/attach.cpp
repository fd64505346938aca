// Calls the library's load entry when the dynamic loader maps the library and when it takes it away again.

#include <dlfcn.h>

#include "platform/journal.h"
#include "platform/loader/library_entry.h"

namespace {

// The address the library, or the program it is linked into, was loaded at.
void* OwnModule() {
  static const char anchor = 0;
  Dl_info info{};
  return ::dladdr(&anchor, &info) != 0 ? info.dli_fbase : nullptr;
}

// The loader cannot be told to give up a load at this point, so a refusal is only reported.
[[gnu::constructor]] void Attached() {
  if (LibraryEntry(OwnModule(), kLibraryAttached) == 0) {
    JournalError("natagent: the library's load entry reported a failure");
  }
}

[[gnu::destructor]] void Detached() { LibraryEntry(OwnModule(), kLibraryDetached); }

}  // namespace
