#include "stream/relay_health.h"

#include <algorithm>

static constexpr int SCORE_MAXIMUM = 100;
static constexpr int RECEIVED_GAIN = 5;
static constexpr int TIMED_OUT_LOSS = 1;
static constexpr int FAILED_LOSS = 10;

static void lower(RelayHealth *health, int loss) {
  health->score = std::max(health->score - loss, 0);
}

void health_data_received(RelayHealth *health) {
  health->score = std::min(health->score + RECEIVED_GAIN, SCORE_MAXIMUM);
}

void health_send_timed_out(RelayHealth *health) {
  lower(health, TIMED_OUT_LOSS);
}

void health_send_failed(RelayHealth *health) {
  lower(health, FAILED_LOSS);
}

// A check that fails stays due: the relay ends by it.
bool health_check(RelayHealth *health, time_t now) {
  // A clock that was set back begins a new interval, or there would be no check until it has caught
  // up.
  if (now < health->checked) health->checked = now;
  if (now - health->checked < HEALTH_CHECK_INTERVAL) return true;
  if (health->score < HEALTH_MINIMUM) return false;
  health->checked = now;
  return true;
}
