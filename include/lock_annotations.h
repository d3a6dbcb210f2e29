/*
 * lock_annotations.h - which lock guards what, in words that clang's analysis of thread safety
 * reads; other compilers see nothing. They stand behind a field that is guarded, and behind the
 * declaration of a function that needs a lock, takes one or gives one up.
 */
#ifndef LOCK_ANNOTATIONS_H
#define LOCK_ANNOTATIONS_H

#ifdef __clang__
#define LOCK_ANNOTATION(attribute) __attribute__((attribute))
#else
#define LOCK_ANNOTATION(attribute)
#endif

/* Of a type: a lock, and an object that holds one as long as it lives. */
#define IS_A_LOCK    LOCK_ANNOTATION(capability("lock"))
#define HOLDS_A_LOCK LOCK_ANNOTATION(scoped_lockable)

/* Of a field or a variable: it is read and written with the lock held. */
#define GUARDED_BY(lock) LOCK_ANNOTATION(guarded_by(lock))

/* Of a function: it is called with the lock held, or without it. */
#define NEEDS_LOCK(...) LOCK_ANNOTATION(requires_capability(__VA_ARGS__))
#define TAKES_LOCK(...) LOCK_ANNOTATION(locks_excluded(__VA_ARGS__))

/* Of a function: the lock is held behind it, only if it returns 0, or no longer. */
#define ACQUIRES(...)         LOCK_ANNOTATION(acquire_capability(__VA_ARGS__))
#define ACQUIRES_IF_ZERO(...) LOCK_ANNOTATION(try_acquire_capability(0, __VA_ARGS__))
#define RELEASES(...)         LOCK_ANNOTATION(release_capability(__VA_ARGS__))

/* Of a function that does what the analysis does not understand. */
#define NOT_ANALYSED(reason) LOCK_ANNOTATION(no_thread_safety_analysis)

#endif
