#include "check/agent_log.h"

#include <errno.h>
#include <stdarg.h>
#include <stdio.h>

#include "core/context.h"
#include "core/log.h"

static constexpr size_t FAILURE_SIZE = 512;  // bytes; a longer text is cut

static char failure[FAILURE_SIZE];
static bool stop_at_failure = false;

bool log_enabled = false;  // asked for by -d or not: the log is heard all the same

void log_message(LogLevel level, const char *format, ...) {
  if (level == LOG_DEBUG) return;
  const int saved_errno = errno;
  // Of information nothing is kept, and yet "retrying" is said of a failure without words.
  if (stop_at_failure) proxy_context.running = false;
  if (level == LOG_ERROR && failure[0] == '\0') {
    va_list arguments;
    va_start(arguments, format);
    vsnprintf(failure, sizeof failure, format, arguments);
    va_end(arguments);
  }
  errno = saved_errno;
}

void agent_log_clear() {
  failure[0] = '\0';
}

const char *agent_failure() {
  return failure;
}

OneAttempt::OneAttempt() {
  agent_log_clear();
  stop_at_failure = true;
}

OneAttempt::~OneAttempt() {
  stop_at_failure = false;
  proxy_context.running = true;
}
