#pragma once

// Clang's thread-safety attributes under readable names; other compilers see nothing.
#if defined(__clang__)
#define QS_THREAD_ATTRIBUTE(x) __attribute__((x))
#else
#define QS_THREAD_ATTRIBUTE(x)
#endif

#define CAPABILITY(x) QS_THREAD_ATTRIBUTE(capability(x))
#define SCOPED_CAPABILITY QS_THREAD_ATTRIBUTE(scoped_lockable)
#define GUARDED_BY(x) QS_THREAD_ATTRIBUTE(guarded_by(x))
#define REQUIRES(...) QS_THREAD_ATTRIBUTE(requires_capability(__VA_ARGS__))
#define EXCLUDES(...) QS_THREAD_ATTRIBUTE(locks_excluded(__VA_ARGS__))
#define ACQUIRE(...) QS_THREAD_ATTRIBUTE(acquire_capability(__VA_ARGS__))
#define TRY_ACQUIRE(...) QS_THREAD_ATTRIBUTE(try_acquire_capability(__VA_ARGS__))
#define RELEASE(...) QS_THREAD_ATTRIBUTE(release_capability(__VA_ARGS__))
#define NO_THREAD_SAFETY_ANALYSIS QS_THREAD_ATTRIBUTE(no_thread_safety_analysis)
