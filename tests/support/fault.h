// Faults for the unit tests, through the linker's --wrap: the C library calls that the agent's
// library makes go through the wrappers below, which do the real thing unless a test has put
// something else in its place.
#pragma once

#include <errno.h>
#include <poll.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <functional>
#include <string>
#include <vector>

#include "core/context.h"

template <typename Result, typename... Arguments>
struct Wrapped {
  explicit constexpr Wrapped(Result (*function)(Arguments...)) : real(function) {}
  Result operator()(Arguments... arguments) {
    const std::function<Result(Arguments...)> *hook = stand_in;
    return hook ? (*hook)(arguments...) : real(arguments...);
  }

  Result (*real)(Arguments...);
  std::atomic<const std::function<Result(Arguments...)> *> stand_in = nullptr;
};

// `send_call` for send, and so on; in the names that the linker gives them.
#define WRAP(result, name, parameters, arguments)                           \
  extern "C" result __real_##name parameters;                               \
  inline constinit Wrapped name##_call(&__real_##name);                     \
  extern "C" __attribute__((used)) inline result __wrap_##name parameters { \
    return name##_call arguments;                                           \
  }

WRAP(int, setsockopt, (int fd, int level, int option, const void *value, socklen_t size),
     (fd, level, option, value, size))
WRAP(int, getsockopt, (int fd, int level, int option, void *value, socklen_t *size),
     (fd, level, option, value, size))
WRAP(ssize_t, send, (int fd, const void *data, size_t size, int flags), (fd, data, size, flags))
WRAP(int, poll, (pollfd * fds, nfds_t count, int timeout), (fds, count, timeout))
WRAP(int, ppoll, (pollfd * fds, nfds_t count, const timespec *timeout, const sigset_t *mask),
     (fds, count, timeout, mask))
WRAP(time_t, time, (time_t * out), (out))
WRAP(int, clock_gettime, (clockid_t clock, timespec *now), (clock, now))
WRAP(int, pthread_create,
     (pthread_t * thread, const pthread_attr_t *attributes, void *(*body)(void *), void *argument),
     (thread, attributes, body, argument))
WRAP(int, pthread_cond_timedwait,
     (pthread_cond_t * condition, pthread_mutex_t *mutex, const timespec *deadline),
     (condition, mutex, deadline))

// One for all that takes memory: -1 fails one.
inline constinit Wrapped allocation_call(+[] { return 0; });

#define WRAP_ALLOCATION(result, name, parameters, arguments, failure)       \
  extern "C" result __real_##name parameters;                               \
  extern "C" __attribute__((used)) inline result __wrap_##name parameters { \
    return allocation_call() == 0 ? __real_##name arguments : failure;      \
  }

WRAP_ALLOCATION(void *, malloc, (size_t size), (size), nullptr)
WRAP_ALLOCATION(void *, calloc, (size_t count, size_t size), (count, size), nullptr)
WRAP_ALLOCATION(void *, realloc, (void *old, size_t size), (old, size), nullptr)
WRAP_ALLOCATION(FILE *, fdopen, (int fd, const char *mode), (fd, mode), nullptr)
WRAP_ALLOCATION(void *, mmap64,
                (void *at, size_t size, int access, int flags, int fd, off64_t offset),
                (at, size, access, flags, fd, offset), MAP_FAILED)

// Stands in for a call, on every thread, while it lives; without a result, before the real call.
template <typename Result, typename... Arguments>
class Hook {
 public:
  template <typename Function>
  Hook(Wrapped<Result, Arguments...> &call, Function function)
      : call_(call), stand_in_([&call, function](Arguments... arguments) -> Result {
          if constexpr (std::is_void_v<std::invoke_result_t<Function, Arguments...>>) {
            function(arguments...);
            return call.real(arguments...);
          } else {
            return function(arguments...);
          }
        }) {
    call_.stand_in = &stand_in_;
  }
  ~Hook() { call_.stand_in = nullptr; }

 private:
  Wrapped<Result, Arguments...> &call_;
  const std::function<Result(Arguments...)> stand_in_;
};

// What the next sends of the process meet: a failure that passes (f), no room (r), an interruption
// (i), a connection closed (p) or reset (c), room for some bytes (digits) or for all (w), as from
// then on.
class SendScript {
 public:
  explicit SendScript(std::string steps)
      : steps_(std::move(steps)),
        hook_(send_call, [this](int fd, const void *data, size_t size, int flags) {
          static constexpr int ERRORS[] = {ENOBUFS, EAGAIN, EINTR, EPIPE, ECONNRESET};
          const size_t at = next_++;
          const char step = at < steps_.size() ? steps_[at] : 'w';
          const size_t error = std::string("fripc").find(step);
          if (error == std::string::npos) {
            return send_call.real(fd, data, step == 'w' ? size : std::min(size, size_t(step - '0')),
                                  flags);
          }
          errno = ERRORS[error];
          return ssize_t{-1};
        }) {}
  [[nodiscard]] bool used_up() const { return next_ >= steps_.size(); }

 private:
  const std::string steps_;
  std::atomic<size_t> next_ = 0;
  Hook<ssize_t, int, const void *, size_t, int> hook_;
};

// Sets the wall clock: time() returns this while it lives.
class WallClock {
 public:
  explicit WallClock(time_t start)
      : now(start), hook_(time_call, [this](time_t *) { return now.load(); }) {}

  std::atomic<time_t> now;

 private:
  Hook<time_t, time_t *> hook_;
};

// Stops the monotonic clock. Pauses take no time: they are noted, in milliseconds, and the clock is
// moved on by them. The `limit`th clears the agent's `running`.
class FrozenClock {
 public:
  explicit FrozenClock(size_t limit = SIZE_MAX)
      : clock_(clock_gettime_call,
               [this](clockid_t, timespec *now) {
                 *now = {.tv_sec = now_ms_ / 1000, .tv_nsec = now_ms_ % 1000 * 1'000'000};
                 return 0;
               }),
        main_pause_(ppoll_call,
                    [=, this](auto, auto, const timespec *length, auto) {
                      pause(*length, 0, limit);
                      return 0;
                    }),
        worker_pause_(pthread_cond_timedwait_call, [=, this](auto, auto, const timespec *end) {
          pause(*end, now_ms_, limit);
          return ETIMEDOUT;
        }) {}

  void pass(int64_t milliseconds) { now_ms_ += milliseconds; }

  std::vector<int64_t> pauses;

 private:
  void pause(const timespec &end, int64_t start_ms, size_t limit) {
    pauses.push_back(end.tv_sec * 1000 + end.tv_nsec / 1'000'000 - start_ms);
    pass(pauses.back());
    if (pauses.size() >= limit) proxy_context.running = false;
  }

  int64_t now_ms_ = 1'000'000;
  Hook<int, clockid_t, timespec *> clock_;
  Hook<int, pollfd *, nfds_t, const timespec *, const sigset_t *> main_pause_;
  Hook<int, pthread_cond_t *, pthread_mutex_t *, const timespec *> worker_pause_;
};
