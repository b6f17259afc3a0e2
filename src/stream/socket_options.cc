#include "stream/socket_options.h"

#include <errno.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/time.h>

#include "core/log.h"

static constexpr int KEEPALIVE_PROBES = 3;    // unanswered, before the connection is dropped
static constexpr int KEEPALIVE_IDLE = 30;     // seconds before the first probe
static constexpr int KEEPALIVE_INTERVAL = 5;  // seconds between probes

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
         set_number(socket, IPPROTO_TCP, TCP_KEEPIDLE, KEEPALIVE_IDLE) &&
         set_number(socket, IPPROTO_TCP, TCP_KEEPINTVL, KEEPALIVE_INTERVAL);
}

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
