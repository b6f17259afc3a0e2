#include "core/proxy.h"

#include <stdlib.h>
#include <time.h>

#include "cloud/balancer_client.h"
#include "cloud/cloud_id_store.h"
#include "core/context.h"
#include "core/log.h"
#include "core/text.h"
#include "core/workers.h"
#include "monitor/monitor.h"
#include "stream/stream_context.h"
#include "web/http_server.h"

// The agent never runs with an ID that it could not store: the device would get another one at
// the next start.
static bool obtain_cloud_id(Text *id) {
  if (read_cloud_id_file(id)) return true;
  log_message(LOG_DEBUG, "Failed to read cloud ID from %s/%s", proxy_context.config.config_dir,
              CLOUD_ID_FILE);
  if (!fetch_cloud_id(id)) {
    log_message(LOG_ERROR, "Failed to fetch cloud ID from cloud");
    return false;
  }
  // Only informative, as the words go, and yet the end of the start.
  if (!save_cloud_id_file(id->get())) {
    log_message(LOG_INFO, "Failed to save cloud ID to filesystem");
    return false;
  }
  return true;
}

// Main's record and the process context each get a copy: main's is released with its record, the
// context's lasts until the process ends.
static bool share_cloud_id(AgentConfig *config, const char *id) {
  if (!text_assign(&config->cloud_id, id) || !text_assign(&proxy_context.config.cloud_id, id)) {
    log_message(LOG_ERROR, "Failed to allocate memory for cloud ID");
    return false;
  }
  log_message(LOG_INFO, "Successfully obtained cloud ID: %s", id);
  return true;
}

// Asked once, at the start: a cloud that moves later is found by the next start only.
static bool resolve_server(const char *id) {
  CloudServerInfo info;
  if (!resolve_cloud_server(id, &info)) {
    log_message(LOG_ERROR, "Failed to resolve cloud server");
    return false;
  }
  proxy_context.cloud_server = info.host.release();
  proxy_context.cloud_port = info.port;
  return true;
}

// Fills slot i of the context's streams; what it has made so far belongs to the slot.
static bool prepare_stream(size_t i, const char *url) {
  const auto stream_id = static_cast<uint16_t>(i + 1);
  StreamContext *stream = proxy_context.streams[i] = stream_context_create();
  if (!stream) {
    log_message(LOG_ERROR, "Failed to allocate stream info for stream %zu", i);
    return false;
  }
  if (!text_assign(&stream->uri, url)) {
    log_message(LOG_ERROR, "Failed to copy stream URL for stream %zu", i);
    return false;
  }
  stream->stream_id = stream_id;
  stream->monitor_snapshot =
      static_cast<StreamMonitorState *>(calloc(1, sizeof *stream->monitor_snapshot));
  if (!stream->monitor_snapshot) {
    log_message(LOG_ERROR, "Failed to allocate monitoring state for stream %zu", i);
    return false;
  }
  if (!monitor_get_stream_state(stream_id, stream->monitor_snapshot)) {
    log_message(LOG_ERROR, "Failed to get monitoring state for stream %zu", i);
    return false;
  }
  if (!monitor_update_status(stream_id, STREAM_OFFLINE)) {
    log_message(LOG_ERROR, "Failed to set initial status for stream %zu", i);
    return false;
  }
  StreamMonitorState *snapshot = stream->monitor_snapshot;
  text_copy_to(snapshot->url, sizeof snapshot->url, url);
  snapshot->last_change = time(nullptr);
  // Meant so, though the thread is only prepared here: the start sequence starts it.
  log_message(LOG_DEBUG, "Started thread %zu for stream %s", i + 1, url);
  return true;
}

// The count is set with the array, so that a failure further on finds every slot that may be
// filled.
static bool prepare_streams(const AgentConfig &config) {
  proxy_context.streams =
      static_cast<StreamContext **>(calloc(config.stream_count, sizeof(void *)));
  if (!proxy_context.streams) {
    log_message(LOG_ERROR, "Failed to allocate stream threads array");
    return false;
  }
  proxy_context.stream_count = config.stream_count;
  for (size_t i = 0; i < config.stream_count; i++) {
    if (!prepare_stream(i, config.stream_urls[i])) return false;
  }
  return true;
}

static void release_streams() {
  for (size_t i = 0; i < proxy_context.stream_count; i++) {
    stream_context_free(proxy_context.streams[i]);
  }
  free(proxy_context.streams);
  proxy_context.streams = nullptr;
  proxy_context.stream_count = 0;
}

// Everything from the network first: a device that is not known to the cloud prepares nothing.
static bool start_up(AgentConfig *config) {
  Text id;
  if (!obtain_cloud_id(&id) || !share_cloud_id(config, id.get()) || !resolve_server(id.get()) ||
      !prepare_streams(*config)) {
    return false;
  }
  log_message(LOG_INFO, "Proxy initialized successfully with %zu streams",
              proxy_context.stream_count);
  return true;
}

bool proxy_init(AgentConfig *config) {
  if (!config) {
    log_message(LOG_ERROR, "Invalid configuration provided");
    return false;
  }
  proxy_context.running = true;
  proxy_context.config = *config;  // before the monitor, which takes the stream URLs from it
  proxy_context.config.cloud_id = nullptr;
  if (!monitor_init(config->stream_count)) {
    log_message(LOG_ERROR, "Failed to initialize monitoring system");
    return false;
  }
  if (start_up(config)) return true;

  // `running` stays set: only tear-down, which does not follow now, clears it.
  release_streams();
  text_release(&proxy_context.cloud_server);
  monitor_cleanup();
  return false;
}

// Once more, though each worker did so as it left: those of a start that failed may never have run.
static void set_all_offline() {
  for (size_t i = 0; i < proxy_context.stream_count; i++) {
    monitor_update_status(proxy_context.streams[i]->stream_id, STREAM_OFFLINE);
  }
}

void proxy_cleanup() {
  log_message(LOG_INFO, "Starting proxy cleanup");
  if (proxy_context.config.http_enabled) {
    if (http_server_running()) {
      http_server_stop();
    } else {
      log_message(LOG_INFO, "Web server already stopped");
    }
  }
  // The signal has cleared `running` already, but not when the start itself has failed. From here
  // on nobody else uses the stream records or the monitor.
  workers_stop();
  set_all_offline();
  release_streams();
  monitor_cleanup();
  proxy_context.running = false;
  log_message(LOG_INFO, "Proxy cleanup completed");
}
