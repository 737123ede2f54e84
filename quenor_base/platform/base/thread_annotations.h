// Clang's thread-safety attributes (https://clang.llvm.org/docs/ThreadSafetyAnalysis.html); empty
// under other compilers. `./dev check` compiles the library once with -Wthread-safety -Werror.
#ifndef QUENOR_BASE_PLATFORM_BASE_THREAD_ANNOTATIONS_H_
#define QUENOR_BASE_PLATFORM_BASE_THREAD_ANNOTATIONS_H_

#if defined(__clang__)
#define QUENOR_THREAD_ATTRIBUTE(x) __attribute__((x))
#else
#define QUENOR_THREAD_ATTRIBUTE(x)
#endif

#define QUENOR_CAPABILITY(x) QUENOR_THREAD_ATTRIBUTE(capability(x))
#define QUENOR_SCOPED_CAPABILITY QUENOR_THREAD_ATTRIBUTE(scoped_lockable)
#define QUENOR_GUARDED_BY(x) QUENOR_THREAD_ATTRIBUTE(guarded_by(x))
#define QUENOR_REQUIRES(...) QUENOR_THREAD_ATTRIBUTE(requires_capability(__VA_ARGS__))
#define QUENOR_EXCLUDES(...) QUENOR_THREAD_ATTRIBUTE(locks_excluded(__VA_ARGS__))
#define QUENOR_ACQUIRE(...) QUENOR_THREAD_ATTRIBUTE(acquire_capability(__VA_ARGS__))
#define QUENOR_RELEASE(...) QUENOR_THREAD_ATTRIBUTE(release_capability(__VA_ARGS__))
#define QUENOR_TRY_ACQUIRE(...) QUENOR_THREAD_ATTRIBUTE(try_acquire_capability(__VA_ARGS__))
#define QUENOR_NO_THREAD_SAFETY_ANALYSIS QUENOR_THREAD_ATTRIBUTE(no_thread_safety_analysis)

#endif  // QUENOR_BASE_PLATFORM_BASE_THREAD_ANNOTATIONS_H_
