#include "stream/relay_send.h"

#include <errno.h>
#include <poll.h>
#include <string.h>
#include <sys/socket.h>

#include <algorithm>

#include "core/clock.h"
#include "core/context.h"
#include "core/log.h"
#include "core/workers.h"

static constexpr int FIRST_DELAY = 10;        // ms
static constexpr int DELAY_CAP = 100;         // ms
static constexpr int MAX_RETRIES = 5;         // for one chunk
static constexpr int SEND_TIMEOUT = 120'000;  // ms without room for a byte
static constexpr int HANG_UP_STEP = 100;      // ms between looks at a peer that has hung up

static bool goes_on(const RelayOutput &output) {
  return *output.active && agent_running();
}

// Waits until the socket takes bytes, the time-out strikes, or the relay ends. The end of a relay
// shuts the read side of both sockets, which a blocked send() would not notice, but poll() does.
static void wait_for_room(const RelayOutput &output) {
  const int64_t end = monotonic_ms() + SEND_TIMEOUT;
  for (int64_t left = SEND_TIMEOUT; left > 0 && goes_on(output); left = end - monotonic_ms()) {
    pollfd wait = {.fd = output.fd, .events = POLLOUT | POLLRDHUP, .revents = 0};
    poll(&wait, 1, static_cast<int>(left));
    if (wait.revents & ~POLLRDHUP) return;
    // The peer's own hang-up looks the same; the other direction will find it, perhaps not yet.
    if (wait.revents != 0 && goes_on(output)) worker_pause(HANG_UP_STEP);
  }
}

// Sends what the socket takes, waiting for room once: as a blocking send with a time-out does.
static ssize_t send_some(const RelayOutput &output, const char *data, size_t length) {
  ssize_t sent = send(output.fd, data, length, MSG_NOSIGNAL | MSG_DONTWAIT);
  if (sent >= 0 || (errno != EAGAIN && errno != EWOULDBLOCK)) return sent;
  wait_for_room(output);
  if (!goes_on(output)) {
    errno = EAGAIN;
    return -1;
  }
  return send(output.fd, data, length, MSG_NOSIGNAL | MSG_DONTWAIT);
}

static void pause_and_double(int *delay) {
  worker_pause(*delay);
  *delay = std::min(*delay * 2, DELAY_CAP);
}

static void log_retry(RelayPeer peer, int retry, int error) {
  if (peer == RelayPeer::CLOUD) {
    log_message(LOG_INFO, "Cloud send retry %d/%d: %s", retry, MAX_RETRIES, strerror(error));
  } else {
    log_message(LOG_INFO, "Camera send retry %d/%d: %s", retry, MAX_RETRIES, strerror(error));
  }
}

SendResult relay_send(const RelayOutput &output, const char *data, size_t length) {
  int delay = FIRST_DELAY;
  int retries = 0;
  while (length > 0) {
    if (!goes_on(output)) return SendResult::STOPPED;
    const ssize_t sent = send_some(output, data, length);
    const int error = errno;
    if (sent >= 0) {
      const auto moved = static_cast<size_t>(sent);
      data += moved;
      length -= moved;
      delay = FIRST_DELAY;
      if (output.sent) *output.sent += moved;
    } else if (error == EAGAIN || error == EWOULDBLOCK) {
      if (output.health) health_send_timed_out(output.health);
      pause_and_double(&delay);
    } else if (error == EPIPE || error == ECONNRESET) {
      return SendResult::CLOSED;
    } else if (error != EINTR) {
      if (++retries > MAX_RETRIES) return SendResult::FAILED;
      if (output.health) health_send_failed(output.health);
      log_retry(output.peer, retries, error);
      pause_and_double(&delay);
    }
  }
  return SendResult::SENT;
}
