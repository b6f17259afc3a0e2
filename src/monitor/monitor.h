// How every stream is doing: status, last error, traffic. One process-wide record under one lock,
// called from every thread. Stream numbers are 1-based everywhere.
//
// Update operations return false on a bad number or a lock failure (logged); callers may ignore
// the result.
#pragma once

#include <stddef.h>
#include <stdint.h>
#include <time.h>

#include <span>
#include <type_traits>

#include "core/lock.h"
#include "core/string_builder.h"

enum StreamStatus : int32_t {
  STREAM_OFFLINE = 0,     // no connection to the cloud
  STREAM_CONNECTING = 1,  // connecting to the cloud streaming server
  STREAM_REGISTERED = 2,  // registration sent, waiting for the cloud to ask for the stream
  STREAM_STREAMING = 3,   // relaying
  STREAM_ERROR = 4,       // an error was reported
};

// Bytes of a fixed text field, terminator included.
inline constexpr size_t MONITOR_TEXT_SIZE = 256;

struct StreamMonitorState {
  uint32_t stream_id;  // 1-based; index + 1
  StreamStatus status;
  int32_t last_error_code;  // an errno value or a fixed code; 0 for none
  char last_error_message[MONITOR_TEXT_SIZE];
  time_t last_error_time;
  uint64_t bytes_total;  // bytes sent since start
  uint64_t rate;         // bytes per second, both directions, of the last statistics interval
  time_t last_update;    // last statistics update; 0 for never
  char url[MONITOR_TEXT_SIZE];  // from the configuration, cut to 255 bytes
  time_t last_change;           // last status change, error or statistics update
  time_t streaming_since;       // 0 when the stream has not streamed since it was last set offline
  uint64_t streaming_duration;  // seconds; last value computed
};

// Handed out whole, by copy.
static_assert(std::is_trivially_copyable_v<StreamMonitorState>);

struct Monitor {
  Mutex lock;
  StreamMonitorState *streams GUARDED_BY(lock);  // owned, stream_count records
  size_t stream_count;  // does not change while the monitor is live: range checks take no lock
  time_t start_time GUARDED_BY(lock);
  uint64_t uptime GUARDED_BY(lock);  // seconds; last value computed
};

extern Monitor monitor;

// Creates the monitor for 1 to MAX_STREAMS streams, with the URLs of the process context. Main
// thread, before any other thread.
[[nodiscard]] bool monitor_init(size_t stream_count);

// Sets the status, logs a change of it and rewrites the status file. Any status but error clears
// the last error.
bool monitor_update_status(int stream_id, StreamStatus status) EXCLUDES_LOCK(monitor.lock);

// Records the error and sets the status to error; the status file stays as it is.
bool monitor_update_error(int stream_id, int32_t code, const char *message)
    EXCLUDES_LOCK(monitor.lock);

// Adds bytes moved since the last call and recomputes the rate.
bool monitor_update_stats(int stream_id, uint64_t sent, uint64_t received)
    EXCLUDES_LOCK(monitor.lock);

// Copies the stream's record. False for a bad number, no record to copy to, or a lock failure.
[[nodiscard]] bool monitor_get_stream_state(int stream_id, StreamMonitorState *copy)
    EXCLUDES_LOCK(monitor.lock);

// Appends something of every stream, in stream order. Called with the lock held: it must not call
// the monitor.
using MonitorAppender = bool (*)(StringBuilder *out, std::span<const StreamMonitorState> records);

// What `append` says; false when the lock cannot be taken.
[[nodiscard]] bool monitor_append_records(StringBuilder *out, MonitorAppender append)
    EXCLUDES_LOCK(monitor.lock);

// Seconds since the monitor was created; 0 when the lock or the clock fails.
[[nodiscard]] uint32_t monitor_get_uptime() EXCLUDES_LOCK(monitor.lock);

// Seconds since the stream entered streaming; 0 when it does not stream, for a bad number or a
// failure. Above 32 bits after the wall clock was set back.
[[nodiscard]] uint64_t monitor_get_streaming_duration(int stream_id) EXCLUDES_LOCK(monitor.lock);

// The next three write into the caller's buffer, cut to its size less one and always terminated.
// Each returns the buffer, or none when there is no buffer, no size, or the text cannot be made
// (the buffer then holds the empty text).
char *monitor_format_uptime(char *buffer, size_t size) EXCLUDES_LOCK(monitor.lock);

// "N/A" for a stream that does not stream or does not exist.
char *monitor_format_stream_uptime(int stream_id, char *buffer, size_t size)
    EXCLUDES_LOCK(monitor.lock);

// Local date and time.
char *monitor_format_start_time(char *buffer, size_t size) EXCLUDES_LOCK(monitor.lock);

// Destroys the monitor and deletes the status file. Main thread, after every other thread that
// calls the monitor has ended.
void monitor_cleanup() EXCLUDES_LOCK(monitor.lock);

[[nodiscard]] inline bool monitor_knows(int stream_id) {
  return stream_id >= 1 && static_cast<size_t>(stream_id) <= monitor.stream_count;
}
