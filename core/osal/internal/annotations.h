// Attributes: Clang's thread-safety analysis (nothing to other compilers; the clang preset makes a
// broken promise an error), and exemptions from the sanitizers.
#pragma once

#if defined(__clang__)
#define OSAL_THREAD_ATTRIBUTE(x) __attribute__((x))
#else
#define OSAL_THREAD_ATTRIBUTE(x)
#endif

#define CAPABILITY(name) OSAL_THREAD_ATTRIBUTE(capability(name))
#define SCOPED_CAPABILITY OSAL_THREAD_ATTRIBUTE(scoped_lockable)
#define GUARDED_BY(lock) OSAL_THREAD_ATTRIBUTE(guarded_by(lock))
#define ACQUIRE(...) OSAL_THREAD_ATTRIBUTE(acquire_capability(__VA_ARGS__))
#define RELEASE(...) OSAL_THREAD_ATTRIBUTE(release_capability(__VA_ARGS__))
#define REQUIRES(...) OSAL_THREAD_ATTRIBUTE(requires_capability(__VA_ARGS__))
#define EXCLUDES(...) OSAL_THREAD_ATTRIBUTE(locks_excluded(__VA_ARGS__))
#define NO_THREAD_SAFETY_ANALYSIS OSAL_THREAD_ATTRIBUTE(no_thread_safety_analysis)

// For functions that read guarded or stale memory on purpose.
#define NO_ADDRESS_CHECKS __attribute__((no_sanitize("address")))

// For functions that read whole words, of which some bytes may be nobody's or another thread's.
#define NO_MEMORY_CHECKS NO_ADDRESS_CHECKS __attribute__((no_sanitize("thread")))
