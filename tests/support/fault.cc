#include "support/fault.h"

#include <errno.h>
#include <poll.h>
#include <pthread.h>
#include <signal.h>
#include <stdio.h>
#include <sys/socket.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <deque>
#include <mutex>

#include "core/context.h"

// --- Faults --------------------------------------------------------------------------------------

struct Armed {
  std::atomic<int> calls_left = 0;  // until the failing one; 0 when nothing is armed
  std::atomic<int> error = 0;
  std::atomic<bool> repeats = false;
  std::atomic<bool> struck = false;
};

static std::array<Armed, static_cast<size_t>(Call::COUNT)> armed;

static Armed &armed_for(Call call) {
  return armed.at(static_cast<size_t>(call));
}

Fault::Fault(Call call, int nth, int error, Times times) : call_(call) {
  Armed &fault = armed_for(call);
  fault.error = error;
  fault.repeats = times == Times::FROM_THEN_ON;
  fault.struck = false;
  fault.calls_left = nth;
}

Fault::~Fault() {
  armed_for(call_).calls_left = 0;
}

bool Fault::struck() const {
  return armed_for(call_).struck;
}

// The error of this call, or 0 when it is to be done.
static int fault_of(Call call) {
  Armed &fault = armed_for(call);
  if (fault.calls_left == 0) return 0;
  if (--fault.calls_left > 0) return 0;
  if (fault.repeats) fault.calls_left = 1;
  fault.struck = true;
  return fault.error;
}

static bool fails(Call call) {
  const int error = fault_of(call);
  if (error != 0) errno = error;
  return error != 0;
}

// --- Scripted sends and writes -------------------------------------------------------------------

static std::mutex script_lock;
static std::deque<int> script;
static std::atomic<bool> scripted = false;
static Io script_kind;

IoScript::IoScript(Io kind, std::vector<int> steps) {
  const std::lock_guard hold(script_lock);
  script_kind = kind;
  script.assign(steps.begin(), steps.end());
  scripted = true;
}

IoScript::~IoScript() {
  scripted = false;
}

bool IoScript::used_up() const {
  const std::lock_guard hold(script_lock);
  return script.empty();
}

static int next_step(Io kind) {
  if (!scripted) return WHOLE;
  const std::lock_guard hold(script_lock);
  if (script_kind != kind || script.empty()) return WHOLE;
  const int step = script.front();
  script.pop_front();
  return step;
}

// --- Clocks --------------------------------------------------------------------------------------

static constexpr time_t REAL = -2;
static std::atomic<time_t> wall_time = REAL;

void WallClock::set(time_t now) {
  wall_time = now;
}

WallClock::~WallClock() {
  wall_time = REAL;
}

static std::atomic<int64_t> frozen_ms = -1;  // the monotonic clock, -1 when it runs
static std::vector<int64_t> recorded_pauses;
static size_t pause_limit;

FrozenClock::FrozenClock(size_t limit) {
  recorded_pauses.clear();
  pause_limit = limit;
  frozen_ms = 1'000'000;
}

FrozenClock::~FrozenClock() {
  frozen_ms = -1;
}

std::vector<int64_t> FrozenClock::pauses() const {
  return recorded_pauses;
}

static void pass_time(int64_t milliseconds) {
  recorded_pauses.push_back(milliseconds);
  frozen_ms += milliseconds;
  if (recorded_pauses.size() >= pause_limit) proxy_context.running = 0;
}

static int64_t in_milliseconds(const timespec &time) {
  return int64_t{time.tv_sec} * 1000 + time.tv_nsec / 1'000'000;
}

NoRoomForFiles::NoRoomForFiles() {
  getrlimit(RLIMIT_FSIZE, &before_);
  signal(SIGXFSZ, SIG_IGN);
  const rlimit none = {.rlim_cur = 0, .rlim_max = before_.rlim_max};
  setrlimit(RLIMIT_FSIZE, &none);
}

NoRoomForFiles::~NoRoomForFiles() {
  setrlimit(RLIMIT_FSIZE, &before_);
}

static std::atomic<bool> files_unbuffered = false;

UnbufferedFiles::UnbufferedFiles() {
  files_unbuffered = true;
}

UnbufferedFiles::~UnbufferedFiles() {
  files_unbuffered = false;
}

// --- The wrappers, in the names that the linker gives them ---------------------------------------

// NOLINTBEGIN(readability-identifier-naming,bugprone-reserved-identifier)
extern "C" {
void *__real_malloc(size_t);
void *__real_calloc(size_t, size_t);
void *__real_realloc(void *, size_t);
int __real_socket(int, int, int);
int __real_setsockopt(int, int, int, const void *, socklen_t);
int __real_pthread_create(pthread_t *, const pthread_attr_t *, void *(*)(void *), void *);
int __real_pthread_cond_timedwait(pthread_cond_t *, pthread_mutex_t *, const timespec *);
ssize_t __real_send(int, const void *, size_t, int);
ssize_t __real_write(int, const void *, size_t);
time_t __real_time(time_t *);
int __real_clock_gettime(clockid_t, timespec *);
int __real_ppoll(pollfd *, nfds_t, const timespec *, const sigset_t *);
FILE *__real_fdopen(int, const char *);

void *__wrap_malloc(size_t size) {
  return fails(Call::ALLOCATE) ? nullptr : __real_malloc(size);
}

void *__wrap_calloc(size_t count, size_t size) {
  return fails(Call::ALLOCATE) ? nullptr : __real_calloc(count, size);
}

void *__wrap_realloc(void *memory, size_t size) {
  return fails(Call::ALLOCATE) ? nullptr : __real_realloc(memory, size);
}

int __wrap_socket(int domain, int type, int protocol) {
  return fails(Call::SOCKET) ? -1 : __real_socket(domain, type, protocol);
}

int __wrap_setsockopt(int fd, int level, int option, const void *value, socklen_t size) {
  return fails(Call::SETSOCKOPT) ? -1 : __real_setsockopt(fd, level, option, value, size);
}

int __wrap_pthread_create(pthread_t *thread, const pthread_attr_t *attributes,
                          void *(*body)(void *), void *argument) {
  const int error = fault_of(Call::PTHREAD_CREATE);
  return error != 0 ? error : __real_pthread_create(thread, attributes, body, argument);
}

int __wrap_pthread_cond_timedwait(pthread_cond_t *condition, pthread_mutex_t *mutex,
                                  const timespec *deadline) {
  if (frozen_ms < 0) return __real_pthread_cond_timedwait(condition, mutex, deadline);
  pass_time(in_milliseconds(*deadline) - frozen_ms);
  return ETIMEDOUT;
}

int __wrap_ppoll(pollfd *fds, nfds_t count, const timespec *timeout, const sigset_t *mask) {
  if (frozen_ms < 0) return __real_ppoll(fds, count, timeout, mask);
  pass_time(in_milliseconds(*timeout));
  return 0;
}

ssize_t __wrap_send(int fd, const void *data, size_t size, int flags) {
  const int step = next_step(Io::SEND);
  if (step > 0) return __real_send(fd, data, std::min(size, static_cast<size_t>(step)), flags);
  errno = -step;
  return step == 0 ? 0 : -1;
}

ssize_t __wrap_write(int fd, const void *data, size_t size) {
  const int step = next_step(Io::WRITE);
  if (step > 0) return __real_write(fd, data, std::min(size, static_cast<size_t>(step)));
  errno = -step;
  return step == 0 ? 0 : -1;
}

time_t __wrap_time(time_t *out) {
  const time_t now = wall_time;
  if (now == REAL) return __real_time(out);
  if (now == -1) errno = EOVERFLOW;
  return now;
}

int __wrap_clock_gettime(clockid_t clock, timespec *now) {
  const int64_t frozen = frozen_ms;
  if (frozen < 0 || clock != CLOCK_MONOTONIC) return __real_clock_gettime(clock, now);
  *now = {.tv_sec = static_cast<time_t>(frozen / 1000), .tv_nsec = frozen % 1000 * 1'000'000};
  return 0;
}

FILE *__wrap_fdopen(int descriptor, const char *mode) {
  FILE *file = __real_fdopen(descriptor, mode);
  if (file && files_unbuffered) setvbuf(file, nullptr, _IONBF, 0);
  return file;
}
}
// NOLINTEND(readability-identifier-naming,bugprone-reserved-identifier)
