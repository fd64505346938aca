#pragma once

// Clang's thread-safety annotations (-Wthread-safety, the `clang` preset); nothing for other compilers.
#if defined(__clang__)
#define NAT_TS_ATTRIBUTE(x) __attribute__((x))
#else
#define NAT_TS_ATTRIBUTE(x)
#endif

#define NAT_CAPABILITY(name) NAT_TS_ATTRIBUTE(capability(name))
#define NAT_SCOPED_CAPABILITY NAT_TS_ATTRIBUTE(scoped_lockable)
#define NAT_GUARDED_BY(...) NAT_TS_ATTRIBUTE(guarded_by(__VA_ARGS__))
#define NAT_PT_GUARDED_BY(...) NAT_TS_ATTRIBUTE(pt_guarded_by(__VA_ARGS__))
#define NAT_REQUIRES(...) NAT_TS_ATTRIBUTE(requires_capability(__VA_ARGS__))
#define NAT_ACQUIRE(...) NAT_TS_ATTRIBUTE(acquire_capability(__VA_ARGS__))
#define NAT_TRY_ACQUIRE(...) NAT_TS_ATTRIBUTE(try_acquire_capability(__VA_ARGS__))
#define NAT_RELEASE(...) NAT_TS_ATTRIBUTE(release_capability(__VA_ARGS__))
#define NAT_EXCLUDES(...) NAT_TS_ATTRIBUTE(locks_excluded(__VA_ARGS__))
#define NAT_NO_THREAD_SAFETY_ANALYSIS NAT_TS_ATTRIBUTE(no_thread_safety_analysis)
