#include <gtest/gtest.h>

#include "platform/loader/library_entry.h"

static constinit int s_calls = 0;  // set before main, so without a constructor of its own

// The tests' own library is this program.
int LibraryEntry(void* module, unsigned long reason) {
  s_calls += module != nullptr && reason == kLibraryAttached ? 1 : 99;
  return 1;
}

TEST(LoaderTest, TheEntryIsCalledOnceOnLoading) { EXPECT_EQ(s_calls, 1); }
