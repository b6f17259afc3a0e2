// Preloaded into the agent by tests that let its calls fail, or move one byte only: one call of a
// function, several in a row, or every so often. Calls within the C library pass by, but for those
// that take memory.
#define _GNU_SOURCE
#include <dlfcn.h>
#include <errno.h>
#include <poll.h>
#include <pthread.h>
#include <semaphore.h>
#include <stdatomic.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

static struct {           // with the test
  char function[24];      // whose calls are counted
  int64_t error;          // with which they fail; 0: they move one byte, or return late
  int64_t first, last;    // the calls, from 1 on, that do
  int64_t step;           // every so many of these
  _Atomic int64_t calls;  // so far
} * shared;

__attribute__((constructor)) static void attach(void) {
  FILE *file = fopen(getenv("TEST_FAULTS"), "r+");
  shared = mmap(NULL, sizeof *shared, PROT_READ | PROT_WRITE, MAP_SHARED, fileno(file), 0);
  fclose(file);
}

static int strikes(const char *function) {
  if (!shared || strcmp(function, shared->function) != 0) return 0;
  const int64_t call = ++shared->calls;
  if (call < shared->first || call > shared->last || (call - shared->first) % shared->step != 0)
    return 0;
  errno = (int)shared->error;
  return 1;
}

// What the system has done all the same before it says that it failed.
#define DONE(call) ((void)(call), (void)(errno = (int)shared->error))

#define CALL(result, name, parameters, arguments, failure)           \
  result name parameters {                                           \
    static result(*_Atomic real) parameters;                         \
    if (!real) real = (result(*) parameters)dlsym(RTLD_NEXT, #name); \
    return strikes(#name) ? failure : real arguments;                \
  }

#define TRANSFER(name, parameters, arguments)                         \
  ssize_t name parameters {                                           \
    static ssize_t(*_Atomic real) parameters;                         \
    if (!real) real = (ssize_t(*) parameters)dlsym(RTLD_NEXT, #name); \
    if (strikes(#name)) {                                             \
      if (shared->error != 0) return -1;                              \
      size = 1;                                                       \
    }                                                                 \
    return real arguments;                                            \
  }

TRANSFER(recv, (int fd, void *data, size_t size, int flags), (fd, data, size, flags))
TRANSFER(send, (int fd, const void *data, size_t size, int flags), (fd, data, size, flags))
TRANSFER(read, (int fd, void *data, size_t size), (fd, data, size))
TRANSFER(write, (int fd, const void *data, size_t size), (fd, data, size))
CALL(int, socket, (int family, int type, int protocol), (family, type, protocol), -1)
CALL(int, connect, (int fd, const struct sockaddr *to, socklen_t size), (fd, to, size),
     (errno == EINTR ? DONE(real(fd, to, size)) : (void)0, -1))
CALL(int, accept4, (int fd, struct sockaddr *from, socklen_t *size, int flags),
     (fd, from, size, flags), -1)
CALL(int, bind, (int fd, const struct sockaddr *to, socklen_t size), (fd, to, size), -1)
CALL(int, listen, (int fd, int backlog), (fd, backlog), -1)
CALL(int, setsockopt, (int fd, int level, int option, const void *value, socklen_t size),
     (fd, level, option, value, size), -1)
CALL(int, getsockopt, (int fd, int level, int option, void *value, socklen_t *size),
     (fd, level, option, value, size), -1)
CALL(int, shutdown, (int fd, int how), (fd, how), errno ? -1 : real(fd, how) + usleep(100000))
CALL(int, close, (int fd), (fd), (DONE(real(fd)), -1))
CALL(int, fcntl64, (int fd, int command, long value), (fd, command, value), -1)
CALL(int, ioctl, (int fd, unsigned long request, void *value), (fd, request, value), -1)
CALL(int, pipe2, (int ends[2], int flags), (ends, flags), -1)
CALL(int, poll, (struct pollfd * fds, nfds_t count, int wait), (fds, count, wait), -1)
CALL(int, ppoll,
     (struct pollfd * fds, nfds_t count, const struct timespec *wait, const sigset_t *mask),
     (fds, count, wait, mask), -1)
CALL(int, open64, (const char *path, int flags, mode_t mode), (path, flags, mode), -1)
CALL(int, fsync, (int fd), (fd), -1)
CALL(int, fstat64, (int fd, struct stat64 *status), (fd, status), -1)
CALL(int, stat64, (const char *path, struct stat64 *status), (path, status), -1)
CALL(int, remove, (const char *path), (path), -1)
CALL(FILE *, fdopen, (int fd, const char *mode), (fd, mode), NULL)
CALL(char *, fgets, (char *text, int size, FILE *file), (text, size, file),
     (file->_flags |= _IO_ERR_SEEN, NULL))
CALL(int, fputc, (int byte, FILE *file), (byte, file), EOF)
CALL(int, fflush, (FILE * file), (file), EOF)
CALL(size_t, fwrite, (const void *data, size_t size, size_t count, FILE *file),
     (data, size, count, file), 0)
CALL(int, fclose, (FILE * file), (file), (DONE(real(file)), EOF))
CALL(void *, malloc, (size_t size), (size), NULL)
CALL(void *, calloc, (size_t count, size_t size), (count, size), NULL)
CALL(void *, realloc, (void *old, size_t size), (old, size), NULL)
CALL(void *, mmap64, (void *at, size_t size, int access, int flags, int fd, off64_t offset),
     (at, size, access, flags, fd, offset), MAP_FAILED)
CALL(int, madvise, (void *at, size_t size, int advice), (at, size, advice), -1)
CALL(int, pthread_create,
     (pthread_t * thread, const pthread_attr_t *attributes, void *(*body)(void *), void *argument),
     (thread, attributes, body, argument), errno)
CALL(int, pthread_mutex_init, (pthread_mutex_t * mutex, const pthread_mutexattr_t *attributes),
     (mutex, attributes), errno)
CALL(int, sem_wait, (sem_t * semaphore), (semaphore), -1)
CALL(time_t, time, (time_t * out), (out), -1)
CALL(struct tm *, localtime_r, (const time_t *when, struct tm *out), (when, out), NULL)
