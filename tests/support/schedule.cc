// Odd schedules for the `stress` build. The compiler calls the function below at every function's
// entry and after every branch, and thereby around all that takes a lock or changes a flag. The
// seed chooses some of these places, and threads that come by one may be held up for a while: long
// enough for the others to run through whatever it leaves open.
#include <errno.h>
#include <stdint.h>
#include <stdlib.h>
#include <time.h>

#define NOT_A_PLACE __attribute__((no_sanitize("coverage")))

static constexpr uint64_t PASSES = 2;         // a thread is held up in one of so many
static constexpr uint8_t MOST_HOLDS = 5;      // of one thread at one place: loops must end
static constexpr uint64_t LONGEST_US = 2000;  // of one hold

// A number from 1; without one nothing is held up.
static const char *const SEED_TEXT = getenv("SCHEDULE_SEED");
static const uint64_t SEED = SEED_TEXT ? strtoull(SEED_TEXT, nullptr, 10) : 0;

NOT_A_PLACE static uint64_t mixed(uint64_t value) {
  value = (value ^ value >> 30) * 0xbf58476d1ce4e5b9;
  value = (value ^ value >> 27) * 0x94d049bb133111eb;
  return value ^ value >> 31;
}

extern "C" NOT_A_PLACE void __sanitizer_cov_trace_pc() {
  static thread_local uint64_t passes = 0;
  static thread_local uint8_t holds[1024] = {};
  if (SEED == 0) return;
  // Addresses differ from run to run, distances do not.
  const uint64_t place = mixed(reinterpret_cast<uint64_t>(__builtin_return_address(0)) -
                               reinterpret_cast<uint64_t>(&__sanitizer_cov_trace_pc));
  const uint64_t places = 2U << SEED % 5;  // one of so many is chosen: many or few, by the seed
  if (mixed(SEED + place) % places != 0) return;
  const uint64_t chance = mixed(SEED ^ mixed(++passes));
  uint8_t &held = holds[place % 1024];
  if (chance % PASSES != 0 || held == MOST_HOLDS) return;
  held++;
  const int saved_errno = errno;
  const timespec hold = {.tv_sec = 0,
                         .tv_nsec = static_cast<long>(chance / PASSES % LONGEST_US) * 1000};
  nanosleep(&hold, nullptr);
  errno = saved_errno;
}
