// The flags that threads and the signal handler share without a lock: `running` and its like.
#pragma once

#include <atomic>

// One byte, clear at first. std::atomic_flag is the one type that the language promises to be free
// of locks on every processor: with gcc 12, bytes are not on RISC-V nor on ARMv5, and integers are
// not on ARMv5. A signal handler could wait for ever for a lock that its own thread holds.
class AtomicFlag {
 public:
  operator bool() const { return flag_.test(); }
  AtomicFlag &operator=(bool set) {
    if (set) {
      flag_.test_and_set();
    } else {
      flag_.clear();
    }
    return *this;
  }

 private:
  std::atomic_flag flag_;
};

static_assert(sizeof(AtomicFlag) == 1, "a flag is a byte, with no lock beside it");
