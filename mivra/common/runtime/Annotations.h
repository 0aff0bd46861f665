#pragma once

// Attributes that compilers check: clang's thread-safety annotations and the printf format of variadic
// functions.

#if defined(__clang__)
#define MIVRA_THREAD_ATTRIBUTE(x) __attribute__((x))
#else
#define MIVRA_THREAD_ATTRIBUTE(x)
#endif

#define MIVRA_CAPABILITY(name) MIVRA_THREAD_ATTRIBUTE(capability(name))
#define MIVRA_SCOPED_CAPABILITY MIVRA_THREAD_ATTRIBUTE(scoped_lockable)
#define MIVRA_GUARDED_BY(lock) MIVRA_THREAD_ATTRIBUTE(guarded_by(lock))
#define MIVRA_REQUIRES(...) MIVRA_THREAD_ATTRIBUTE(requires_capability(__VA_ARGS__))
#define MIVRA_EXCLUDES(...) MIVRA_THREAD_ATTRIBUTE(locks_excluded(__VA_ARGS__))
#define MIVRA_ACQUIRE(...) MIVRA_THREAD_ATTRIBUTE(acquire_capability(__VA_ARGS__))
#define MIVRA_TRY_ACQUIRE(...) MIVRA_THREAD_ATTRIBUTE(try_acquire_capability(__VA_ARGS__))
#define MIVRA_RELEASE(...) MIVRA_THREAD_ATTRIBUTE(release_capability(__VA_ARGS__))
#define MIVRA_NO_THREAD_SAFETY_ANALYSIS MIVRA_THREAD_ATTRIBUTE(no_thread_safety_analysis)

#if defined(__GNUC__) || defined(__clang__)
#define MIVRA_PRINTF(formatIndex, firstArgument) __attribute__((format(printf, formatIndex, firstArgument)))
#else
#define MIVRA_PRINTF(formatIndex, firstArgument)
#endif
