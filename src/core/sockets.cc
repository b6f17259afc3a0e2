#include "core/sockets.h"

#include <arpa/inet.h>
#include <errno.h>
#include <fcntl.h>
#include <limits.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/time.h>

#include <algorithm>

#include "core/clock.h"
#include "core/context.h"
#include "core/log.h"

static constexpr int KEEPALIVE_PROBES = 3;      // unanswered, before the connection is dropped
static constexpr int KEEPALIVE_IDLE_S = 30;     // before the first probe
static constexpr int KEEPALIVE_INTERVAL_S = 5;  // between probes

// Between two looks at `running`. Nothing wakes a connect in progress on every kernel: shutdown()
// does on most, but not from Linux 6.1.32 until late in 2023.
static constexpr int64_t WAIT_SLICE_MS = 100;

bool is_time_out(int error) {
  return error == EAGAIN || error == EWOULDBLOCK;
}

// --- Waiting -------------------------------------------------------------------------------------

int64_t StopGrace::left_ms() {
  if (agent_running()) return INT_MAX;
  const int64_t now = monotonic_ms();
  if (end_ms_ < 0) end_ms_ = now + grace_ms_;
  return std::max<int64_t>(end_ms_ - now, 0);
}

bool socket_wait(int socket, short events, int timeout_ms, StopGrace *grace) {
  const int64_t end = monotonic_ms() + timeout_ms;
  for (;;) {
    const int64_t left = std::min(end - monotonic_ms(), grace->left_ms());
    pollfd wait = {.fd = socket, .events = events, .revents = 0};
    const int slice = static_cast<int>(std::clamp<int64_t>(left, 0, WAIT_SLICE_MS));
    const int ready = poll(&wait, 1, slice);
    if (ready > 0) return true;
    if (ready < 0 && errno != EINTR) return false;
    if (left <= 0) {
      errno = EAGAIN;
      return false;
    }
  }
}

// --- Options -------------------------------------------------------------------------------------

static bool set_timeout(int socket, int option, int seconds) {
  const timeval timeout = {.tv_sec = seconds, .tv_usec = 0};
  return setsockopt(socket, SOL_SOCKET, option, &timeout, sizeof timeout) == 0;
}

static bool set_number(int socket, int level, int option, int value) {
  return setsockopt(socket, level, option, &value, sizeof value) == 0;
}

static bool set_keepalive(int socket) {
  return set_number(socket, SOL_SOCKET, SO_KEEPALIVE, 1) &&
         set_number(socket, IPPROTO_TCP, TCP_KEEPCNT, KEEPALIVE_PROBES) &&
         set_number(socket, IPPROTO_TCP, TCP_KEEPIDLE, KEEPALIVE_IDLE_S) &&
         set_number(socket, IPPROTO_TCP, TCP_KEEPINTVL, KEEPALIVE_INTERVAL_S);
}

// Set again at every step of a connection's life; the last values count. Keep-alive is never taken
// back.
bool socket_set_options(int socket, int receive_timeout_s, int send_timeout_s, bool keepalive) {
  if (!set_timeout(socket, SO_RCVTIMEO, receive_timeout_s) ||
      !set_timeout(socket, SO_SNDTIMEO, send_timeout_s)) {
    log_message(LOG_ERROR, "Failed to set socket timeouts: %s", strerror(errno));
    return false;
  }
  if (keepalive && !set_keepalive(socket)) {
    log_message(LOG_DEBUG, "Failed to set keep-alive options: %s", strerror(errno));
  }
  return true;
}

void socket_set_no_delay(int socket) {
  if (!set_number(socket, IPPROTO_TCP, TCP_NODELAY, 1)) {
    log_message(LOG_DEBUG, "Failed to set TCP_NODELAY: %s", strerror(errno));
  }
}

// --- Connections ---------------------------------------------------------------------------------

Fd tcp_socket() {
  return Fd(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
}

bool tcp_address(const char *host, uint16_t port, sockaddr_in *address) {
  *address = {};
  address->sin_family = AF_INET;
  address->sin_port = htons(port);
  if (host && inet_pton(AF_INET, host, &address->sin_addr) == 1) return true;
  errno = EINVAL;
  return false;
}

// What became of a connection in progress.
static bool await_connection(int socket, int timeout_ms, StopGrace *grace) {
  if (!socket_wait(socket, POLLOUT, timeout_ms, grace)) {
    if (is_time_out(errno)) errno = EINPROGRESS;
    return false;
  }
  int error = 0;
  socklen_t size = sizeof error;
  if (getsockopt(socket, SOL_SOCKET, SO_ERROR, &error, &size) != 0) return false;
  errno = error;
  return error == 0;
}

static bool set_blocking(int socket) {
  const int flags = fcntl(socket, F_GETFL);
  return flags >= 0 && fcntl(socket, F_SETFL, flags & ~O_NONBLOCK) == 0;
}

bool tcp_connect(int socket, const sockaddr_in &address, int timeout_s, StopGrace *grace) {
  if (connect(socket, reinterpret_cast<const sockaddr *>(&address), sizeof address) != 0) {
    // An interrupted connect goes on by itself; calling it again would only be refused.
    if (errno != EINPROGRESS && errno != EINTR) return false;
    if (!await_connection(socket, timeout_s * 1000, grace)) return false;
  }
  return set_blocking(socket);
}

// Not continued after a short count: the far side takes each receive as one message, and half of
// one would be taken for another.
bool tcp_send_message(int socket, std::string_view message) {
  const ssize_t sent = send(socket, message.data(), message.size(), 0);
  if (sent < 0) return false;
  if (static_cast<size_t>(sent) < message.size()) errno = EAGAIN;
  return static_cast<size_t>(sent) == message.size();
}
