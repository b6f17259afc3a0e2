#include "stream/camera.h"

#include <errno.h>
#include <netinet/in.h>
#include <stdio.h>
#include <string.h>
#include <sys/socket.h>

#include "core/log.h"
#include "core/sockets.h"
#include "monitor/monitor.h"
#include "stream/rtsp_request.h"

static constexpr int CAMERA_TIMEOUT_S = 2;     // until the handshake is over
static constexpr size_t REJECTION_SIZE = 128;  // bytes
static constexpr int RTSP_OK = 200;

// False when the host is not a dotted IPv4 address (EINVAL).
static bool convert_address(const StreamContext *stream, sockaddr_in *address) {
  return tcp_address(stream->host, stream->port, address);
}

static bool connect_to(const WorkerSocket &camera, const sockaddr_in &address) {
  StopGrace none(0);
  return tcp_connect(camera.get(), address, CAMERA_TIMEOUT_S, &none);
}

// One receive call of at most size - 1 bytes, terminated: what arrives is taken as the answer.
static ssize_t receive_text(int socket, char *buffer, size_t size) {
  const ssize_t received = recv(socket, buffer, size - 1, 0);
  buffer[received > 0 ? received : 0] = '\0';
  return received;
}

static bool contains(const char *text, size_t length, std::string_view wanted) {
  return std::string_view(text, length).find(wanted) != std::string_view::npos;
}

// A camera that does not answer is not worth a line: it may be switched off for months, and is
// asked every ten seconds.
bool stream_check(const StreamContext *stream) {
  const WorkerSocket camera = worker_tcp_socket();
  if (!camera) {
    log_message(LOG_ERROR, "Failed to create stream check socket: %s", strerror(errno));
    return false;
  }
  if (!socket_set_options(camera.get(), CAMERA_TIMEOUT_S, CAMERA_TIMEOUT_S, false)) return false;
  sockaddr_in address;
  if (!convert_address(stream, &address) || !connect_to(camera, address)) return false;

  char *message = stream->buffers->camera;  // the request, then the answer
  const int length = rtsp_compose_probe(stream, message, TRANSFER_SIZE);
  if (length < 0) return false;
  if (!tcp_send_message(camera.get(), {message, static_cast<size_t>(length)})) return false;
  const ssize_t received = receive_text(camera.get(), message, TRANSFER_SIZE);
  // Anywhere in what came, not only at its start.
  return received > 0 && contains(message, static_cast<size_t>(received), "RTSP/1.0 200 OK");
}

// Each step has a report of its own, unlike the probe: by now the cloud is waiting for video.
WorkerSocket camera_connect(const StreamContext *stream) {
  WorkerSocket camera = worker_tcp_socket();
  if (!camera) {
    stream_report_error(stream, errno, "Failed to create camera socket");
    return WorkerSocket();
  }
  if (!socket_set_options(camera.get(), CAMERA_TIMEOUT_S, CAMERA_TIMEOUT_S, true)) {
    stream_report_error(stream, errno, "Failed to set camera socket options");
    return WorkerSocket();
  }
  sockaddr_in address;
  if (!convert_address(stream, &address)) {
    stream_report_error(stream, errno, "Invalid camera address");
    return WorkerSocket();
  }
  if (!connect_to(camera, address)) {
    stream_report_error(stream, errno, "Camera connection failed");
    return WorkerSocket();
  }
  log_message(LOG_DEBUG, "Connected to camera %s:%d", stream->host, int{stream->port});
  return camera;
}

// Traffic is counted as it is moved, so that a handshake that fails half-way shows what it took.
static bool forward_request(int camera_fd, const char *request, const StreamContext *stream) {
  char *rewritten = stream->buffers->camera;
  const int length = rtsp_rewrite_options(request, stream, rewritten, TRANSFER_SIZE);
  if (length < 0) {
    stream_report_error(stream, EINVAL, "Failed to modify OPTIONS request");
    return false;
  }
  const auto size = static_cast<size_t>(length);
  if (!tcp_send_message(camera_fd, {rewritten, size})) {
    stream_report_error(stream, errno, "Failed to forward OPTIONS to camera");
    return false;
  }
  log_message(LOG_DEBUG, "Forwarded OPTIONS to camera: %.*s", length, rewritten);
  monitor_update_stats(stream->stream_id, size, 0);
  return true;
}

// The camera's answer, terminated, in `answer`: its length, or 0 after the failure was reported.
static size_t receive_answer(int camera_fd, char *answer, const StreamContext *stream) {
  const ssize_t received = receive_text(camera_fd, answer, TRANSFER_SIZE);
  if (received == 0) {
    stream_report_error(stream, ECONNRESET, "Camera connection closed during handshake");
    return 0;
  }
  if (received < 0) {
    stream_report_error(stream, errno, "Failed to receive OPTIONS response from camera");
    return 0;
  }
  monitor_update_stats(stream->stream_id, 0, static_cast<uint64_t>(received));
  log_message(LOG_DEBUG, "Received OPTIONS response from camera: %.*s", static_cast<int>(received),
              answer);
  return static_cast<size_t>(received);
}

// Anything but 200 is kept from the cloud, which would take it for the answer to its viewer.
static bool check_answer(const char *answer, const StreamContext *stream) {
  int code = 0;
  if (!rtsp_parse_status(answer, &code)) {
    stream_report_error(stream, EPROTO, "Invalid OPTIONS response format from camera");
    return false;
  }
  if (code == RTSP_OK) return true;
  char rejection[REJECTION_SIZE];
  snprintf(rejection, sizeof rejection, "Camera rejected OPTIONS request with code %d", code);
  stream_report_error(stream, EPROTO, rejection);
  return false;
}

static bool forward_answer(int cloud_fd, int camera_fd, const StreamContext *stream) {
  char *answer = stream->buffers->camera;  // in the place of the request, which has been sent
  const size_t length = receive_answer(camera_fd, answer, stream);
  if (length == 0 || !check_answer(answer, stream)) return false;
  if (!tcp_send_message(cloud_fd, {answer, length})) {
    stream_report_error(stream, errno, "Failed to forward camera's OPTIONS response to cloud");
    return false;
  }
  monitor_update_stats(stream->stream_id, length, 0);
  log_message(LOG_DEBUG, "Forwarded camera's OPTIONS response to cloud");
  return true;
}

bool rtsp_handshake(int cloud_fd, int camera_fd, const char *request, const StreamContext *stream) {
  return forward_request(camera_fd, request, stream) && forward_answer(cloud_fd, camera_fd, stream);
}
