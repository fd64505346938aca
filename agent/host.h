#pragma once

// What a host that loads the library may use beyond natagent.h. C11 and C++11. Nothing throws; the strings that are
// handed over are copied. Each structure begins with its size, so that a later library can tell an older host's.

#include <stddef.h>
#include <stdint.h>
#include <sys/types.h>

#ifdef __cplusplus
extern "C" {
#endif

#define NAT_HOST_EXPORT __attribute__((visibility("default")))

#ifdef __cplusplus
}
#endif
