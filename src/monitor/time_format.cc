#include "monitor/time_format.h"

#include <stddef.h>

static constexpr uint32_t MINUTE_S = 60;
static constexpr uint32_t HOUR_S = 60 * MINUTE_S;
static constexpr uint32_t DAY_S = 24 * HOUR_S;

static constexpr size_t DATE_TIME_SIZE = 32;  // bytes; room for years of more than four digits

bool format_duration(uint32_t seconds, StringBuilder *out) {
  if (seconds >= DAY_S) {
    return string_builder_appendf(out, "%ud %02uh", seconds / DAY_S, seconds % DAY_S / HOUR_S);
  }
  if (seconds >= HOUR_S) {
    return string_builder_appendf(out, "%uh %02um", seconds / HOUR_S, seconds % HOUR_S / MINUTE_S);
  }
  if (seconds >= MINUTE_S) {
    return string_builder_appendf(out, "%um %02us", seconds / MINUTE_S, seconds % MINUTE_S);
  }
  return string_builder_appendf(out, "%us", seconds);
}

bool format_date_time(time_t when, StringBuilder *out) {
  tm local = {};
  char text[DATE_TIME_SIZE];
  // The reentrant conversion: log lines of other threads convert times at the same moment.
  return localtime_r(&when, &local) &&
         strftime(text, sizeof text, "%Y-%m-%d %H:%M:%S", &local) != 0 &&
         string_builder_append(out, text);
}
