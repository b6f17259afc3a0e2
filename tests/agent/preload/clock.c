// Preloaded into the agent by tests that own its time: long pauses end at once and put the clocks
// forward by their length. The wall clock stands still between them. Everything else that waits
// goes by real time, since it waits for other programs.
#define _GNU_SOURCE
#include <fcntl.h>
#include <poll.h>
#include <pthread.h>
#include <stdatomic.h>
#include <stdint.h>
#include <stdlib.h>
#include <sys/mman.h>
#include <sys/single_threaded.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <sys/time.h>
#include <unistd.h>

enum { MS = 1000000, SECOND = 1000 * MS, GLANCE = 20 * MS };  // ns

struct Shared {  // with the test
  _Atomic int64_t skipped;  // ns by which the clocks have been put forward
  int64_t wall;             // ns since the epoch at which the wall clock stands, skips aside
  int64_t patience;  // ms that stand for a time-out of 5 s or more, if above 0; -1 skips nothing
};
static struct Shared *shared;

__attribute__((constructor)) static void attach(void) {
  const int file = open(getenv("TEST_CLOCK"), O_RDWR);
  shared = mmap(NULL, sizeof *shared, PROT_READ | PROT_WRITE, MAP_SHARED, file, 0);
  close(file);
}

static struct timespec split(int64_t ns) {
  return (struct timespec){ns / SECOND, ns % SECOND};
}

static int64_t joined(const struct timespec *time) {
  return time->tv_sec * (int64_t)SECOND + time->tv_nsec;
}

static int64_t real_time(clockid_t clock) {
  struct timespec now;
  syscall(SYS_clock_gettime, clock, &now);
  return joined(&now);
}

int clock_gettime(clockid_t clock, struct timespec *now) {
  *now = split((clock == CLOCK_REALTIME ? shared->wall : real_time(clock)) + shared->skipped);
  return 0;
}

time_t time(time_t *out) {
  const time_t now = (shared->wall + shared->skipped) / SECOND;
  if (out) *out = now;
  return now;
}

int pthread_cond_timedwait(pthread_cond_t *condition, pthread_mutex_t *mutex,
                           const struct timespec *deadline) {
  const int64_t now = real_time(CLOCK_MONOTONIC);
  const int64_t left = joined(deadline) - shared->skipped - now;
  const int skips = left > SECOND / 2 && shared->patience >= 0;
  const struct timespec end = split(now + (skips ? GLANCE : left > 0 ? left : 0));
  const int result = pthread_cond_clockwait(condition, mutex, CLOCK_MONOTONIC, &end);
  if (result != 0 && skips) shared->skipped += left;
  return result;
}

// A pause of the main thread: it may not hurry on while others live by real time.
int ppoll(struct pollfd *fds, nfds_t count, const struct timespec *wait, const sigset_t *mask) {
  const int skips =
      __libc_single_threaded && joined(wait) > SECOND / 2 && shared->patience >= 0;
  struct timespec real = split(skips ? GLANCE : joined(wait));
  const int result = (int)syscall(SYS_ppoll, fds, count, &real, mask, sizeof(uint64_t));
  if (result == 0 && skips) shared->skipped += joined(wait);
  return result;
}

int poll(struct pollfd *fds, nfds_t count, int timeout) {
  const int skips = shared->patience > 0 && timeout >= 5000;
  struct timespec real = split((skips ? shared->patience : timeout) * MS);
  const int result =
      (int)syscall(SYS_ppoll, fds, count, timeout < 0 ? NULL : &real, NULL, sizeof(uint64_t));
  if (result == 0 && skips) shared->skipped += timeout * (int64_t)MS;
  return result;
}

int setsockopt(int socket, int level, int option, const void *value, socklen_t size) {
  const struct timeval shorter = {0, shared->patience * 1000};
  const int is_time_out = level == SOL_SOCKET && (option == SO_RCVTIMEO || option == SO_SNDTIMEO);
  if (is_time_out && shared->patience > 0 && ((const struct timeval *)value)->tv_sec >= 5)
    value = &shorter;
  return (int)syscall(SYS_setsockopt, socket, level, option, value, size);
}
