// The connection-health score of one relay, kept by its camera-to-cloud direction: a relay that
// keeps failing to send is ended, and the next cycle builds a fresh connection. Pure.
#pragma once

#include <time.h>

inline constexpr int HEALTH_CHECK_INTERVAL = 30;  // wall-clock seconds
inline constexpr int HEALTH_MINIMUM = 50;         // a check below it ends the relay

struct RelayHealth {
  int score = 100;  // 0 to 100
  time_t checked;   // wall-clock second of the last check
};

void health_data_received(RelayHealth *health);
void health_send_timed_out(RelayHealth *health);
void health_send_failed(RelayHealth *health);

// To be asked at the top of the loop. False when a check is due and the score is too low; a check
// that is passed is marked as done.
[[nodiscard]] bool health_check(RelayHealth *health, time_t now);
