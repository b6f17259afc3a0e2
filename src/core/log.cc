#include "core/log.h"

#include <errno.h>
#include <stdarg.h>
#include <stdio.h>
#include <time.h>

#include "core/lock.h"

static constexpr size_t TIME_TEXT_SIZE = 20;  // "%H:%M:%S %m-%d-%Y" and the terminator

// All labels are five characters wide, so that messages begin in the same column.
static constexpr const char *LEVEL_LABELS[] = {"ERROR", "INFO ", "DEBUG"};

bool log_enabled = false;

// Statically initialised and never destroyed: the last line of the process still needs it.
static Mutex log_lock;

static void format_now(char (&out)[TIME_TEXT_SIZE]) {
  const time_t now = time(nullptr);
  tm local = {};
  // The reentrant conversion: other threads convert times at the same moment.
  if (!localtime_r(&now, &local) || strftime(out, sizeof out, "%H:%M:%S %m-%d-%Y", &local) == 0) {
    out[0] = '\0';
  }
}

void log_message(LogLevel level, const char *format, ...) {
  if (!log_enabled) return;
  const int saved_errno = errno;

  char now[TIME_TEXT_SIZE];
  format_now(now);

  {
    const ScopedLock lock(&log_lock);
    fprintf(stderr, "[%s] [%s] ", now, LEVEL_LABELS[level]);
    va_list arguments;
    va_start(arguments, format);
    vfprintf(stderr, format, arguments);
    va_end(arguments);
    fputc('\n', stderr);
    fflush(stderr);
  }
  errno = saved_errno;
}
