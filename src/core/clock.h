// The monotonic clock: pauses, back-off and time limits never depend on the wall clock, which jumps
// when the device first learns the time.
#pragma once

#include <stdint.h>
#include <time.h>

static_assert(sizeof(time_t) == 8, "the C library must offer 64-bit times");

// Milliseconds since some fixed moment. Any thread.
[[nodiscard]] inline int64_t monotonic_ms() {
  timespec now;
  clock_gettime(CLOCK_MONOTONIC, &now);
  return int64_t{now.tv_sec} * 1000 + now.tv_nsec / 1'000'000;
}

// The monotonic time that many milliseconds from now, as condition variables take it.
[[nodiscard]] inline timespec monotonic_deadline(int milliseconds) {
  const int64_t end = monotonic_ms() + milliseconds;
  return {.tv_sec = static_cast<time_t>(end / 1000),
          .tv_nsec = static_cast<long>(end % 1000) * 1'000'000L};
}
