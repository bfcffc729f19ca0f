// SPDX-License-Identifier: Apache-2.0
// Thread-safety annotations: which lock guards what. clang reports a use without the lock and locks
// taken in the wrong order, provided that the C++ library's locks are annotated, too; libc++'s are
// if a macro asks for it. Other compilers see empty macros. They change neither code nor layout.
//
// A function that the analysis cannot follow is excluded by KORVANE_LOCKS_UNCHECKED, with the
// reason beside it. Constructors and destructors are not analysed: no other thread has the object.
#pragma once

#if defined(__clang__) && defined(_LIBCPP_ENABLE_THREAD_SAFETY_ANNOTATIONS)
#define KORVANE_THREAD_ANNOTATION(annotation) __attribute__((annotation))
#else
#define KORVANE_THREAD_ANNOTATION(annotation)
#endif

// Members: the lock that guards the member itself, or what a pointer points to.
#define KORVANE_GUARDED_BY(lock) KORVANE_THREAD_ANNOTATION(guarded_by(lock))
#define KORVANE_PT_GUARDED_BY(lock) KORVANE_THREAD_ANNOTATION(pt_guarded_by(lock))
// Locks: this one is taken first where both are held.
#define KORVANE_ACQUIRED_BEFORE(...) KORVANE_THREAD_ANNOTATION(acquired_before(__VA_ARGS__))
// Functions: locks that the caller must hold, or must not hold because the function takes them.
#define KORVANE_REQUIRES(...) KORVANE_THREAD_ANNOTATION(requires_capability(__VA_ARGS__))
#define KORVANE_EXCLUDES(...) KORVANE_THREAD_ANNOTATION(locks_excluded(__VA_ARGS__))
// Functions excluded from the analysis; the reason stands beside each.
#define KORVANE_LOCKS_UNCHECKED KORVANE_THREAD_ANNOTATION(no_thread_safety_analysis)
// Lock types, scoped locks and their operations.
#define KORVANE_LOCK KORVANE_THREAD_ANNOTATION(capability("mutex"))
#define KORVANE_SCOPED_LOCK KORVANE_THREAD_ANNOTATION(scoped_lockable)
#define KORVANE_ACQUIRE(...) KORVANE_THREAD_ANNOTATION(acquire_capability(__VA_ARGS__))
#define KORVANE_ACQUIRE_SHARED(...) \
    KORVANE_THREAD_ANNOTATION(acquire_shared_capability(__VA_ARGS__))
#define KORVANE_RELEASE(...) KORVANE_THREAD_ANNOTATION(release_capability(__VA_ARGS__))
#define KORVANE_RELEASE_SHARED(...) \
    KORVANE_THREAD_ANNOTATION(release_shared_capability(__VA_ARGS__))
