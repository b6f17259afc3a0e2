// The read side of the monitor: uptime, streaming durations, and the one rule by which a length of
// time is written. Any thread; the monitor lock is taken inside, for as long as a value is read.
//
// The texts go into the caller's buffer, cut to its size less one and always terminated. Each
// returns the buffer, or none when there is no buffer, no size, or the text cannot be made (the
// buffer then holds the empty text).
#pragma once

#include <stddef.h>
#include <stdint.h>

#include "core/string_builder.h"
#include "monitor/monitor.h"

// Seconds since the monitor was created; 0 when the lock or the clock fails.
[[nodiscard]] uint32_t monitor_get_uptime() EXCLUDES_LOCK(monitor.lock);

// Seconds since the stream entered streaming; 0 when it does not stream, for a bad number or a
// failure. Above 32 bits after the wall clock was set back.
[[nodiscard]] uint64_t monitor_get_streaming_duration(int stream_id) EXCLUDES_LOCK(monitor.lock);

// Appends the largest unit reached and the next smaller one, e.g. "1h 00m".
[[nodiscard]] bool format_duration(uint32_t seconds, StringBuilder *out);

char *monitor_format_uptime(char *buffer, size_t size) EXCLUDES_LOCK(monitor.lock);

// "N/A" for a stream that does not stream or does not exist.
char *monitor_format_stream_uptime(int stream_id, char *buffer, size_t size)
    EXCLUDES_LOCK(monitor.lock);

// Local date and time.
char *monitor_format_start_time(char *buffer, size_t size) EXCLUDES_LOCK(monitor.lock);
