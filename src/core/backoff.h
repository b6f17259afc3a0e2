// The doubling back-off: of the balancer client and the stream threads in seconds, of a relay's
// sends in milliseconds.
#pragma once

#include <algorithm>

// The smaller of twice the delay and the cap, in the unit of both.
[[nodiscard]] constexpr int next_retry_delay(int delay, int cap) {
  return std::min(delay * 2, cap);
}
