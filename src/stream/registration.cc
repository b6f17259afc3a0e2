#include "stream/registration.h"

#include <errno.h>
#include <stdio.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/uio.h>

#include <algorithm>
#include <string_view>

#include "core/context.h"
#include "core/log.h"
#include "core/tcp.h"
#include "core/workers.h"
#include "monitor/monitor.h"
#include "stream/socket_options.h"

static constexpr int REGISTER_TIMEOUT = 2;     // seconds
static constexpr int IDLE_TIMEOUT = 120;       // seconds the cloud may stay silent
static constexpr size_t HEAD_SIZE = 16;        // bytes of a message received apart
static constexpr size_t REGISTER_SIZE = 1024;  // bytes; the message must be shorter

// Agent to cloud. The values are inserted as they are, without JSON escaping.
static constexpr char REGISTER_MESSAGE[] =
    "REGISTER={\"cloudid\":\"%s/%d\",\"login\":\"%s\",\"password\":\"%s\",\"uri\":\"%s\","
    "\"model\":\"%s\",\"vendor\":\"%s\"}";
static constexpr std::string_view KEEPALIVE_ANSWER = "ok";

// Cloud to agent. There is no framing: each receive is taken as one message.
static constexpr std::string_view KEEPALIVE = "\r\n\r\n";
static constexpr std::string_view OPTIONS_TRIGGER = "OPTIONS";

bool cloud_send_register(int socket, const StreamContext *stream) {
  const AgentConfig &config = proxy_context.config;
  char message[REGISTER_SIZE];
  const int length =
      snprintf(message, sizeof message, REGISTER_MESSAGE, config.cloud_id, int{stream->stream_id},
               stream->user, stream->password, stream->uri, config.model, config.vendor);
  log_message(LOG_DEBUG, "%s", message);
  if (length < 0 || static_cast<size_t>(length) >= sizeof message) {
    log_message(LOG_ERROR, "Registration message too long");
    return false;
  }
  if (!tcp_send_message(socket, {message, static_cast<size_t>(length)})) {
    log_message(LOG_ERROR, "Failed to send registration message: %s", strerror(errno));
    return false;
  }
  log_message(LOG_INFO, "Stream %d registered in the cloud", int{stream->stream_id});
  return true;
}

static bool register_stream(int socket, const StreamContext *stream) {
  if (!socket_set_options(socket, REGISTER_TIMEOUT, REGISTER_TIMEOUT, false)) {
    log_message(LOG_ERROR, "Failed to set registration timeouts: %s", strerror(errno));
    return false;
  }
  if (!cloud_send_register(socket, stream)) return false;
  monitor_update_status(stream->stream_id, STREAM_REGISTERED);
  if (!socket_set_options(socket, IDLE_TIMEOUT, IDLE_TIMEOUT, false)) {
    log_message(LOG_ERROR, "Failed to set streaming timeouts: %s", strerror(errno));
    return false;
  }
  return true;
}

// Where one message is received: its first bytes in `head`, the others in `buffer` at the place
// where they belong. So a keepalive leaves the buffer, and the page it would cost, untouched.
struct MessageRoom {
  char head[HEAD_SIZE];
  char *buffer;
  size_t size;  // of the buffer, more than HEAD_SIZE
};

// The first bytes join the others, and the whole is terminated.
static std::string_view complete_message(const MessageRoom &room, size_t length) {
  memcpy(room.buffer, room.head, std::min(length, HEAD_SIZE));
  room.buffer[length] = '\0';
  return {room.buffer, length};
}

// One message of the cloud: its length, or -1 when there will be none.
static ssize_t receive_message(int socket, MessageRoom *room) {
  iovec parts[] = {
      {.iov_base = room->head, .iov_len = HEAD_SIZE},
      {.iov_base = room->buffer + HEAD_SIZE, .iov_len = room->size - 1 - HEAD_SIZE},
  };
  msghdr message = {};
  message.msg_iov = parts;
  message.msg_iovlen = std::size(parts);
  const ssize_t received = recvmsg(socket, &message, 0);
  if (received > 0) return received;
  // Tear-down wakes this receive as if the cloud had closed.
  if (!agent_running()) return -1;
  if (received == 0) {
    log_message(LOG_ERROR, "Connection closed by peer during registration");
  } else if (errno == EAGAIN || errno == EWOULDBLOCK) {
    log_message(LOG_DEBUG, "Registration timeout, retrying...");
  } else {
    log_message(LOG_ERROR, "Registration receive error: %s", strerror(errno));
  }
  return -1;
}

static bool answer_keepalive(int socket, const StreamContext *stream) {
  if (!tcp_send_message(socket, KEEPALIVE_ANSWER)) {
    log_message(LOG_ERROR, "Failed to send keepalive response");
    return false;
  }
  log_message(LOG_DEBUG, "Sent keepalive response for stream %d", int{stream->stream_id});
  return true;
}

int cloud_wait_for_options(int socket, const StreamContext *stream, char *buffer, size_t size) {
  if (!register_stream(socket, stream)) return -1;
  worker_release_memory(buffer, size);
  MessageRoom room = {.head = {}, .buffer = buffer, .size = size};
  while (agent_running()) {
    const ssize_t received = receive_message(socket, &room);
    if (received < 0) return -1;
    const auto length = static_cast<size_t>(received);
    if (std::string_view(room.head, std::min(length, HEAD_SIZE)) == KEEPALIVE) {
      if (!answer_keepalive(socket, stream)) return -1;
    } else if (complete_message(room, length).starts_with(OPTIONS_TRIGGER)) {
      log_message(LOG_INFO, "Received OPTIONS command for stream %d", int{stream->stream_id});
      return static_cast<int>(received);
    } else {
      log_message(LOG_DEBUG, "Unexpected registration response: %.*s", static_cast<int>(received),
                  buffer);
    }
  }
  return -1;
}
