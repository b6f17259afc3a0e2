#include "stream/relay.h"

#include <errno.h>
#include <poll.h>
#include <signal.h>
#include <string.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <time.h>

#include "core/clock.h"
#include "core/context.h"
#include "core/log.h"
#include "core/sockets.h"
#include "core/workers.h"
#include "monitor/monitor.h"
#include "stream/camera.h"
#include "stream/relay_health.h"
#include "stream/relay_send.h"
#include "stream/relay_watch.h"

static constexpr int STREAMING_TIMEOUT_S = 120;
static constexpr int SILENCE_PAUSE_MS = 10;   // after a receive that timed out
static constexpr int CLOSING_PAUSE_MS = 200;  // between offline and closing the camera
static constexpr int SETTLE_LIMIT_MS = 1000;  // for what is still on its way to the cloud
static constexpr int SETTLE_STEP_MS = 5;
static constexpr int SETTLE_READS = 64;  // receives in a row; the cloud may never be done sending

static bool is_relaying(const RelayContext *relay) {
  return *relay->active && agent_running();
}

// --- The end -------------------------------------------------------------------------------------

// How the log shows the end of a relay, beside the monitor's own line.
enum class EndLog {
  NONE,        // the monitor's line says it all
  PLAIN,       // the reason, at LOG_INFO
  WITH_ERROR,  // the reason and the system's error text, at LOG_ERROR
  SCORE,       // ahead of the monitor's line, the health score
};

// Why a direction ends the relay. Without a reason it merely follows an end that came from
// elsewhere.
struct RelayEnd {
  int code = 0;
  const char *reason = nullptr;
  EndLog log = EndLog::NONE;
  int score = 0;
};

static constexpr RelayEnd FOLLOWS_THE_OTHER = {};

// The ways in which the peers end a relay, with the code of each where it is always the same.
static constexpr RelayEnd CAMERA_CLOSED = {
    .code = ECONNRESET, .reason = "Camera connection closed", .log = EndLog::PLAIN};
static constexpr RelayEnd CLOUD_CLOSED = {.code = ECONNRESET,
                                          .reason = "Cloud connection closed (read failed)"};
static constexpr RelayEnd CLOUD_REFUSES = {.reason = "Cloud connection closed (write failed)"};
static constexpr RelayEnd CAMERA_FAILED = {.reason = "Camera send error",
                                           .log = EndLog::WITH_ERROR};
static constexpr RelayEnd CLOUD_FAILED = {.reason = "Cloud send error", .log = EndLog::WITH_ERROR};

static RelayEnd with_code(RelayEnd end, int code) {
  end.code = code;
  return end;
}

static RelayEnd end_of_dead(RelayPeer dead) {
  return with_code(dead == RelayPeer::CLOUD ? CLOUD_FAILED : CAMERA_FAILED, ETIMEDOUT);
}

// True when a chunk could not be sent, which ends the relay.
static bool ends_by_sending(const SendOutcome &outcome, const RelayOutput &output, RelayEnd *end) {
  const bool to_cloud = output.peer == RelayPeer::CLOUD;
  switch (outcome.result) {
    case SendResult::SENT:
      return false;
    case SendResult::STOPPED:
      *end = FOLLOWS_THE_OTHER;
      break;
    case SendResult::CLOSED:
      *end = with_code(to_cloud ? CLOUD_REFUSES : CAMERA_CLOSED, outcome.error);
      break;
    case SendResult::FAILED:
      *end = with_code(to_cloud ? CLOUD_FAILED : CAMERA_FAILED, outcome.error);
      break;
    case SendResult::SOURCE_CLOSED:
      *end = to_cloud ? CAMERA_CLOSED : CLOUD_CLOSED;
      break;
    case SendResult::PEER_DEAD:
      *end = end_of_dead(output.watch->dead);
      break;
  }
  return true;
}

// A direction at its end. Only the one that gets here first reports its reason, since the other
// merely meets the consequences; and it holds the other one up until it has written all its lines,
// cleared `active` and woken it. So no reason can come after the stream has been set offline.
class RelayEnding {
 public:
  explicit RelayEnding(RelayContext *relay) : lock_(&relay->end_lock), relay_(relay) {}
  RelayEnding(const RelayEnding &) = delete;
  RelayEnding &operator=(const RelayEnding &) = delete;

  void report(const RelayEnd &end) const {
    // A stopping agent blames nobody: tear-down's wake-up looks like the peer's failure.
    if (!end.reason || !is_relaying(relay_)) return;
    if (end.log == EndLog::SCORE) {
      log_message(LOG_INFO, "Connection health poor (%d/100), refreshing...", end.score);
    }
    stream_report_error(relay_->stream, end.code, end.reason);
    if (end.log == EndLog::PLAIN) log_message(LOG_INFO, "%s", end.reason);
    if (end.log == EndLog::WITH_ERROR) {
      log_message(LOG_ERROR, "%s: %s", end.reason, strerror(end.code));
    }
  }

  // A read-side shutdown ends the other direction's receive, and its wait for room to send, without
  // showing the peers anything.
  ~RelayEnding() {
    *relay_->active = false;
    shutdown(relay_->cloud_fd, SHUT_RD);
    shutdown(relay_->camera_fd, SHUT_RD);
  }

 private:
  const ScopedLock lock_;
  RelayContext *relay_;
};

// --- Camera to cloud, on the stream thread -------------------------------------------------------

// Bytes since the last report to the monitor.
struct RelayStats {
  uint64_t sent = 0;      // to the cloud
  uint64_t received = 0;  // from the camera
  time_t reported;        // wall-clock second of the last report
};

static void report_stats(const RelayContext *relay, RelayStats *stats) {
  const time_t now = time(nullptr);
  // A clock that was set back begins a new interval; its bytes are reported with it.
  if (now < stats->reported) stats->reported = now;
  if (now == stats->reported) return;
  monitor_update_stats(relay->stream->stream_id, stats->sent, stats->received);
  *stats = {.sent = 0, .received = 0, .reported = now};
}

// True when a receive from the camera that brought nothing ends the relay.
static bool ends_without_data(ssize_t received, int error, RelayEnd *end) {
  if (received == 0) {
    *end = CAMERA_CLOSED;
    return true;
  }
  if (is_time_out(error)) {
    worker_pause(SILENCE_PAUSE_MS);
    return false;
  }
  if (error == EINTR) return false;
  *end = {.code = error, .reason = "Camera read error", .log = EndLog::WITH_ERROR};
  return true;
}

// The next chunk of the camera, with what recv() returns. When the last one filled the buffer, more
// was on its way and part of that chunk may be held back: should no more have come after all, it is
// pushed before the camera is waited for.
static ssize_t receive_from_camera(const RelayContext *relay, char *buffer, Follows *follows) {
  if (*follows == Follows::MORE) {
    const ssize_t received = recv(relay->camera_fd, buffer, TRANSFER_SIZE, MSG_DONTWAIT);
    if (received >= 0 || !is_time_out(errno)) return received;
    socket_set_no_delay(relay->cloud_fd);
    *follows = Follows::NOTHING;
  }
  return recv(relay->camera_fd, buffer, TRANSFER_SIZE, 0);
}

// Copies until the relay ends; the reason, if it is this direction's. `started` is the wall-clock
// second at which stream_proxy began.
static RelayEnd copy_camera_to_cloud(const RelayContext *relay, time_t started) {
  RelayHealth health = {.checked = started};
  RelayStats stats = {.reported = started};
  const RelayOutput cloud = {.socket = relay->cloud_fd,
                             .source = relay->camera_fd,
                             .peer = RelayPeer::CLOUD,
                             .active = relay->active,
                             .health = &health,
                             .sent = &stats.sent,
                             .watch = nullptr};
  char *buffer = relay->stream->buffers->camera;
  Follows follows = Follows::NOTHING;
  RelayEnd end = FOLLOWS_THE_OTHER;
  while (is_relaying(relay)) {
    if (!health_check(&health, time(nullptr))) {
      return {
          .reason = "Refreshing unhealthy connection", .log = EndLog::SCORE, .score = health.score};
    }
    const ssize_t received = receive_from_camera(relay, buffer, &follows);
    if (received <= 0) {
      if (ends_without_data(received, errno, &end)) return end;
      continue;
    }
    health_data_received(&health);
    const auto length = static_cast<size_t>(received);
    stats.received += length;
    report_stats(relay, &stats);
    follows = length == TRANSFER_SIZE ? Follows::MORE : Follows::NOTHING;
    const SendOutcome outcome = relay_send(cloud, buffer, length, follows);
    if (ends_by_sending(outcome, cloud, &end)) return end;
  }
  return end;
}

void relay_camera_to_cloud(RelayContext *relay, time_t started) {
  const RelayEnd end = copy_camera_to_cloud(relay, started);
  socket_set_no_delay(relay->cloud_fd);  // pushes what the last chunk may have left behind
  const RelayEnding ending(relay);
  ending.report(end);
  monitor_update_status(relay->stream->stream_id, STREAM_OFFLINE);
  log_message(LOG_DEBUG, "Camera to cloud thread stopping");
}

// --- Cloud to camera, on a thread of its own -----------------------------------------------------

// True when a receive from the cloud that brought nothing ends the relay.
static bool ends_without_word(ssize_t received, int error, RelayEnd *end) {
  if (received == 0) {
    *end = CLOUD_CLOSED;
    return true;
  }
  // The cloud may be silent for as long as it likes.
  if (error == EINTR || is_time_out(error)) return false;
  *end = {.code = error, .reason = "Cloud read error", .log = EndLog::WITH_ERROR};
  return true;
}

// The next chunk of the cloud, with what recv() returns. The wait is short: this thread has the
// time to look after both peers.
static ssize_t receive_from_cloud(const RelayContext *relay, char *buffer) {
  const ssize_t received = recv(relay->cloud_fd, buffer, TRANSFER_SIZE, MSG_DONTWAIT);
  if (received >= 0 || !is_time_out(errno)) return received;
  pollfd wait = {.fd = relay->cloud_fd, .events = POLLIN, .revents = 0};
  const int ready = poll(&wait, 1, WATCH_STEP_MS);
  if (ready == 0) errno = EAGAIN;
  if (ready == 0 || (ready < 0 && errno == EINTR)) return -1;
  // A poll that fails would fail again at once: then the receive waits, as long as it may.
  return recv(relay->cloud_fd, buffer, TRANSFER_SIZE, 0);
}

static RelayEnd copy_cloud_to_camera(const RelayContext *relay) {
  RelayWatch watch = {.cloud_fd = relay->cloud_fd, .camera_fd = relay->camera_fd};
  const RelayOutput camera = {.socket = relay->camera_fd,
                              .source = relay->cloud_fd,
                              .peer = RelayPeer::CAMERA,
                              .active = relay->active,
                              .health = nullptr,
                              .sent = nullptr,
                              .watch = &watch};
  // The OPTIONS request that lay here has been sent by now.
  char *buffer = relay->stream->buffers->cloud;
  RelayEnd end = FOLLOWS_THE_OTHER;
  while (is_relaying(relay)) {
    if (!relay_watch(&watch)) return end_of_dead(watch.dead);
    const ssize_t received = receive_from_cloud(relay, buffer);
    if (received <= 0) {
      if (ends_without_word(received, errno, &end)) return end;
      continue;
    }
    const auto length = static_cast<size_t>(received);
    const SendOutcome outcome = relay_send(camera, buffer, length, Follows::NOTHING);
    if (ends_by_sending(outcome, camera, &end)) return end;
  }
  return end;
}

void relay_cloud_to_camera(RelayContext *relay) {
  const RelayEnd end = copy_cloud_to_camera(relay);
  const RelayEnding ending(relay);
  ending.report(end);
  log_message(LOG_DEBUG, "Cloud to camera thread stopped");
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
  if (!socket_set_options(camera_fd, STREAMING_TIMEOUT_S, STREAMING_TIMEOUT_S, true) ||
      !socket_set_options(cloud_fd, STREAMING_TIMEOUT_S, STREAMING_TIMEOUT_S, true)) {
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
  worker_pause(CLOSING_PAUSE_MS);
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
  // The health check's first half minute counts from here, the camera's connection included.
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

// --- What is still on its way --------------------------------------------------------------------

// Whether the cloud has yet to confirm something, and still can: the queue of a connection that was
// reset, or whose cloud has vanished, keeps its length.
static bool is_unacknowledged(int cloud_fd) {
  pollfd connection = {.fd = cloud_fd, .events = 0, .revents = 0};
  int bytes = 0;
  return poll(&connection, 1, 0) == 0 && ioctl(cloud_fd, TIOCOUTQ, &bytes) == 0 && bytes > 0 &&
         !is_peer_silent(cloud_fd);
}

// A word of the cloud that is left unread turns the close into a reset, which throws away what the
// cloud has not received yet: an archive's last frames.
static void read_away(int cloud_fd, char *scratch) {
  for (int i = 0; i < SETTLE_READS; i++) {
    if (recv(cloud_fd, scratch, TRANSFER_SIZE, MSG_DONTWAIT) <= 0) return;
  }
}

void relay_settle(int cloud_fd, const StreamContext *stream) {
  const int64_t end = monotonic_ms() + SETTLE_LIMIT_MS;
  while (is_unacknowledged(cloud_fd) && monotonic_ms() < end && agent_running()) {
    read_away(cloud_fd, stream->buffers->cloud);
    worker_pause(SETTLE_STEP_MS);
  }
  read_away(cloud_fd, stream->buffers->cloud);
}
