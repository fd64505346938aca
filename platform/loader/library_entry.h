#pragma once

// Why the load entry is called.
inline constexpr unsigned long kLibraryDetached = 0;
inline constexpr unsigned long kLibraryAttached = 1;

// The library's load entry, written by the library itself and called by the loader room with the library's module
// handle, on the thread that loads or unloads it. Nonzero is success.
int LibraryEntry(void* module, unsigned long reason);

// Asks the loader not to report the process's threads to the library. Linux never reports them, so there is nothing to
// switch off: true, or false for a null handle.
bool DisableThreadLibraryCalls(void* module);
