// The log: one line per call on standard error, in debug mode only. Any thread; log_lock is always
// the innermost lock, so callers may hold locks of their own. Never include <syslog.h> beside this
// header: its macros have the names of these levels.
#pragma once

// Selects the label of a line; never decides whether it is written.
enum LogLevel { LOG_ERROR = 0, LOG_INFO = 1, LOG_DEBUG = 2 };

// Set once, before any other thread exists, and never cleared.
extern bool log_enabled;

// Writes "[time] [label] message" and a line feed, flushed. The format carries no line feed of its
// own. Preserves errno.
void log_message(LogLevel level, const char *format, ...) __attribute__((format(printf, 2, 3)));
