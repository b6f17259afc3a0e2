// Faults for the unit tests, through the linker's --wrap: the C library calls that the agent's
// library makes go through the wrappers of fault.cc, which do the real thing unless a test has
// armed one of these. One of each kind at a time; armed and taken back on the test's thread.
#pragma once

#include <stdint.h>
#include <sys/resource.h>
#include <time.h>

#include <climits>
#include <vector>

enum class Call {
  ALLOCATE,  // malloc, calloc, realloc
  SOCKET,
  SETSOCKOPT,
  PTHREAD_CREATE,
  COUNT,
};

enum class Times { ONCE, FROM_THEN_ON };

// Makes the nth call of a kind fail with an error number, while it lives.
class Fault {
 public:
  Fault(Call call, int nth, int error, Times times = Times::ONCE);
  Fault(const Fault &) = delete;
  Fault &operator=(const Fault &) = delete;
  ~Fault();

  [[nodiscard]] bool struck() const;

 private:
  Call call_;
};

// Runs body(fault) with the 1st, 2nd, 3rd ... allocation failing, until a run gets through
// untouched. Returns the number of allocations that were failed.
template <typename Body>
int fail_each_allocation(Times times, const Body &body) {
  for (int nth = 1;; nth++) {
    const Fault fault(Call::ALLOCATE, nth, 12 /* ENOMEM */, times);
    body(fault);
    if (!fault.struck()) return nth - 1;
  }
}

enum class Io { SEND, WRITE };

inline constexpr int WHOLE = INT_MAX;

// Decides the results of the next sends (or writes) of the process: a positive step lets at most so
// many bytes through, 0 is returned as it is, a negative one fails with that error number. After
// the last step calls are real again.
class IoScript {
 public:
  IoScript(Io kind, std::vector<int> steps);
  IoScript(const IoScript &) = delete;
  IoScript &operator=(const IoScript &) = delete;
  ~IoScript();

  [[nodiscard]] bool used_up() const;
};

// Sets the wall clock: time() returns this while it lives.
class WallClock {
 public:
  explicit WallClock(time_t now) { set(now); }
  WallClock(const WallClock &) = delete;
  WallClock &operator=(const WallClock &) = delete;
  ~WallClock();

  void set(time_t now);
  void fail() { set(-1); }  // with EOVERFLOW
};

// Stops the monotonic clock. Pauses take no time: they are recorded, in milliseconds, and the clock
// is moved on by them. The agent's `running` is cleared by the pause after `limit` of them.
class FrozenClock {
 public:
  explicit FrozenClock(size_t limit = SIZE_MAX);
  FrozenClock(const FrozenClock &) = delete;
  FrozenClock &operator=(const FrozenClock &) = delete;
  ~FrozenClock();

  [[nodiscard]] std::vector<int64_t> pauses() const;
};

// No file of the process may grow while it lives (EFBIG), as on a disk that is full.
class NoRoomForFiles {
 public:
  NoRoomForFiles();
  NoRoomForFiles(const NoRoomForFiles &) = delete;
  NoRoomForFiles &operator=(const NoRoomForFiles &) = delete;
  ~NoRoomForFiles();

 private:
  rlimit before_;
};

// Files opened while it lives are unbuffered, so that a full disk fails the write itself.
class UnbufferedFiles {
 public:
  UnbufferedFiles();
  UnbufferedFiles(const UnbufferedFiles &) = delete;
  UnbufferedFiles &operator=(const UnbufferedFiles &) = delete;
  ~UnbufferedFiles();
};
