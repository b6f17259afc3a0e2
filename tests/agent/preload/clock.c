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

struct Shared {             // with the test
  _Atomic int64_t skipped;  // ns by which the clocks have been put forward
  int64_t wall;             // ns since the epoch at which the wall clock stands, skips aside
  int64_t pace;             // by which time-outs pass faster; at 0 pauses pass by real time
};
static struct Shared *shared;

#ifdef SYS_clock_gettime64  // 32-bit systems, whose older calls know 32-bit times only
enum { GETTIME_CALL = SYS_clock_gettime64, PPOLL_CALL = SYS_ppoll_time64 };
#else
enum { GETTIME_CALL = SYS_clock_gettime, PPOLL_CALL = SYS_ppoll };
#endif

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
  syscall(GETTIME_CALL, clock, &now);
  return joined(&now);
}

int clock_gettime(clockid_t clock, struct timespec *now) {
  *now = split((clock == CLOCK_REALTIME ? shared->wall : real_time(clock)) + shared->skipped);
  return 0;
}

time_t time(time_t *unused) {
  (void)unused;
  return (shared->wall + shared->skipped) / SECOND;
}

// Puts the clocks forward by what a wait that came to its end has left out.
static int waited(int result, int ended, int64_t left_out) {
  if (ended) shared->skipped += left_out;
  return result;
}

int pthread_cond_timedwait(pthread_cond_t *condition, pthread_mutex_t *mutex,
                           const struct timespec *deadline) {
  const int64_t now = real_time(CLOCK_MONOTONIC);
  const int64_t left = joined(deadline) - shared->skipped - now;
  const int64_t wait = left > SECOND / 2 && shared->pace > 0 ? GLANCE : left > 0 ? left : 0;
  const struct timespec end = split(now + wait);
  const int result = pthread_cond_clockwait(condition, mutex, CLOCK_MONOTONIC, &end);
  return waited(result, result != 0 && wait == GLANCE, left);
}

static int poll_for(int64_t ns, struct pollfd *fds, nfds_t count, const sigset_t *mask) {
  struct timespec wait = split(ns);
  return (int)syscall(PPOLL_CALL, fds, count, ns < 0 ? NULL : &wait, mask, sizeof(uint64_t));
}

// A pause of the main thread: it may not hurry on while others live by real time.
int ppoll(struct pollfd *fds, nfds_t count, const struct timespec *wait, const sigset_t *mask) {
  const int skips = __libc_single_threaded && joined(wait) > SECOND / 2 && shared->pace > 0;
  const int result = poll_for(skips ? GLANCE : joined(wait), fds, count, mask);
  return waited(result, result == 0 && skips, joined(wait));
}

int poll(struct pollfd *fds, nfds_t count, int timeout) {
  const int64_t wait = timeout * (int64_t)MS / (shared->pace > 0 ? shared->pace : 1);
  const int result = poll_for(wait, fds, count, NULL);
  return waited(result, result == 0, timeout * (int64_t)MS - wait);
}

int setsockopt(int socket, int level, int option, const void *value, socklen_t size) {
  long time_out[2];  // as every kernel takes it
  if (level == SOL_SOCKET && (option == SO_RCVTIMEO || option == SO_SNDTIMEO)) {
    const struct timeval *time = value;
    const int64_t pace = time->tv_sec >= 5 && shared->pace > 1 ? shared->pace : 1;
    time_out[0] = (long)(time->tv_sec / pace);
    time_out[1] = (long)((time->tv_sec % pace * 1000000 + time->tv_usec) / pace);
    option = option == SO_RCVTIMEO ? SO_RCVTIMEO_OLD : SO_SNDTIMEO_OLD;
    value = time_out;
    size = sizeof time_out;
  }
  return (int)syscall(SYS_setsockopt, socket, level, option, value, size);
}
