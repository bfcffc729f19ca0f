// SPDX-License-Identifier: Apache-2.0
// Which lock guards what, for the compiler to hold: clang refuses a use without the lock, and the
// taking of locks in the wrong order, where the C++ library's locks are annotated too, as libc++'s
// are on demand. Elsewhere the macros are nothing. They change neither code nor layout.
//
// What the analysis cannot see is left out of it by name and with the reason beside it. It does not
// look into constructors and destructors: nobody else has the object then.
#pragma once

#if defined(__clang__) && defined(_LIBCPP_ENABLE_THREAD_SAFETY_ANNOTATIONS)
#define KORVANE_THREAD_ANNOTATION(annotation) __attribute__((annotation))
#else
#define KORVANE_THREAD_ANNOTATION(annotation)
#endif

// Members: the lock to hold for the member itself, or for what a pointer points to.
#define KORVANE_GUARDED_BY(lock) KORVANE_THREAD_ANNOTATION(guarded_by(lock))
#define KORVANE_PT_GUARDED_BY(lock) KORVANE_THREAD_ANNOTATION(pt_guarded_by(lock))
// Locks: this one first where both are held.
#define KORVANE_ACQUIRED_BEFORE(...) KORVANE_THREAD_ANNOTATION(acquired_before(__VA_ARGS__))
// Functions: locks that the caller holds, or that it must not hold because they are taken inside.
#define KORVANE_REQUIRES(...) KORVANE_THREAD_ANNOTATION(requires_capability(__VA_ARGS__))
#define KORVANE_EXCLUDES(...) KORVANE_THREAD_ANNOTATION(locks_excluded(__VA_ARGS__))
// Functions that the analysis leaves out; the reason stands beside each.
#define KORVANE_LOCKS_UNCHECKED KORVANE_THREAD_ANNOTATION(no_thread_safety_analysis)
// Locks, scoped locks and their operations.
#define KORVANE_LOCK KORVANE_THREAD_ANNOTATION(capability("mutex"))
#define KORVANE_SCOPED_LOCK KORVANE_THREAD_ANNOTATION(scoped_lockable)
#define KORVANE_ACQUIRE(...) KORVANE_THREAD_ANNOTATION(acquire_capability(__VA_ARGS__))
#define KORVANE_ACQUIRE_SHARED(...) \
    KORVANE_THREAD_ANNOTATION(acquire_shared_capability(__VA_ARGS__))
#define KORVANE_RELEASE(...) KORVANE_THREAD_ANNOTATION(release_capability(__VA_ARGS__))
#define KORVANE_RELEASE_SHARED(...) \
    KORVANE_THREAD_ANNOTATION(release_shared_capability(__VA_ARGS__))
