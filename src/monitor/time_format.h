// How a length of time and a moment are written. Pure; any thread.
#pragma once

#include <stdint.h>
#include <time.h>

#include "core/string_builder.h"

// Appends the largest unit reached and the next smaller one, e.g. "1h 00m". False without memory.
[[nodiscard]] bool format_duration(uint32_t seconds, StringBuilder *out);

// Appends local date and time as "%Y-%m-%d %H:%M:%S". False without memory, or for a moment that
// the calendar does not hold.
[[nodiscard]] bool format_date_time(time_t when, StringBuilder *out);
