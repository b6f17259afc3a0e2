// The design: tear-down may release what the workers use only when the last of them has left, and
// they must leave within moments. So each is counted from before its thread exists until its last
// act, every wait of theirs is one that tear-down can end, and tear-down goes on ending waits until
// the count is 0, since a worker may be just about to begin one.
//
//   a pause               a condition that tear-down signals
//   a receive or a send   the sockets stand in a table, and tear-down shuts them
//   a connect             looks at `running` between short slices (sockets.cc)
//
// Nobody is cancelled: a worker runs its course to the end and reports as it always does.
#include "core/workers.h"

#include <errno.h>
#include <pthread.h>
#include <stdint.h>
#include <sys/socket.h>

#include <algorithm>
#include <array>

#include "core/clock.h"
#include "core/context.h"
#include "core/lock.h"
#include "core/signals.h"
#include "core/sockets.h"

// Bytes of stack of a worker: 128 workers at the usual 8 MiB would reserve a gigabyte of a 32-bit
// address space. Whatever is large lies elsewhere, so that a few KiB of it are ever touched; the
// rest is address space only, kept for C libraries that need more.
static constexpr size_t STACK_SIZE = size_t{128} * 1024;

static constexpr int WAKE_INTERVAL_MS = 10;  // between two rounds of waking
static constexpr int GENTLE_TIME_MS = 600;   // after which the send side is shut as well

static constexpr int FREE = -1;  // marks a slot of the table

struct Workers {
  Mutex lock;
  pthread_cond_t changed;  // of what follows, or tear-down began; waits by the monotonic clock
  bool released GUARDED_BY(lock);
  size_t live GUARDED_BY(lock);
  std::array<int, MAX_WORKER_SOCKETS> sockets GUARDED_BY(lock);
};

static Workers workers;

void workers_open() {
  pthread_condattr_t attributes;
  pthread_condattr_init(&attributes);
  // Otherwise a pause would stretch when the wall clock is set back.
  pthread_condattr_setclock(&attributes, CLOCK_MONOTONIC);
  pthread_cond_init(&workers.changed, &attributes);
  pthread_condattr_destroy(&attributes);
  const ScopedLock lock(&workers.lock);
  workers.released = false;
  workers.live = 0;
  workers.sockets.fill(FREE);
}

// --- Threads -------------------------------------------------------------------------------------

static int create_detached(void *(*body)(void *), void *argument) {
  pthread_attr_t attributes;
  int result = pthread_attr_init(&attributes);
  if (result != 0) return result;
  result = pthread_attr_setdetachstate(&attributes, PTHREAD_CREATE_DETACHED);
  if (result == 0) result = pthread_attr_setstacksize(&attributes, STACK_SIZE);
  if (result == 0) {
    const StopSignalsBlocked blocked;  // inherited for good
    pthread_t thread;
    result = pthread_create(&thread, &attributes, body, argument);
  }
  pthread_attr_destroy(&attributes);
  return result;
}

// Only tear-down waits for the last one. Told of every one, all streams that pause would wake up
// each time that a relay ends.
static void worker_left() {
  const ScopedLock lock(&workers.lock);
  if (--workers.live == 0) pthread_cond_broadcast(&workers.changed);
}

int worker_start(void *(*body)(void *), void *argument) {
  {
    // Counted by the creator: a worker that has not run yet must be waited for too.
    const ScopedLock lock(&workers.lock);
    workers.live++;
  }
  const int result = create_detached(body, argument);
  if (result != 0) worker_left();
  return result;
}

WorkerPresence::~WorkerPresence() {
  worker_left();
}

void worker_await_release() {
  const ScopedLock lock(&workers.lock);
  while (agent_running() && !workers.released)
    pthread_cond_wait(&workers.changed, &workers.lock.native);
}

void workers_release() {
  const ScopedLock lock(&workers.lock);
  workers.released = true;
  pthread_cond_broadcast(&workers.changed);
}

void worker_pause(int milliseconds) {
  const timespec deadline = monotonic_deadline(milliseconds);
  const ScopedLock lock(&workers.lock);
  int result = 0;
  while (agent_running() && result == 0) {  // 0 is also a spurious wake-up
    result = pthread_cond_timedwait(&workers.changed, &workers.lock.native, &deadline);
  }
}

// --- Sockets -------------------------------------------------------------------------------------

WorkerSocket::WorkerSocket(Fd socket) {
  if (!socket) return;
  const ScopedLock lock(&workers.lock);
  auto *slot = std::find(workers.sockets.begin(), workers.sockets.end(), FREE);
  if (slot == workers.sockets.end()) {
    errno = EMFILE;
    return;
  }
  *slot = socket.get();
  slot_ = static_cast<size_t>(slot - workers.sockets.begin());
  fd_ = std::move(socket);
}

WorkerSocket::~WorkerSocket() {
  if (!fd_) return;
  // Out of the table before the number is closed and may be given to somebody else.
  const ScopedLock lock(&workers.lock);
  workers.sockets[slot_] = FREE;
}

WorkerSocket worker_tcp_socket() {
  return WorkerSocket(tcp_socket());
}

// --- Tear-down -----------------------------------------------------------------------------------

// Shutting the read side ends a receive and a relay's wait for room to send, and shows the peer
// nothing, so that relays close in their usual order. A blocking send of another kind ends only
// with the send side.
static void wake_all(int how) REQUIRES_LOCK(workers.lock) {
  for (const int socket : workers.sockets) {
    if (socket != FREE) shutdown(socket, how);
  }
  pthread_cond_broadcast(&workers.changed);
}

void workers_stop() {
  const ScopedLock lock(&workers.lock);
  proxy_context.running = false;
  const int64_t gentle_end = monotonic_ms() + GENTLE_TIME_MS;
  while (workers.live > 0) {
    wake_all(monotonic_ms() < gentle_end ? SHUT_RD : SHUT_RDWR);
    const timespec deadline = monotonic_deadline(WAKE_INTERVAL_MS);
    pthread_cond_timedwait(&workers.changed, &workers.lock.native, &deadline);
  }
}
