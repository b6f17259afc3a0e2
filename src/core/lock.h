// Mutexes and the annotations by which clang checks, at compile time, which lock guards what.
#pragma once

#include <pthread.h>

#if defined(__clang__)
#define THREAD_ANNOTATION(x) __attribute__((x))
#else
#define THREAD_ANNOTATION(x)
#endif

#define LOCK_CAPABILITY THREAD_ANNOTATION(capability("mutex"))
#define SCOPED_LOCK THREAD_ANNOTATION(scoped_lockable)
#define GUARDED_BY(lock) THREAD_ANNOTATION(guarded_by(lock))
#define REQUIRES_LOCK(...) THREAD_ANNOTATION(requires_capability(__VA_ARGS__))
#define EXCLUDES_LOCK(...) THREAD_ANNOTATION(locks_excluded(__VA_ARGS__))
#define ACQUIRES_LOCK(...) THREAD_ANNOTATION(acquire_capability(__VA_ARGS__))
#define TRIES_LOCK(...) THREAD_ANNOTATION(try_acquire_capability(__VA_ARGS__))
#define RELEASES_LOCK(...) THREAD_ANNOTATION(release_capability(__VA_ARGS__))
#define UNCHECKED_LOCKS THREAD_ANNOTATION(no_thread_safety_analysis)

struct LOCK_CAPABILITY Mutex {
  pthread_mutex_t native = PTHREAD_MUTEX_INITIALIZER;
};

// For locks whose failure has a report of its own: holds a mutex from acquire() to release(). Both
// store the pthread result in errno and say whether it was 0. The destructor is the net for early
// returns.
//
//   CheckedLock lock(&monitor.lock);
//   if (!lock.acquire()) return report(...);
//   ... work ...
//   return lock.release();
class SCOPED_LOCK CheckedLock {
 public:
  explicit CheckedLock(Mutex *mutex) EXCLUDES_LOCK(mutex) : mutex_(mutex) {}
  CheckedLock(const CheckedLock &) = delete;
  CheckedLock &operator=(const CheckedLock &) = delete;
  ~CheckedLock() RELEASES_LOCK();

  [[nodiscard]] bool acquire() TRIES_LOCK(true);
  bool release() RELEASES_LOCK();

 private:
  Mutex *mutex_;
  bool held_ = false;
};

// For locks without such a report, on default mutexes, which cannot fail to be taken: held from
// construction to the end of the scope.
class SCOPED_LOCK ScopedLock {
 public:
  explicit ScopedLock(Mutex *mutex) ACQUIRES_LOCK(mutex);
  ScopedLock(const ScopedLock &) = delete;
  ScopedLock &operator=(const ScopedLock &) = delete;
  ~ScopedLock() RELEASES_LOCK();

 private:
  Mutex *mutex_;
};
