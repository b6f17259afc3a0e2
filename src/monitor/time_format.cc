#include "monitor/time_format.h"

#include <time.h>

#include "core/text.h"

static constexpr uint32_t MINUTE = 60;         // seconds
static constexpr uint32_t HOUR = 60 * MINUTE;  // seconds
static constexpr uint32_t DAY = 24 * HOUR;     // seconds

static constexpr size_t DURATION_CAPACITY = 64;
static constexpr size_t DATE_TIME_CAPACITY = 32;
static constexpr size_t NOT_AVAILABLE_CAPACITY = 16;

uint32_t monitor_get_uptime() {
  MutexLock lock(&monitor.lock);
  if (!lock.acquire()) return 0;
  const time_t now = time(nullptr);
  if (now == -1) return 0;
  const auto uptime = static_cast<uint32_t>(now - monitor.start_time);
  monitor.uptime = uptime;
  return uptime;
}

uint64_t monitor_get_streaming_duration(int stream_id) {
  MutexLock lock(&monitor.lock);
  if (!lock.acquire()) return 0;
  if (!monitor_knows(stream_id)) return 0;
  StreamMonitorState *record = &monitor.streams[stream_id - 1];
  if (record->streaming_since == 0) return 0;
  const time_t now = time(nullptr);
  if (now == -1) return 0;
  // A 32-bit difference, sign-extended: a clock that was set back gives a huge duration, which
  // the text shows as the longest one.
  const auto difference = static_cast<int32_t>(now - record->streaming_since);
  record->streaming_duration = static_cast<uint64_t>(int64_t{difference});
  return record->streaming_duration;
}

bool format_duration(uint32_t seconds, StringBuilder *out) {
  if (seconds >= DAY) {
    return string_builder_appendf(out, "%ud %02uh", seconds / DAY, seconds % DAY / HOUR);
  }
  if (seconds >= HOUR) {
    return string_builder_appendf(out, "%uh %02um", seconds / HOUR, seconds % HOUR / MINUTE);
  }
  if (seconds >= MINUTE) {
    return string_builder_appendf(out, "%um %02us", seconds / MINUTE, seconds % MINUTE);
  }
  return string_builder_appendf(out, "%us", seconds);
}

static char *copy_duration(uint32_t seconds, char *buffer, size_t size) {
  const StringBuilderOwner text(string_builder_create(DURATION_CAPACITY));
  if (!text || !format_duration(seconds, text.get())) {
    buffer[0] = '\0';
    return nullptr;
  }
  text_copy_to(buffer, size, text->data);
  return buffer;
}

char *monitor_format_uptime(char *buffer, size_t size) {
  if (!buffer || size == 0) return nullptr;
  return copy_duration(monitor_get_uptime(), buffer, size);
}

static char *copy_not_available(char *buffer, size_t size) {
  const StringBuilderOwner text(string_builder_create(NOT_AVAILABLE_CAPACITY));
  if (!text || !string_builder_append(text.get(), "N/A")) {
    buffer[0] = '\0';
    return nullptr;
  }
  text_copy_to(buffer, size, text->data);
  return buffer;
}

char *monitor_format_stream_uptime(int stream_id, char *buffer, size_t size) {
  if (!buffer || size == 0) return nullptr;
  const uint64_t duration =
      monitor_knows(stream_id) ? monitor_get_streaming_duration(stream_id) : 0;
  if (duration == 0) return copy_not_available(buffer, size);
  const auto shown = duration > UINT32_MAX ? UINT32_MAX : static_cast<uint32_t>(duration);
  return copy_duration(shown, buffer, size);
}

static bool append_local_time(time_t when, StringBuilder *out) {
  tm local = {};
  char text[DATE_TIME_CAPACITY];
  return localtime_r(&when, &local) &&
         strftime(text, sizeof text, "%Y-%m-%d %H:%M:%S", &local) != 0 &&
         string_builder_append(out, text);
}

char *monitor_format_start_time(char *buffer, size_t size) {
  if (!buffer || size == 0) return nullptr;
  buffer[0] = '\0';
  MutexLock lock(&monitor.lock);
  if (!lock.acquire()) return nullptr;
  const StringBuilderOwner text(string_builder_create(DATE_TIME_CAPACITY));
  if (!text || !append_local_time(monitor.start_time, text.get())) return nullptr;
  text_copy_to(buffer, size, text->data);
  return buffer;
}
