#include "stream/stream_thread.h"

#include <errno.h>
#include <string.h>

#include "cloud/backoff.h"
#include "core/config.h"
#include "core/context.h"
#include "core/log.h"
#include "core/tcp.h"
#include "core/workers.h"
#include "monitor/monitor.h"
#include "stream/camera.h"
#include "stream/registration.h"
#include "stream/relay.h"
#include "stream/rtsp_url.h"
#include "stream/socket_options.h"

static constexpr int FIRST_DELAY = 1;          // seconds
static constexpr int PROBE_DELAY_CAP = 10;     // seconds
static constexpr int CLOUD_DELAY_CAP = 60;     // seconds
static constexpr int CONNECT_TIMEOUT = 10;     // seconds
static constexpr int CONNECTED_TIMEOUT = 120;  // seconds
static constexpr size_t MESSAGE_SIZE = 8192;   // bytes of one message of the cloud

// Where each stream's cloud messages are received: not on the stack, where the buffer would stand
// between the pages that a waiting thread needs. A page of it is used only while there is a
// message.
alignas(4096) static char message_buffers[MAX_STREAMS][MESSAGE_SIZE];

static void pause_seconds(int seconds) {
  worker_pause(seconds * 1000);
}

// Probes until the camera answers; false when the agent stops instead.
static bool probe_camera(const StreamContext *stream, int *retry_delay) {
  while (!stream_check(stream)) {
    monitor_update_status(stream->stream_id, STREAM_OFFLINE);
    pause_seconds(*retry_delay);
    *retry_delay = next_retry_delay(*retry_delay, PROBE_DELAY_CAP);
    if (!agent_running()) return false;
  }
  return true;
}

// A connected socket, or none after the failure has been reported.
static WorkerSocket connect_to_cloud(const StreamContext *stream) {
  WorkerSocket cloud = worker_tcp_socket();
  if (!cloud || !socket_set_options(cloud.get(), CONNECT_TIMEOUT, CONNECT_TIMEOUT, false)) {
    const int error = errno;
    stream_report_error(stream, error, strerror(error));
    return WorkerSocket();
  }
  sockaddr_in address;
  if (!tcp_address(proxy_context.cloud_server, proxy_context.cloud_port, &address)) {
    stream_report_error(stream, EINVAL, "Invalid cloud server address");
    return WorkerSocket();
  }
  if (!tcp_connect(cloud.get(), address) ||
      !socket_set_options(cloud.get(), CONNECTED_TIMEOUT, CONNECTED_TIMEOUT, false)) {
    const int error = errno;
    stream_report_error(stream, error, strerror(error));
    return WorkerSocket();
  }
  return cloud;
}

// One cloud connection from registration to the end of its relay. True when a relay ran.
static bool serve_cloud(const StreamContext *stream) {
  const WorkerSocket cloud = connect_to_cloud(stream);
  if (!cloud) return false;
  char *request = message_buffers[stream->stream_id - 1];
  if (cloud_wait_for_options(cloud.get(), stream, request, MESSAGE_SIZE) <= 0) {
    // Reported also when it is the agent that stops.
    monitor_update_error(stream->stream_id, EPROTO, "Failed to receive OPTIONS from cloud");
    return false;
  }
  if (stream_proxy(cloud.get(), stream, request)) return true;
  stream_report_error(stream, EPROTO, "Stream proxy failed");
  return false;
}

static void stream_thread(const StreamContext *stream) {
  monitor_update_status(stream->stream_id, STREAM_OFFLINE);
  int retry_delay = FIRST_DELAY;
  while (agent_running() && probe_camera(stream, &retry_delay)) {
    monitor_update_status(stream->stream_id, STREAM_CONNECTING);
    if (serve_cloud(stream)) {
      retry_delay = FIRST_DELAY;
      continue;
    }
    monitor_update_status(stream->stream_id, STREAM_OFFLINE);
    pause_seconds(retry_delay);
    retry_delay = next_retry_delay(retry_delay, CLOUD_DELAY_CAP);
  }
  monitor_update_status(stream->stream_id, STREAM_OFFLINE);
}

// Created by stream_start once per stream, ends when `running` is clear; tear-down waits for it.
static void *stream_thread_body(void *argument) {
  const WorkerPresence presence;
  stream_thread(static_cast<const StreamContext *>(argument));
  return nullptr;
}

bool stream_start(StreamContext *stream) {
  if (!stream || !stream->uri) {
    log_message(LOG_ERROR, "Invalid stream parameters");
    if (stream) monitor_update_error(stream->stream_id, -1, "Invalid stream parameters");
    return false;
  }
  if (!rtsp_parse_url(stream->uri, stream)) {
    log_message(LOG_ERROR, "Failed to parse RTSP URL: %s", stream->uri);
    monitor_update_error(stream->stream_id, -2, "Failed to parse RTSP URL");
    return false;
  }
  const int result = worker_start(stream_thread_body, stream);
  if (result != 0) {
    log_message(LOG_ERROR, "Failed to create stream thread: %s", strerror(result));
    monitor_update_error(stream->stream_id, result, "Failed to create stream thread");
    return false;
  }
  return true;
}
