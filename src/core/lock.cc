#include "core/lock.h"

#include <errno.h>

// The analysis does not look inside: it takes the annotations of the declarations for granted.

bool CheckedLock::acquire() UNCHECKED_LOCKS {
  const int result = pthread_mutex_lock(&mutex_->native);
  held_ = result == 0;
  if (!held_) errno = result;
  return held_;
}

bool CheckedLock::release() UNCHECKED_LOCKS {
  held_ = false;
  const int result = pthread_mutex_unlock(&mutex_->native);
  if (result != 0) errno = result;
  return result == 0;
}

CheckedLock::~CheckedLock() UNCHECKED_LOCKS {
  if (held_) pthread_mutex_unlock(&mutex_->native);
}

ScopedLock::ScopedLock(Mutex *mutex) UNCHECKED_LOCKS : mutex_(mutex) {
  pthread_mutex_lock(&mutex_->native);
}

ScopedLock::~ScopedLock() UNCHECKED_LOCKS {
  pthread_mutex_unlock(&mutex_->native);
}
