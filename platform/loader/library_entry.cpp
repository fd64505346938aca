#include "platform/loader/library_entry.h"

bool DisableThreadLibraryCalls(void* module) { return module != nullptr; }
