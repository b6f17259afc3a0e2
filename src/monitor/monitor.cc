#include "monitor/monitor.h"

#include <errno.h>
#include <stdlib.h>
#include <string.h>

#include "core/config.h"
#include "core/context.h"
#include "core/log.h"
#include "core/string_builder.h"
#include "core/text.h"
#include "monitor/status_file.h"
#include "monitor/time_format.h"

// Bytes. Each text is made in a builder of a size that it usually fits.
static constexpr size_t ERROR_CAPACITY = 256;
static constexpr size_t DURATION_CAPACITY = 64;
static constexpr size_t DATE_TIME_CAPACITY = 32;
static constexpr size_t NOT_AVAILABLE_CAPACITY = 16;
static constexpr size_t START_TIME_SIZE = 32;
static constexpr size_t FINAL_UPTIME_SIZE = 128;

static constexpr const char *STATUS_NAMES[] = {"offline", "connecting", "registered", "streaming",
                                               "error"};

Monitor monitor;

// A number outside the table is kept as it is and only has no name.
static const char *status_name(StreamStatus status) {
  return status >= STREAM_OFFLINE && status <= STREAM_ERROR ? STATUS_NAMES[status] : "unknown";
}

// Nobody else knows the monitor while it is made and zeroed.
static void reset_monitor() UNCHECKED_LOCKS {
  monitor.streams = nullptr;
  monitor.stream_count = 0;
  monitor.start_time = 0;
  monitor.uptime = 0;
}

static void fill_records(size_t count) REQUIRES_LOCK(monitor.lock) {
  const AgentConfig &config = proxy_context.config;
  for (size_t i = 0; i < count; i++) {
    StreamMonitorState *record = &monitor.streams[i];
    record->stream_id = static_cast<uint32_t>(i + 1);
    record->status = STREAM_OFFLINE;
    record->last_change = time(nullptr);
    if (config.stream_urls && i < config.stream_count && config.stream_urls[i]) {
      text_copy_to(record->url, sizeof record->url, config.stream_urls[i]);
    }
  }
}

static bool fill_monitor(size_t count) REQUIRES_LOCK(monitor.lock) {
  monitor.start_time = time(nullptr);
  if (monitor.start_time == -1) {
    log_message(LOG_ERROR, "Failed to get start time: %s", strerror(errno));
    return false;
  }
  monitor.streams = static_cast<StreamMonitorState *>(calloc(count, sizeof *monitor.streams));
  if (!monitor.streams) {
    log_message(LOG_ERROR, "Failed to allocate monitor streams array: %s", strerror(errno));
    return false;
  }
  fill_records(count);
  monitor.stream_count = count;
  return true;
}

// The lock is held while nobody else knows of it: the annotations ask for it.
static bool create_monitor(size_t count) {
  reset_monitor();
  const int result = pthread_mutex_init(&monitor.lock.native, nullptr);
  if (result != 0) {
    log_message(LOG_ERROR, "Failed to initialize monitor mutex: %s", strerror(result));
    return false;
  }
  bool filled = false;
  {
    const ScopedLock lock(&monitor.lock);
    filled = fill_monitor(count);
  }
  if (!filled) pthread_mutex_destroy(&monitor.lock.native);
  return filled;
}

bool monitor_init(size_t stream_count) {
  if (stream_count == 0 || stream_count > MAX_STREAMS) {
    log_message(LOG_ERROR, "Invalid stream count for monitor initialization: %zu", stream_count);
    return false;
  }
  if (!create_monitor(stream_count)) return false;

  char start_time[START_TIME_SIZE];
  if (monitor_format_start_time(start_time, sizeof start_time)) {
    log_message(LOG_INFO, "Monitor started for %zu streams at %s", stream_count, start_time);
  }
  return true;
}

static void apply_status(StreamMonitorState *record, StreamStatus status)
    REQUIRES_LOCK(monitor.lock) {
  if (status == record->status) return;
  log_message(LOG_DEBUG, "Stream %d status change: %s -> %s", static_cast<int>(record->stream_id),
              status_name(record->status), status_name(status));
  const time_t now = time(nullptr);
  // A stream that goes streaming again without having been offline keeps its earlier start.
  if (status == STREAM_STREAMING && record->streaming_since == 0) record->streaming_since = now;
  if (status == STREAM_OFFLINE) {
    record->streaming_since = 0;
    record->streaming_duration = 0;
    record->rate = 0;
  }
  record->status = status;
  record->last_change = now;
  if (status != STREAM_ERROR) {
    record->last_error_code = 0;
    record->last_error_message[0] = '\0';
  }
}

// The status file is written with every update, also with one that changes nothing. The lock is
// released before that, since writing takes it again.
bool monitor_update_status(int stream_id, StreamStatus status) {
  if (!monitor_knows(stream_id)) {
    log_message(LOG_ERROR, "Invalid channel ID in status update: %d", stream_id);
    return false;
  }
  CheckedLock lock(&monitor.lock);
  if (!lock.acquire()) {
    log_message(LOG_ERROR, "Failed to acquire monitor lock for status update");
    return false;
  }
  apply_status(&monitor.streams[stream_id - 1], status);
  if (!lock.release()) {
    log_message(LOG_ERROR, "Failed to release monitor lock after status update");
    return false;
  }
  monitor_write_status_file();
  return true;
}

// Logged under the lock, so that lines of one stream stand in the order of what they report.
static void apply_error(StreamMonitorState *record, int32_t code, const char *message)
    REQUIRES_LOCK(monitor.lock) {
  const time_t now = time(nullptr);
  record->last_error_code = code;
  record->last_error_time = now;
  text_copy_to(record->last_error_message, sizeof record->last_error_message, message);
  record->status = STREAM_ERROR;
  record->last_change = now;
  log_message(LOG_DEBUG, "Stream %d error: [%d] %s", static_cast<int>(record->stream_id), code,
              message);
}

// Neither a change of status in the log nor in the status file: an error lasts for moments, until
// the stream's thread sets it offline.
bool monitor_update_error(int stream_id, int32_t code, const char *message) {
  if (!monitor_knows(stream_id) || !message) {
    log_message(LOG_ERROR, "Invalid parameters in monitor_update_error");
    return false;
  }
  // A copy of its own: the message may live in a buffer that the system reuses (strerror).
  const StringBuilderOwner text(string_builder_create(ERROR_CAPACITY));
  if (!text) {
    log_message(LOG_ERROR, "Failed to create string builder for error message");
    return false;
  }
  if (!string_builder_append(text.get(), message)) {
    log_message(LOG_ERROR, "Failed to append error message to string builder");
    return false;
  }
  CheckedLock lock(&monitor.lock);
  if (!lock.acquire()) {
    log_message(LOG_ERROR, "Failed to acquire monitor lock: %s", strerror(errno));
    return false;
  }
  apply_error(&monitor.streams[stream_id - 1], code, text->data);
  if (!lock.release()) {
    log_message(LOG_ERROR, "Failed to release monitor lock: %s", strerror(errno));
  }
  return true;  // the report stands, whatever becomes of the lock
}

static void apply_stats(StreamMonitorState *record, time_t now, uint64_t sent, uint64_t received)
    REQUIRES_LOCK(monitor.lock) {
  // The first interval counts from the epoch, so that the first rate is 0 in practice.
  const int64_t elapsed = int64_t{now} - int64_t{record->last_update};
  record->bytes_total += sent;
  if (elapsed > 0) record->rate = (sent + received) / static_cast<uint64_t>(elapsed);
  record->last_update = now;
  record->last_change = now;
}

// The clock is read before the lock is taken, so that nobody waits for a clock that fails.
bool monitor_update_stats(int stream_id, uint64_t sent, uint64_t received) {
  if (!monitor_knows(stream_id)) {
    log_message(LOG_ERROR, "Invalid channel ID in monitor_update_stats: %d", stream_id);
    return false;
  }
  const time_t now = time(nullptr);
  if (now == -1) {
    log_message(LOG_ERROR, "Failed to get current time: %s", strerror(errno));
    return false;
  }
  CheckedLock lock(&monitor.lock);
  if (!lock.acquire()) {
    log_message(LOG_ERROR, "Failed to acquire monitor lock: %s", strerror(errno));
    return false;
  }
  apply_stats(&monitor.streams[stream_id - 1], now, sent, received);
  if (!lock.release()) {
    log_message(LOG_ERROR, "Failed to release monitor lock: %s", strerror(errno));
    return false;
  }
  return true;
}

// --- Reading -------------------------------------------------------------------------------------

bool monitor_get_stream_state(int stream_id, StreamMonitorState *copy) {
  if (!copy || !monitor_knows(stream_id)) return false;
  CheckedLock lock(&monitor.lock);
  if (!lock.acquire()) return false;
  const StreamMonitorState &record = monitor.streams[stream_id - 1];
  if (record.stream_id != static_cast<uint32_t>(stream_id)) return false;
  *copy = record;
  return true;
}

bool monitor_append_records(StringBuilder *out, MonitorAppender append) {
  CheckedLock lock(&monitor.lock);
  if (!lock.acquire()) return false;
  return append(out, {monitor.streams, monitor.stream_count});
}

uint32_t monitor_get_uptime() {
  CheckedLock lock(&monitor.lock);
  if (!lock.acquire()) return 0;
  const time_t now = time(nullptr);
  if (now == -1) return 0;
  const auto uptime = static_cast<uint32_t>(now - monitor.start_time);
  monitor.uptime = uptime;
  return uptime;
}

uint64_t monitor_get_streaming_duration(int stream_id) {
  CheckedLock lock(&monitor.lock);
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

// Hands a finished text over, cut to the caller's buffer. None when it could not be made: the
// buffer then holds the empty text.
static char *copy_text(const StringBuilder *text, bool made, char *buffer, size_t size) {
  text_copy_to(buffer, size, made ? text->data : "");
  return made ? buffer : nullptr;
}

static char *copy_duration(uint32_t seconds, char *buffer, size_t size) {
  const StringBuilderOwner text(string_builder_create(DURATION_CAPACITY));
  return copy_text(text.get(), text && format_duration(seconds, text.get()), buffer, size);
}

static char *copy_not_available(char *buffer, size_t size) {
  const StringBuilderOwner text(string_builder_create(NOT_AVAILABLE_CAPACITY));
  return copy_text(text.get(), string_builder_append(text.get(), "N/A"), buffer, size);
}

char *monitor_format_uptime(char *buffer, size_t size) {
  if (!buffer || size == 0) return nullptr;
  return copy_duration(monitor_get_uptime(), buffer, size);
}

char *monitor_format_stream_uptime(int stream_id, char *buffer, size_t size) {
  if (!buffer || size == 0) return nullptr;
  const uint64_t duration =
      monitor_knows(stream_id) ? monitor_get_streaming_duration(stream_id) : 0;
  if (duration == 0) return copy_not_available(buffer, size);
  const auto shown = duration > UINT32_MAX ? UINT32_MAX : static_cast<uint32_t>(duration);
  return copy_duration(shown, buffer, size);
}

char *monitor_format_start_time(char *buffer, size_t size) {
  if (!buffer || size == 0) return nullptr;
  buffer[0] = '\0';
  CheckedLock lock(&monitor.lock);
  if (!lock.acquire()) return nullptr;
  const StringBuilderOwner text(string_builder_create(DATE_TIME_CAPACITY));
  const bool made = text && format_date_time(monitor.start_time, text.get());
  return copy_text(text.get(), made, buffer, size);
}

// --- The end -------------------------------------------------------------------------------------

// The count goes first from the view of whoever still asks: every number is out of range then.
static void release_records() {
  CheckedLock lock(&monitor.lock);
  if (!lock.acquire()) return;
  free(monitor.streams);
  monitor.streams = nullptr;
  monitor.stream_count = 0;
  lock.release();
}

void monitor_cleanup() {
  // Ahead of the release, which takes the lock along.
  char uptime[FINAL_UPTIME_SIZE];
  if (monitor_format_uptime(uptime, sizeof uptime)) {
    log_message(LOG_INFO, "Final system uptime: %s", uptime);
  }
  release_records();
  pthread_mutex_destroy(&monitor.lock.native);
  monitor_remove_status_file();
  log_message(LOG_INFO, "Monitor cleanup completed");
}
