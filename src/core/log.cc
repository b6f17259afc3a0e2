#include "core/log.h"

#include <errno.h>
#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>

#include <algorithm>

#include "core/lock.h"
#include "core/owners.h"
#include "core/text.h"

static constexpr size_t TIME_TEXT_SIZE = 20;  // "%H:%M:%S %m-%d-%Y" and the terminator
static constexpr size_t HEAD_SIZE = 32;       // "[time] [label] " and the terminator
static constexpr size_t LINE_SIZE = 1280;     // bytes; of all lines but forwarded messages

// All labels are five characters wide, so that messages begin in the same column.
static constexpr const char *LEVEL_LABELS[] = {"ERROR", "INFO ", "DEBUG"};

bool log_enabled = false;

// Statically initialised and never destroyed: the last line of the process still needs it.
static Mutex log_lock;

// Where a line is put together, so that no thread's stack has to hold it.
static char line_buffer[LINE_SIZE] GUARDED_BY(log_lock);

static void format_now(char (&out)[TIME_TEXT_SIZE]) {
  const time_t now = time(nullptr);
  tm local = {};
  // The reentrant conversion: other threads convert times at the same moment.
  if (!localtime_r(&now, &local) || strftime(out, sizeof out, "%H:%M:%S %m-%d-%Y", &local) == 0) {
    out[0] = '\0';
  }
}

// Puts a line together, ended by a line feed and, if need be, cut to `size` bytes. Returns the
// bytes that it has whole.
__attribute__((format(printf, 4, 0))) static size_t compose_line(char *line, size_t size,
                                                                 const char *head,
                                                                 const char *format,
                                                                 va_list arguments) {
  text_copy_to(line, size, head);
  size_t length = strlen(line);
  const int rest = vsnprintf(line + length, size - length, format, arguments);
  if (rest > 0) length += static_cast<size_t>(rest);
  line[std::min(length, size - 1)] = '\n';
  return length + 1;
}

// One write for the whole line, since standard error has no buffer: lines of two programs that
// share it must not tear each other apart.
__attribute__((format(printf, 2, 0))) static void write_line(const char *head, const char *format,
                                                             va_list arguments)
    REQUIRES_LOCK(log_lock) {
  va_list second_pass;
  va_copy(second_pass, arguments);
  const size_t length = compose_line(line_buffer, LINE_SIZE, head, format, arguments);
  Text whole;  // for what is longer; without memory the line is cut
  if (length > LINE_SIZE) whole = Text(static_cast<char *>(malloc(length)));
  if (whole) compose_line(whole.get(), length, head, format, second_pass);
  va_end(second_pass);
  const char *line = whole ? whole.get() : line_buffer;
  fwrite(line, 1, whole ? length : std::min(length, LINE_SIZE), stderr);
  fflush(stderr);
}

void log_message(LogLevel level, const char *format, ...) {
  if (!log_enabled) return;
  const int saved_errno = errno;

  char now[TIME_TEXT_SIZE];
  format_now(now);
  char head[HEAD_SIZE];
  snprintf(head, sizeof head, "[%s] [%s] ", now, LEVEL_LABELS[level]);

  va_list arguments;
  va_start(arguments, format);
  {
    const ScopedLock lock(&log_lock);
    write_line(head, format, arguments);
  }
  va_end(arguments);
  errno = saved_errno;
}
