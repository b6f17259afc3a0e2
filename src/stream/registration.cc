#include "stream/registration.h"

#include <errno.h>
#include <stdio.h>
#include <string.h>
#include <sys/socket.h>

#include <string_view>

#include "core/context.h"
#include "core/log.h"
#include "core/sockets.h"
#include "monitor/monitor.h"

static constexpr int REGISTER_TIMEOUT_S = 2;
static constexpr int IDLE_TIMEOUT_S = 120;     // the cloud may stay silent for so long
static constexpr size_t REGISTER_SIZE = 1024;  // bytes; the message must be shorter
static_assert(REGISTER_SIZE <= TRANSFER_SIZE, "it is composed in one of the stream's buffers");

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
  char *message = stream->buffers->camera;  // nothing is exchanged with the camera meanwhile
  const int length =
      snprintf(message, REGISTER_SIZE, REGISTER_MESSAGE, config.cloud_id, int{stream->stream_id},
               stream->user, stream->password, stream->uri, config.model, config.vendor);
  log_message(LOG_DEBUG, "%s", message);
  if (length < 0 || static_cast<size_t>(length) >= REGISTER_SIZE) {
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

// Registered as soon as the message has left: the cloud does not answer it.
static bool register_stream(int socket, const StreamContext *stream) {
  if (!socket_set_options(socket, REGISTER_TIMEOUT_S, REGISTER_TIMEOUT_S, false)) {
    log_message(LOG_ERROR, "Failed to set registration timeouts: %s", strerror(errno));
    return false;
  }
  if (!cloud_send_register(socket, stream)) return false;
  monitor_update_status(stream->stream_id, STREAM_REGISTERED);
  if (!socket_set_options(socket, IDLE_TIMEOUT_S, IDLE_TIMEOUT_S, false)) {
    log_message(LOG_ERROR, "Failed to set streaming timeouts: %s", strerror(errno));
    return false;
  }
  return true;
}

// One message of the cloud, terminated: its length, or -1 when there will be none.
static ssize_t receive_message(int socket, char *buffer, size_t size) {
  const ssize_t received = recv(socket, buffer, size - 1, 0);
  if (received > 0) {
    buffer[received] = '\0';
    return received;
  }
  // Tear-down wakes this receive as if the cloud had closed.
  if (!agent_running()) return -1;
  if (received == 0) {
    log_message(LOG_ERROR, "Connection closed by peer during registration");
  } else if (is_time_out(errno)) {
    // The words are the protocol's: nothing is tried again on this connection.
    log_message(LOG_DEBUG, "Registration timeout, retrying...");
  } else {
    log_message(LOG_ERROR, "Registration receive error: %s", strerror(errno));
  }
  return -1;
}

// Two bytes in an idle connection always fit: a short count means that it is of no more use.
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
  while (agent_running()) {
    stream_forget_buffers(stream);
    const ssize_t received = receive_message(socket, buffer, size);
    if (received < 0) return -1;
    const std::string_view message(buffer, static_cast<size_t>(received));
    if (message == KEEPALIVE) {
      if (!answer_keepalive(socket, stream)) return -1;
    } else if (message.starts_with(OPTIONS_TRIGGER)) {
      log_message(LOG_INFO, "Received OPTIONS command for stream %d", int{stream->stream_id});
      return static_cast<int>(received);
    } else {
      log_message(LOG_DEBUG, "Unexpected registration response: %.*s", static_cast<int>(received),
                  buffer);
    }
  }
  return -1;
}
