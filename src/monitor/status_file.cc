#include "monitor/status_file.h"

#include <errno.h>
#include <stdio.h>
#include <string.h>

#include <algorithm>
#include <span>

#include "core/context.h"
#include "core/log.h"
#include "core/owners.h"

static bool is_in_cloud(const StreamMonitorState &record) {
  return record.status == STREAM_REGISTERED || record.status == STREAM_STREAMING;
}

static void write_file(const char *path, char content) {
  const File file(fopen(path, "we"));
  if (!file) {
    log_message(LOG_ERROR, "Failed to write to status file %s: %s", path, strerror(errno));
    return;
  }
  fputc(content, file.get());
}

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
  write_file(config.status_file_path, in_cloud ? '1' : '0');
  if (!lock.release()) {
    log_message(LOG_ERROR, "Failed to release monitor lock after global status update");
    return false;
  }
  return true;
}

bool monitor_remove_status_file() {
  const AgentConfig &config = proxy_context.config;
  if (!config.status_file_enabled) return true;
  if (remove(config.status_file_path) != 0) {
    log_message(LOG_INFO, "Failed to remove status file %s: %s", config.status_file_path,
                strerror(errno));
    return false;
  }
  log_message(LOG_DEBUG, "Successfully removed status file %s", config.status_file_path);
  return true;
}
