#include "monitor/status_file.h"

#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <string.h>
#include <sys/stat.h>

#include <algorithm>
#include <span>

#include "core/context.h"
#include "core/log.h"
#include "core/owners.h"

// Connecting does not count: other programs take "1" for "the cloud can have video".
static bool is_in_cloud(const StreamMonitorState &record) {
  return record.status == STREAM_REGISTERED || record.status == STREAM_STREAMING;
}

// A FIFO in the file's place must not hold a stream up.
static constexpr int OPEN_FLAGS = O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC | O_NOCTTY | O_NONBLOCK;

// A full disk shows when the byte leaves the stream's buffer, which is when the file is closed.
static bool write_file(const char *path, char content) {
  File file = file_open(path, OPEN_FLAGS, "w");
  if (!file || fputc(content, file.get()) == EOF) return false;
  return fclose(file.release()) == 0;
}

// Rewritten in place: who reads it at the wrong moment finds it empty, and looks again.
bool monitor_write_status_file() {
  const AgentConfig &config = proxy_context.config;
  if (!config.status_file_enabled) return true;

  // Held while writing, so that the last status set is also the last one written.
  CheckedLock lock(&monitor.lock);
  if (!lock.acquire()) {
    log_message(LOG_ERROR, "Failed to acquire monitor lock for global status update");
    return false;
  }
  const std::span records(monitor.streams, monitor.stream_count);
  const bool in_cloud = std::any_of(records.begin(), records.end(), is_in_cloud);
  if (!write_file(config.status_file_path, in_cloud ? '1' : '0')) {
    log_message(LOG_ERROR, "Failed to write to status file %s: %s", config.status_file_path,
                strerror(errno));
  }
  if (!lock.release()) {
    log_message(LOG_ERROR, "Failed to release monitor lock after global status update");
    return false;
  }
  return true;
}

// Removes what the agent makes, a regular file. A device or a directory that was given as the path
// by mistake is somebody else's.
static bool remove_regular_file(const char *path) {
  struct stat status = {};
  if (stat(path, &status) != 0) return false;
  if (!S_ISREG(status.st_mode)) {
    errno = EPERM;
    return false;
  }
  return remove(path) == 0;
}

bool monitor_remove_status_file() {
  const AgentConfig &config = proxy_context.config;
  if (!config.status_file_enabled) return true;
  if (!remove_regular_file(config.status_file_path)) {
    log_message(LOG_INFO, "Failed to remove status file %s: %s", config.status_file_path,
                strerror(errno));
    return false;
  }
  log_message(LOG_DEBUG, "Successfully removed status file %s", config.status_file_path);
  return true;
}
