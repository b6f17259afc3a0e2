#include "check/connect.h"

#include <errno.h>
#include <netinet/in.h>
#include <stdio.h>
#include <string.h>
#include <sys/socket.h>

#include <algorithm>
#include <string_view>

#include "check/agent_log.h"
#include "check/report.h"
#include "cloud/balancer_client.h"
#include "core/clock.h"
#include "core/context.h"
#include "core/sockets.h"
#include "core/text.h"
#include "stream/camera.h"
#include "stream/rtsp_request.h"

static constexpr int CLOUD_TIMEOUT_S = 10;
static constexpr int UNAUTHORIZED = 401;
static constexpr size_t PEER_SIZE = sizeof "255.255.255.255:65535";

// --- Balancer and cloud --------------------------------------------------------------------------

static void report_balancer_failure(const char *what) {
  const char *reason = agent_failure();
  report(Level::WARNING, "balancer",
         "%s:%d: no %s (%s); the agent asks until there is: check the "
         "network, and the address built in",
         proxy_context.config.api_server, int{proxy_context.config.api_port}, what,
         reason[0] == '\0' ? "none in its answer" : reason);
}

static bool ask_balancer(bool stored_id, CloudServerInfo *info) {
  Text id;
  if (!stored_id) {
    const OneAttempt once;
    if (!fetch_cloud_id(&id)) {
      report_balancer_failure("cloud ID");
      return false;
    }
  }
  const OneAttempt once;
  if (!resolve_cloud_server(stored_id ? proxy_context.config.cloud_id : id.get(), info)) {
    report_balancer_failure("cloud server");
    return false;
  }
  report(Level::FINE, "balancer", "names the cloud server %s:%d%s", info->host.get(),
         int{info->port}, stored_id ? "" : ", and issues cloud IDs");
  return true;
}

static void ask_cloud(const CloudServerInfo &info) {
  const char *host = info.host.get();
  sockaddr_in address;
  if (!tcp_address(host, info.port, &address)) {
    report(Level::ERROR, "cloud",
           "\"%s\" is no IPv4 address, and names are never looked up: no "
           "stream gets there; the balancer must name a number",
           host);
    return;
  }
  const Fd cloud = tcp_socket();
  StopGrace none(0);
  if (!cloud || !tcp_connect(cloud.get(), address, CLOUD_TIMEOUT_S, &none)) {
    report(Level::WARNING, "cloud",
           "%s:%d: %s; the agent goes on trying: does a firewall let it "
           "out?",
           host, int{info.port},
           errno == EINPROGRESS ? "no connection within 10 s" : strerror(errno));
    return;
  }
  report(Level::FINE, "cloud", "%s:%d takes connections (nothing was registered)", host,
         int{info.port});
}

// --- Cameras -------------------------------------------------------------------------------------

static std::string_view first_line(std::string_view text) {
  return {text.data(), std::min(text.find_first_of("\r\n"), text.size())};
}

// Nothing came: why, by the error that the agent ran into, 0 for none.
static const char *silence(int error) {
  switch (error) {
    case ECONNREFUSED:
      return "connection refused: nothing listens at that port; is it the RTSP port, and RTSP "
             "switched on in the camera?";
    case EINPROGRESS:
    case EHOSTUNREACH:
    case ENETUNREACH:
      return "no connection within 2 s: is the address right, the camera on, no firewall between?";
    case EAGAIN:
      return "connected, but no answer within 2 s: does RTSP live at that port? A camera that "
             "hangs wants a restart";
    case 0:
    case EPIPE:
    case ECONNRESET:
      return "connected, and closed without an answer: does RTSP live at that port, and does the "
             "camera serve another client?";
    default:
      return strerror(error);
  }
}

// Without the end of its status line, if it is a piece of one.
static bool is_torn(std::string_view answer, std::string_view line) {
  static constexpr std::string_view VERSION = "RTSP/1.0";
  return line.size() == answer.size() && (line.starts_with(VERSION) || VERSION.starts_with(line));
}

static void report_answer(size_t number, const char *peer, std::string_view answer) {
  const std::string_view line = first_line(answer);
  const auto length = static_cast<int>(line.size());
  int code = 0;
  if (is_torn(answer, line)) {
    report_stream(Level::WARNING, number,
                  "%s: answer in pieces, of which the first is \"%.*s\" and taken for the whole; "
                  "what lies between (a proxy, a slow link), or the camera, must send it at once",
                  peer, length, line.data());
  } else if (rtsp_parse_status(answer.data(), &code) && code == UNAUTHORIZED) {
    report_stream(Level::ERROR, number,
                  "%s: 401 to OPTIONS: the agent asks without a login; let the camera answer "
                  "OPTIONS without one",
                  peer);
  } else {
    report_stream(
        Level::ERROR, number,
        "%s: \"%.*s\" to OPTIONS, not \"RTSP/1.0 200 OK\"; is the path right, and RTSP at "
        "that port?",
        peer, length, line.data());
  }
}

// The second thing that a camera is asked, this time with the login: here by a cloud that is only
// the other end of a pair of sockets.
static bool answers_the_cloud(const StreamContext *stream, StreamMonitorState *state) {
  int ends[2];
  if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends) != 0) return true;
  const Fd cloud(ends[0]);
  const Fd unread(ends[1]);
  const WorkerSocket camera = camera_connect(stream);
  if (camera && rtsp_handshake(cloud.get(), camera.get(), CLOUD_REQUEST, stream)) return true;
  return !monitor_get_stream_state(stream->stream_id, state);
}

static void report_good_probe(const StreamContext *stream, const char *peer, int64_t milliseconds) {
  const size_t number = stream->stream_id;
  const bool torn = !strstr(stream->buffers->camera, "\r\n\r\n");
  StreamMonitorState state;
  if (!answers_the_cloud(stream, &state)) {
    const bool refused = state.last_error_code == EPROTO;
    report_stream(refused ? Level::ERROR : Level::WARNING, number,
                  "%s: 200 without a login, but not to the cloud's request%s: %s; is the login "
                  "right?",
                  peer, stream->user[0] != '\0' ? " with the login" : "", state.last_error_message);
  } else if (torn) {
    report_stream(Level::WARNING, number,
                  "%s: 200, but the answer in pieces: it works only while the first has the whole "
                  "status line",
                  peer);
  } else {
    report_stream(Level::FINE, number, "%s: 200 within %lld ms", peer,
                  static_cast<long long>(milliseconds));
  }
}

// 0, or why nothing came. The agent's own probe; for what it leaves behind see stream_check.
static int ask_camera(const StreamContext *stream, const char *peer) {
  stream_forget_buffers(stream);
  const int64_t began = monotonic_ms();
  errno = 0;
  const bool good = stream_check(stream);
  const int error = errno;
  const std::string_view answer = stream->buffers->camera;
  if (good) {
    report_good_probe(stream, peer, monotonic_ms() - began);
  } else if (answer.empty() || answer.starts_with("OPTIONS ")) {
    report_stream(Level::WARNING, stream->stream_id, "%s: %s", peer, silence(error));
    return error;
  } else {
    report_answer(stream->stream_id, peer, answer);
  }
  return 0;
}

// Of a recorder that is not there, not every channel is waited for.
static bool is_unreachable(int error) {
  return error == EINPROGRESS || error == EHOSTUNREACH || error == ENETUNREACH;
}

void ask_everybody(std::span<const CheckedStream> streams, bool stored_id) {
  CloudServerInfo info;
  if (ask_balancer(stored_id, &info)) ask_cloud(info);
  char last_peer[PEER_SIZE] = "";
  int last_error = 0;
  for (const CheckedStream &stream : streams) {
    if (!has_address(stream) || stream.record->port == 0) continue;
    char peer[PEER_SIZE];
    snprintf(peer, sizeof peer, "%s:%d", stream.record->host, int{stream.record->port});
    if (strcmp(peer, last_peer) == 0 && is_unreachable(last_error)) {
      report_stream(Level::WARNING, stream.record->stream_id, "%s: %s", peer, silence(last_error));
      continue;
    }
    last_error = ask_camera(stream.record.get(), peer);
    text_copy_to(last_peer, sizeof last_peer, peer);
  }
}
