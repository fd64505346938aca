#pragma once

// Which sanitizer the code is built for, in one word for both compilers.
#if defined(__SANITIZE_ADDRESS__)
#define NAT_ADDRESS_SANITIZER 1
#elif defined(__SANITIZE_THREAD__)
#define NAT_THREAD_SANITIZER 1
#elif defined(__has_feature)
#if __has_feature(address_sanitizer)
#define NAT_ADDRESS_SANITIZER 1
#elif __has_feature(thread_sanitizer)
#define NAT_THREAD_SANITIZER 1
#endif
#endif
