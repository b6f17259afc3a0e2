#include "stream/relay.h"

#include <errno.h>
#include <signal.h>
#include <string.h>
#include <sys/socket.h>
#include <time.h>

#include "core/context.h"
#include "core/log.h"
#include "core/workers.h"
#include "monitor/monitor.h"
#include "stream/camera.h"
#include "stream/relay_health.h"
#include "stream/relay_send.h"
#include "stream/socket_options.h"

static constexpr int STREAMING_TIMEOUT = 120;  // seconds
static constexpr size_t TRANSFER_SIZE = 8192;  // bytes copied at a time
static constexpr int SILENCE_PAUSE = 10;       // ms after a receive that timed out
static constexpr int CLOSING_PAUSE = 200;      // ms between offline and closing the camera

static bool is_time_out(int error) {
  return error == EAGAIN || error == EWOULDBLOCK;
}

static bool is_relaying(const RelayContext *relay) {
  return *relay->active && agent_running();
}

// A read-side shutdown ends the other direction's receive, and its wait for room to send, without
// showing the peers anything.
static void wake_other_direction(const RelayContext *relay) {
  shutdown(relay->cloud_fd, SHUT_RD);
  shutdown(relay->camera_fd, SHUT_RD);
}

// How the log shows the end of a relay.
enum class EndLog {
  NONE,        // the monitor's own line says it all
  PLAIN,       // the reason, at LOG_INFO
  WITH_ERROR,  // the reason and the system's error text, at LOG_ERROR
};

static void report_end(const StreamContext *stream, int code, const char *reason, EndLog log) {
  stream_report_error(stream, code, reason);
  if (log == EndLog::NONE || !agent_running()) return;
  if (log == EndLog::PLAIN) {
    log_message(LOG_INFO, "%s", reason);
  } else {
    log_message(LOG_ERROR, "%s: %s", reason, strerror(code));
  }
}

// Ends the relay. Only the direction that comes first reports its reason (none reports nothing);
// the other one merely meets the consequences.
static void relay_end(RelayContext *relay, int code, const char *reason, EndLog log) {
  const ScopedLock lock(&relay->end_lock);
  if (!*relay->active) return;
  *relay->active = false;
  if (reason) report_end(relay->stream, code, reason, log);
  wake_other_direction(relay);
}

static void relay_end_quietly(RelayContext *relay) {
  relay_end(relay, 0, nullptr, EndLog::NONE);
}

// --- Camera to cloud, on the stream thread -------------------------------------------------------

// Bytes since the last report to the monitor.
struct RelayStats {
  uint64_t sent = 0;      // to the cloud
  uint64_t received = 0;  // from the camera
  time_t reported;        // wall-clock second of the last report
};

static void report_stats(const RelayContext *relay, RelayStats *stats) {
  const time_t now = time(nullptr);
  if (now <= stats->reported) return;
  monitor_update_stats(relay->stream->stream_id, stats->sent, stats->received);
  *stats = {.sent = 0, .received = 0, .reported = now};
}

static bool is_healthy(RelayContext *relay, RelayHealth *health) {
  if (health_check(health, time(nullptr))) return true;
  log_message(LOG_INFO, "Connection health poor (%d/100), refreshing...", health->score);
  relay_end(relay, 0, "Refreshing unhealthy connection", EndLog::NONE);
  return false;
}

// False when the relay has ended.
static bool forward_to_cloud(RelayContext *relay, const RelayOutput &cloud, const char *data,
                             size_t length) {
  switch (relay_send(cloud, data, length)) {
    case SendResult::SENT:
      return true;
    case SendResult::STOPPED:
      return false;
    case SendResult::CLOSED:
      relay_end(relay, errno, "Cloud connection closed (write failed)", EndLog::NONE);
      return false;
    case SendResult::FAILED:
      relay_end(relay, errno, "Cloud send error", EndLog::WITH_ERROR);
      return false;
  }
  return false;
}

// A receive from the camera that brought nothing: false when the relay has ended.
static bool go_on_without_data(RelayContext *relay, ssize_t received, int error) {
  if (received == 0) {
    relay_end(relay, ECONNRESET, "Camera connection closed", EndLog::PLAIN);
    return false;
  }
  if (is_time_out(error)) {
    worker_pause(SILENCE_PAUSE);
    return true;
  }
  if (error == EINTR) return true;
  relay_end(relay, error, "Camera read error", EndLog::WITH_ERROR);
  return false;
}

// `started` is the wall-clock second at which stream_proxy began. Not inlined, here and below: the
// buffers of the phases of a cycle are to share the same part of the thread's stack.
[[gnu::noinline]] static void relay_camera_to_cloud(RelayContext *relay, time_t started) {
  RelayHealth health = {.checked = started};
  RelayStats stats = {.reported = started};
  const RelayOutput cloud = {.fd = relay->cloud_fd,
                             .peer = RelayPeer::CLOUD,
                             .active = relay->active,
                             .health = &health,
                             .sent = &stats.sent};
  char buffer[TRANSFER_SIZE];
  while (is_relaying(relay) && is_healthy(relay, &health)) {
    const ssize_t received = recv(relay->camera_fd, buffer, sizeof buffer, 0);
    if (received <= 0) {
      if (!go_on_without_data(relay, received, errno)) return;
      continue;
    }
    health_data_received(&health);
    stats.received += static_cast<uint64_t>(received);
    report_stats(relay, &stats);
    if (!forward_to_cloud(relay, cloud, buffer, static_cast<size_t>(received))) return;
  }
}

// --- Cloud to camera, on a thread of its own -----------------------------------------------------

// False when the relay has ended.
static bool forward_to_camera(RelayContext *relay, const RelayOutput &camera, const char *data,
                              size_t length) {
  switch (relay_send(camera, data, length)) {
    case SendResult::SENT:
      return true;
    case SendResult::STOPPED:
      return false;
    case SendResult::CLOSED:
      relay_end(relay, errno, "Camera connection closed", EndLog::PLAIN);
      return false;
    case SendResult::FAILED:
      relay_end(relay, errno, "Camera send error", EndLog::WITH_ERROR);
      return false;
  }
  return false;
}

// A receive from the cloud that brought nothing: false when the relay has ended.
static bool wait_on_for_cloud(RelayContext *relay, ssize_t received, int error) {
  if (received == 0) {
    relay_end(relay, ECONNRESET, "Cloud connection closed (read failed)", EndLog::NONE);
    return false;
  }
  if (error == EINTR || is_time_out(error)) return true;
  relay_end(relay, error, "Cloud read error", EndLog::WITH_ERROR);
  return false;
}

void relay_cloud_to_camera(RelayContext *relay) {
  const RelayOutput camera = {.fd = relay->camera_fd,
                              .peer = RelayPeer::CAMERA,
                              .active = relay->active,
                              .health = nullptr,
                              .sent = nullptr};
  char buffer[TRANSFER_SIZE];
  while (is_relaying(relay)) {
    const ssize_t received = recv(relay->cloud_fd, buffer, sizeof buffer, 0);
    const bool goes_on =
        received > 0 ? forward_to_camera(relay, camera, buffer, static_cast<size_t>(received))
                     : wait_on_for_cloud(relay, received, errno);
    if (!goes_on) break;
  }
  log_message(LOG_DEBUG, "Cloud to camera thread stopped");
  relay_end_quietly(relay);
}

// Created by stream_proxy for one relay, ends with it; tear-down and stream_proxy wait for it.
static void *cloud_to_camera_thread(void *argument) {
  const WorkerPresence presence;
  auto *relay = static_cast<RelayContext *>(argument);
  relay_cloud_to_camera(relay);
  sem_post(&relay->left);
  return nullptr;
}

// --- One relay -----------------------------------------------------------------------------------

static bool set_streaming_options(int cloud_fd, int camera_fd) {
  if (!socket_set_options(camera_fd, STREAMING_TIMEOUT, STREAMING_TIMEOUT, true) ||
      !socket_set_options(cloud_fd, STREAMING_TIMEOUT, STREAMING_TIMEOUT, true)) {
    return false;
  }
  socket_set_no_delay(camera_fd);
  socket_set_no_delay(cloud_fd);
  return true;
}

// Runs both directions to their end. False (reported) when the second thread cannot be created.
static bool run_relay(RelayContext *relay, time_t started) {
  const int result = worker_start(cloud_to_camera_thread, relay);
  if (result != 0) {
    stream_report_error(relay->stream, result, "Failed to create proxy thread");
    return false;
  }
  relay_camera_to_cloud(relay, started);

  relay_end_quietly(relay);
  monitor_update_status(relay->stream->stream_id, STREAM_OFFLINE);
  log_message(LOG_DEBUG, "Camera to cloud thread stopping");
  worker_pause(CLOSING_PAUSE);
  // Neither socket may be closed, and its number reused, while the other thread may touch it.
  while (sem_wait(&relay->left) != 0) {
  }
  return true;
}

static bool relay_streams(int cloud_fd, int camera_fd, const StreamContext *stream,
                          time_t started) {
  AtomicFlag active;
  active = true;
  RelayContext relay = {.cloud_fd = cloud_fd,
                        .camera_fd = camera_fd,
                        .active = &active,
                        .stream = stream,
                        .end_lock = {},
                        .left = {}};
  sem_init(&relay.left, 0, 0);
  const bool ran = run_relay(&relay, started);
  sem_destroy(&relay.left);
  return ran;
}

bool stream_proxy(int cloud_fd, const StreamContext *stream, const char *request) {
  const time_t started = time(nullptr);
  signal(SIGPIPE, SIG_IGN);
  const WorkerSocket camera = camera_connect(stream);
  if (!camera) return false;
  if (!rtsp_handshake(cloud_fd, camera.get(), request, stream)) {
    stream_report_error(stream, EPROTO, "RTSP handshake failed");
    return false;
  }
  monitor_update_status(stream->stream_id, STREAM_STREAMING);
  if (!set_streaming_options(cloud_fd, camera.get())) {
    stream_report_error(stream, errno, "Failed to set streaming socket options");
    return false;
  }
  return relay_streams(cloud_fd, camera.get(), stream, started);
}
