#include "core/workers.h"

#include <assert.h>
#include <malloc.h>
#include <pthread.h>
#include <stdint.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>

#include "core/clock.h"
#include "core/config.h"
#include "core/context.h"
#include "core/lock.h"
#include "core/signals.h"

// A stream holds at most two sockets at a time: its cloud and its camera connection.
static constexpr size_t MAX_SOCKETS = 2 * MAX_STREAMS;

static constexpr int WAKE_INTERVAL = 10;   // ms between two rounds of waking
static constexpr size_t OWN_FRAME = 1024;  // bytes of stack that the release of the rest needs
static constexpr int GENTLE_TIME = 600;    // ms after which the send side is shut as well

struct Workers {
  Mutex lock;
  pthread_cond_t changed;  // a worker left, or tear-down began; waits by the monotonic clock
  size_t live GUARDED_BY(lock);
  std::array<int, MAX_SOCKETS> sockets GUARDED_BY(lock);  // -1 marks a free slot
};

static Workers workers;

void workers_open() {
#if defined(__GLIBC__)
  // One heap for all: by default each thread that allocates gets an arena of its own, up to eight
  // per core.
  mallopt(M_ARENA_MAX, 1);
#endif
  pthread_condattr_t attributes;
  pthread_condattr_init(&attributes);
  pthread_condattr_setclock(&attributes, CLOCK_MONOTONIC);
  pthread_cond_init(&workers.changed, &attributes);
  pthread_condattr_destroy(&attributes);
  const ScopedLock lock(&workers.lock);
  workers.live = 0;
  workers.sockets.fill(-1);
}

static int create_detached(void *(*body)(void *), void *argument) {
  pthread_attr_t attributes;
  int result = pthread_attr_init(&attributes);
  if (result != 0) return result;
  result = pthread_attr_setdetachstate(&attributes, PTHREAD_CREATE_DETACHED);
  if (result == 0) result = pthread_attr_setstacksize(&attributes, WORKER_STACK_SIZE);
  if (result == 0) {
    const StopSignalsBlocked blocked;
    pthread_t thread;
    result = pthread_create(&thread, &attributes, body, argument);
  }
  pthread_attr_destroy(&attributes);
  return result;
}

static void worker_left() {
  const ScopedLock lock(&workers.lock);
  workers.live--;
  pthread_cond_broadcast(&workers.changed);
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

// The lowest address of this worker's stack; none when it could not be found out. The C library
// places a thread's variables at the top of its stack, at the same distance from the top in all.
static thread_local char *stack_bottom;

// Bytes of a worker's stack below that variable. Found out once: the question allocates, and a
// thread that allocates costs a cache of its own.
static std::atomic<size_t> stack_room;

static size_t measure_stack_room() {
  pthread_attr_t attributes;
  if (pthread_getattr_np(pthread_self(), &attributes) != 0) return 0;
  void *bottom = nullptr;
  size_t size = 0;
  pthread_attr_getstack(&attributes, &bottom, &size);
  pthread_attr_destroy(&attributes);
  return reinterpret_cast<uintptr_t>(&stack_bottom) - reinterpret_cast<uintptr_t>(bottom);
}

WorkerPresence::WorkerPresence() {
  if (stack_room == 0) stack_room = measure_stack_room();
  // Where the variables are not on the stack, memory is not given back.
  auto *variable = reinterpret_cast<char *>(&stack_bottom);
  const auto *frame = static_cast<const char *>(__builtin_frame_address(0));
  const size_t room = stack_room;
  if (room > 0 && room < WORKER_STACK_SIZE && frame < variable && frame > variable - room) {
    stack_bottom = variable - room;
  }
}

// Only whole pages can be given back.
static void release_pages(char *begin, const char *end) {
  const auto page = static_cast<uintptr_t>(sysconf(_SC_PAGESIZE));
  const auto first = (reinterpret_cast<uintptr_t>(begin) + page - 1) & ~(page - 1);
  const auto last = reinterpret_cast<uintptr_t>(end) & ~(page - 1);
  if (first >= last) return;
  madvise(begin + (first - reinterpret_cast<uintptr_t>(begin)), last - first, MADV_DONTNEED);
}

// What lies below the caller's frame.
static void release_stack() {
  const auto *frame = static_cast<const char *>(__builtin_frame_address(0));
  if (stack_bottom) release_pages(stack_bottom, frame - OWN_FRAME);
}

void worker_release_memory(char *buffer, size_t size) {
  release_pages(buffer, buffer + size);
  release_stack();
}

WorkerPresence::~WorkerPresence() {
  release_stack();  // the C library keeps the stack for the next thread as it is
  worker_left();
}

void worker_pause(int milliseconds) {
  const timespec deadline = monotonic_deadline(milliseconds);
  const ScopedLock lock(&workers.lock);
  int result = 0;
  while (agent_running() && result == 0) {  // 0 is also a spurious wake-up
    result = pthread_cond_timedwait(&workers.changed, &workers.lock.native, &deadline);
  }
}

WorkerSocket::WorkerSocket(int number) : fd_(number) {
  if (!fd_) return;
  const ScopedLock lock(&workers.lock);
  auto slot = std::find(workers.sockets.begin(), workers.sockets.end(), -1);
  assert(slot != workers.sockets.end());
  *slot = number;
}

WorkerSocket::~WorkerSocket() {
  if (!fd_) return;
  // Out of the table before the number is closed and may be given to somebody else.
  const ScopedLock lock(&workers.lock);
  auto slot = std::find(workers.sockets.begin(), workers.sockets.end(), fd_.get());
  assert(slot != workers.sockets.end());
  *slot = -1;
}

WorkerSocket worker_tcp_socket() {
  return WorkerSocket(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
}

// On Linux shutdown() ends a connect in progress, a receive and a relay's wait for room to send.
// The read side is enough for these and shows the peer nothing, so that relays close in their usual
// order; a blocking send of another kind ends only with the send side.
static void wake_all(int how) REQUIRES_LOCK(workers.lock) {
  for (const int socket : workers.sockets) {
    if (socket >= 0) shutdown(socket, how);
  }
  pthread_cond_broadcast(&workers.changed);
}

void workers_stop() {
  const ScopedLock lock(&workers.lock);
  proxy_context.running = false;
  // Again and again until everybody has left: a shutdown that lands just before the worker's
  // connect() is lost.
  const int64_t gentle_end = monotonic_ms() + GENTLE_TIME;
  while (workers.live > 0) {
    wake_all(monotonic_ms() < gentle_end ? SHUT_RD : SHUT_RDWR);
    const timespec deadline = monotonic_deadline(WAKE_INTERVAL);
    pthread_cond_timedwait(&workers.changed, &workers.lock.native, &deadline);
  }
}
