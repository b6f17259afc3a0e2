#include "stream/stream_thread.h"

#include <errno.h>
#include <string.h>

#include "core/backoff.h"
#include "core/context.h"
#include "core/heap.h"
#include "core/log.h"
#include "core/sockets.h"
#include "core/workers.h"
#include "monitor/monitor.h"
#include "stream/camera.h"
#include "stream/registration.h"
#include "stream/relay.h"
#include "stream/rtsp_url.h"

static constexpr int FIRST_DELAY_S = 1;
static constexpr int PROBE_DELAY_CAP_S = 10;
static constexpr int CLOUD_DELAY_CAP_S = 60;
static constexpr int CONNECT_TIMEOUT_S = 10;
static constexpr int CONNECTED_TIMEOUT_S = 120;

// The pause comes first and the doubling after it, so that the first retry follows in a second.
static void back_off(const StreamContext *stream, int *retry_delay, int cap) {
  stream_forget_buffers(stream);
  worker_pause(*retry_delay * 1000);
  *retry_delay = next_retry_delay(*retry_delay, cap);
}

// Probes until the camera answers; false when the agent stops instead.
static bool probe_camera(const StreamContext *stream, int *retry_delay) {
  while (!stream_check(stream)) {
    monitor_update_status(stream->stream_id, STREAM_OFFLINE);
    back_off(stream, retry_delay, PROBE_DELAY_CAP_S);
    if (!agent_running()) return false;
  }
  return true;
}

// A connected socket, with the time-outs of a connection that waits; or none after the failure has
// been reported.
static WorkerSocket connect_to_cloud(const StreamContext *stream) {
  WorkerSocket cloud = worker_tcp_socket();
  if (!cloud || !socket_set_options(cloud.get(), CONNECT_TIMEOUT_S, CONNECT_TIMEOUT_S, false)) {
    const int error = errno;
    stream_report_error(stream, error, strerror(error));
    return WorkerSocket();
  }
  sockaddr_in address;
  if (!tcp_address(proxy_context.cloud_server, proxy_context.cloud_port, &address)) {
    stream_report_error(stream, EINVAL, "Invalid cloud server address");
    return WorkerSocket();
  }
  StopGrace none(0);
  if (!tcp_connect(cloud.get(), address, CONNECT_TIMEOUT_S, &none) ||
      !socket_set_options(cloud.get(), CONNECTED_TIMEOUT_S, CONNECTED_TIMEOUT_S, false)) {
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
  char *request = stream->buffers->cloud;
  if (cloud_wait_for_options(cloud.get(), stream, request, TRANSFER_SIZE) <= 0) {
    // Reported also when it is the agent that stops.
    monitor_update_error(stream->stream_id, EPROTO, "Failed to receive OPTIONS from cloud");
    return false;
  }
  if (!stream_proxy(cloud.get(), stream, request)) {
    stream_report_error(stream, EPROTO, "Stream proxy failed");
    return false;
  }
  relay_settle(cloud.get(), stream);
  return true;
}

// The end of a relay is never the end of the thread, and costs no pause.
static void stream_thread(const StreamContext *stream) {
  monitor_update_status(stream->stream_id, STREAM_OFFLINE);
  worker_await_release();
  int retry_delay = FIRST_DELAY_S;
  while (agent_running() && probe_camera(stream, &retry_delay)) {
    monitor_update_status(stream->stream_id, STREAM_CONNECTING);
    if (serve_cloud(stream)) {
      heap_trim();
      retry_delay = FIRST_DELAY_S;
      continue;
    }
    monitor_update_status(stream->stream_id, STREAM_OFFLINE);
    // The delay is shared with the probes: one that fails after a long back-off brings it down.
    back_off(stream, &retry_delay, CLOUD_DELAY_CAP_S);
  }
  monitor_update_status(stream->stream_id, STREAM_OFFLINE);
}

// Created by stream_start once per stream, ends when `running` is clear; tear-down waits for it.
static void *stream_thread_body(void *argument) {
  const WorkerPresence presence;
  stream_thread(static_cast<const StreamContext *>(argument));
  return nullptr;
}

// Errors are reported without a look at `running`: it is the main thread that calls.
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
