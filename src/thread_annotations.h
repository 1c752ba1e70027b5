// What clang's thread safety analysis (-Wthread-safety) has to be told; nothing for a compiler
// without it.
#ifndef LUMD_THREAD_ANNOTATIONS_H
#define LUMD_THREAD_ANNOTATIONS_H

#if defined(__clang__)
#define LUMD_THREAD_ANNOTATION(attribute) __attribute__((attribute))
#else
#define LUMD_THREAD_ANNOTATION(attribute)
#endif

// A class whose objects are locks; `kind` is what a warning calls them.
#define LUMD_CAPABILITY(kind) LUMD_THREAD_ANNOTATION(capability(kind))

// A class whose objects hold a lock for their lifetime.
#define LUMD_SCOPED_CAPABILITY LUMD_THREAD_ANNOTATION(scoped_lockable)

// A member that is touched only while the lock is held.
#define LUMD_GUARDED_BY(lock) LUMD_THREAD_ANNOTATION(guarded_by(lock))

// A pointer whose target is touched only while the lock is held.
#define LUMD_PT_GUARDED_BY(lock) LUMD_THREAD_ANNOTATION(pt_guarded_by(lock))

// A function that is called only while the locks are held, and leaves them so.
#define LUMD_REQUIRES(...) LUMD_THREAD_ANNOTATION(requires_capability(__VA_ARGS__))

// A function that takes the locks itself, so its caller must not hold them.
#define LUMD_EXCLUDES(...) LUMD_THREAD_ANNOTATION(locks_excluded(__VA_ARGS__))

// A function that takes the locks, or releases them; without an argument, the object itself.
#define LUMD_ACQUIRE(...) LUMD_THREAD_ANNOTATION(acquire_capability(__VA_ARGS__))
#define LUMD_RELEASE(...) LUMD_THREAD_ANNOTATION(release_capability(__VA_ARGS__))

// A function whose body the analysis cannot follow.
#define LUMD_NO_THREAD_SAFETY_ANALYSIS LUMD_THREAD_ANNOTATION(no_thread_safety_analysis)

#endif
