// Names for clang's thread-safety attributes (https://clang.llvm.org/docs/ThreadSafetyAnalysis.html).
// Empty for other compilers.
#pragma once

#if defined(__clang__)
#define OMBRA_THREAD_ATTRIBUTE(x) __attribute__((x))
#else
#define OMBRA_THREAD_ATTRIBUTE(x)
#endif

#define CAPABILITY(x) OMBRA_THREAD_ATTRIBUTE(capability(x))
#define SCOPED_CAPABILITY OMBRA_THREAD_ATTRIBUTE(scoped_lockable)
#define GUARDED_BY(x) OMBRA_THREAD_ATTRIBUTE(guarded_by(x))
#define REQUIRES(...) OMBRA_THREAD_ATTRIBUTE(requires_capability(__VA_ARGS__))
#define ACQUIRE(...) OMBRA_THREAD_ATTRIBUTE(acquire_capability(__VA_ARGS__))
#define RELEASE(...) OMBRA_THREAD_ATTRIBUTE(release_capability(__VA_ARGS__))
#define EXCLUDES(...) OMBRA_THREAD_ATTRIBUTE(locks_excluded(__VA_ARGS__))
#define NO_THREAD_SAFETY_ANALYSIS OMBRA_THREAD_ATTRIBUTE(no_thread_safety_analysis)
