#include "stream/relay_send.h"

#include <errno.h>
#include <poll.h>
#include <string.h>
#include <sys/socket.h>

#include <algorithm>
#include <iterator>

#include "core/backoff.h"
#include "core/clock.h"
#include "core/context.h"
#include "core/log.h"
#include "core/sockets.h"
#include "core/workers.h"

static constexpr int FIRST_DELAY_MS = 10;
static constexpr int DELAY_CAP_MS = 100;
static constexpr int MAX_RETRIES = 5;                // for one chunk
static constexpr int SEND_TIMEOUT_MS = 120'000;      // without room for a byte
static constexpr int HANG_UP_STEP_MS = 100;          // between looks at a peer that has hung up
static constexpr int SOURCE_CLOSED_LIMIT_MS = 5000;  // for room, once nothing more can come

static bool goes_on(const RelayOutput &output) {
  return *output.active && agent_running();
}

// What ended a wait for room; the next send finds out what a SENT is worth.
//
// The end of a relay shuts the read side of both sockets, which a blocked send() would not notice,
// but poll() does. So it notices the source's hang-up, upon which the peer must take something
// soon: otherwise a relay whose camera has gone would last as long as the cloud does not read.
static SendResult wait_for_room(const RelayOutput &output) {
  int64_t end = monotonic_ms() + SEND_TIMEOUT_MS;
  pollfd waits[] = {{.fd = output.socket, .events = POLLOUT | POLLRDHUP, .revents = 0},
                    {.fd = output.source, .events = POLLRDHUP, .revents = 0}};
  while (goes_on(output)) {
    const int64_t left = end - monotonic_ms();
    if (left <= 0) return waits[1].fd < 0 ? SendResult::SOURCE_CLOSED : SendResult::SENT;
    if (output.watch && !relay_watch(output.watch)) return SendResult::PEER_DEAD;
    const int64_t step = output.watch ? std::min<int64_t>(left, WATCH_STEP_MS) : left;
    // What the wait cannot tell, the next send will: without this, a poll that fails would be asked
    // again and again until the time-out.
    if (poll(waits, std::size(waits), static_cast<int>(step)) < 0 && errno != EINTR) break;
    if (waits[0].revents & ~POLLRDHUP) break;
    if (waits[1].revents != 0) {
      waits[1].fd = -1;
      end = std::min(end, monotonic_ms() + SOURCE_CLOSED_LIMIT_MS);
    }
    // The peer's own hang-up looks the same; the other direction will find it, perhaps not yet.
    if (waits[0].revents != 0 && goes_on(output)) worker_pause(HANG_UP_STEP_MS);
  }
  return SendResult::SENT;
}

// Sends what the socket takes, waiting for room once: as a blocking send with a time-out does.
// Anything but SENT ends the chunk; otherwise `sent` is what send() returned, with its errno.
static SendResult send_some(const RelayOutput &output, const char *data, size_t length, int flags,
                            ssize_t *sent) {
  *sent = send(output.socket, data, length, flags);
  if (*sent >= 0 || !is_time_out(errno)) return SendResult::SENT;
  const SendResult waited = wait_for_room(output);
  if (waited != SendResult::SENT) return waited;
  if (!goes_on(output)) return SendResult::STOPPED;
  *sent = send(output.socket, data, length, flags);
  return SendResult::SENT;
}

static void pause_and_double(int *delay) {
  worker_pause(*delay);
  *delay = next_retry_delay(*delay, DELAY_CAP_MS);
}

static void log_retry(RelayPeer peer, int retry, int error) {
  if (peer == RelayPeer::CLOUD) {
    log_message(LOG_INFO, "Cloud send retry %d/%d: %s", retry, MAX_RETRIES, strerror(error));
  } else {
    log_message(LOG_INFO, "Camera send retry %d/%d: %s", retry, MAX_RETRIES, strerror(error));
  }
}

SendOutcome relay_send(const RelayOutput &output, const char *data, size_t length,
                       Follows follows) {
  const int flags = MSG_NOSIGNAL | MSG_DONTWAIT | (follows == Follows::MORE ? MSG_MORE : 0);
  int delay = FIRST_DELAY_MS;
  int retries = 0;
  while (length > 0) {
    if (!goes_on(output)) return {.result = SendResult::STOPPED, .error = 0};
    ssize_t sent = -1;
    const SendResult waited = send_some(output, data, length, flags, &sent);
    const int error = errno;
    if (waited != SendResult::SENT) return {.result = waited, .error = 0};
    if (sent >= 0) {
      const auto moved = static_cast<size_t>(sent);
      data += moved;
      length -= moved;
      delay = FIRST_DELAY_MS;
      if (output.sent) *output.sent += moved;
    } else if (is_time_out(error)) {
      if (output.health) health_send_timed_out(output.health);
      pause_and_double(&delay);
    } else if (error == EPIPE || error == ECONNRESET) {
      return {.result = SendResult::CLOSED, .error = error};
    } else if (error != EINTR) {
      // The count is the chunk's, also when bytes have moved meanwhile.
      if (++retries > MAX_RETRIES) return {.result = SendResult::FAILED, .error = error};
      if (output.health) health_send_failed(output.health);
      log_retry(output.peer, retries, error);
      pause_and_double(&delay);
    }
  }
  return {.result = SendResult::SENT, .error = 0};
}
