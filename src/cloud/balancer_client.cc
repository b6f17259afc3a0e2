#include "cloud/balancer_client.h"

#include <errno.h>
#include <poll.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>

#include <string_view>

#include "core/backoff.h"
#include "core/context.h"
#include "core/log.h"
#include "core/signals.h"
#include "core/sockets.h"

static constexpr int TIMEOUT_S = 5;  // of the connect, of each receive and of each send
static constexpr int TIMEOUT_MS = TIMEOUT_S * 1000;
static constexpr int STOP_GRACE_MS = 2000;  // that an attempt may go on after a stop is asked for
static constexpr int FIRST_DELAY_S = 1;
static constexpr int DELAY_CAP_S = 60;
static constexpr size_t RESPONSE_SIZE = 4096;    // bytes, without the terminator
static constexpr size_t MIN_RESPONSE_SIZE = 64;  // bytes
static constexpr size_t REQUEST_ROOM = 512;      // bytes beside the inserted values
static constexpr int HTTP_OK = 200;

static constexpr std::string_view BLANK_LINE = "\r\n\r\n";

// Agent to balancer. The Host header carries the address only; values are not percent-encoded.
static constexpr char ID_REQUEST[] =
    "GET /balancer/uuid HTTP/1.1\r\n"
    "Host: %s\r\n"
    "Connection: close\r\n"
    "Content-Type: text/xml\r\n"
    "Content-Length: 0\r\n"
    "\r\n";
static constexpr char SERVER_REQUEST[] =
    "GET /balancer/server/%s?vendor=%s&model=%s HTTP/1.1\r\n"
    "Host: %s\r\n"
    "Connection: close\r\n"
    "Content-Type: text/xml\r\n"
    "Content-Length: 0\r\n"
    "\r\n";

// What one operation works with; it lives for all its attempts.
struct Exchange {
  Text request;
  size_t request_size = 0;
  Text response;        // RESPONSE_SIZE bytes and a terminator
  size_t received = 0;  // bytes of the response so far
  StopGrace grace{STOP_GRACE_MS};

  [[nodiscard]] std::string_view text() const { return {response.get(), received}; }
};

static bool allocate_buffers(Exchange *exchange, size_t request_size) {
  exchange->response = Text(static_cast<char *>(malloc(RESPONSE_SIZE + 1)));
  if (!exchange->response) {
    log_message(LOG_ERROR, "Failed to allocate response buffer");
    return false;
  }
  exchange->request = Text(static_cast<char *>(malloc(request_size)));
  if (!exchange->request) {
    log_message(LOG_ERROR, "Failed to allocate request buffer");
    return false;
  }
  exchange->request_size = request_size;
  return true;
}

// A new socket with its time-outs; none (logged) on failure. The waits below keep to the same times
// by themselves, since only they notice a stop.
static Fd open_socket() {
  Fd balancer = tcp_socket();
  if (!balancer) {
    log_message(LOG_ERROR, "Failed to create socket: %s", strerror(errno));
    return Fd();
  }
  if (!socket_set_options(balancer.get(), TIMEOUT_S, TIMEOUT_S, false)) return Fd();
  return balancer;
}

// No name is looked up and nothing is tried in parallel: one address, one port, built in.
static bool connect_to(const Fd &balancer, const sockaddr_in &address, Exchange *exchange) {
  if (tcp_connect(balancer.get(), address, TIMEOUT_S, &exchange->grace)) return true;
  log_message(LOG_ERROR, "Connect failed: %s", strerror(errno));
  return false;
}

// The balancer may take the request in pieces, each within its own time.
static bool send_request(const Fd &balancer, Exchange *exchange) {
  std::string_view rest = exchange->request.get();
  while (!rest.empty()) {
    ssize_t sent = -1;
    if (socket_wait(balancer.get(), POLLOUT, TIMEOUT_MS, &exchange->grace)) {
      sent = send(balancer.get(), rest.data(), rest.size(), MSG_NOSIGNAL | MSG_DONTWAIT);
    }
    if (sent >= 0) {
      rest.remove_prefix(static_cast<size_t>(sent));
    } else if (errno != EINTR) {
      log_message(LOG_ERROR, "Failed to send request: %s", strerror(errno));
      return false;
    }
  }
  return true;
}

enum class Chunk { DATA, CLOSED, FAILED };

// Adds one chunk to the response and terminates it.
static Chunk receive_chunk(const Fd &balancer, Exchange *exchange) {
  ssize_t count = -1;
  do {
    if (!socket_wait(balancer.get(), POLLIN, TIMEOUT_MS, &exchange->grace)) break;
    count = recv(balancer.get(), exchange->response.get() + exchange->received,
                 RESPONSE_SIZE - exchange->received, MSG_DONTWAIT);
  } while (count < 0 && errno == EINTR);
  if (count < 0) {
    log_message(LOG_ERROR, "Receive error: %s", strerror(errno));
    return Chunk::FAILED;
  }
  exchange->received += static_cast<size_t>(count);
  exchange->response[exchange->received] = '\0';
  return count == 0 ? Chunk::CLOSED : Chunk::DATA;
}

static bool has_blank_line(const Exchange &exchange) {
  return exchange.text().find(BLANK_LINE) != std::string_view::npos;
}

// What is shorter than any sensible answer is not looked at any further: half an answer could name
// half an ID.
static bool is_size_sound(const Exchange &exchange) {
  if (exchange.received >= MIN_RESPONSE_SIZE) return true;
  log_message(LOG_ERROR, "Invalid response size or incomplete: %zu", exchange.received);
  return false;
}

// Reads up to the chunk that brings the blank line: a body in a later chunk is not read, and the
// attempt then fails for want of an answer. Balancers send both in one piece.
static bool receive_id_response(const Fd &balancer, Exchange *exchange) {
  for (;;) {
    const Chunk chunk = receive_chunk(balancer, exchange);
    if (chunk == Chunk::FAILED) return false;
    if (chunk == Chunk::CLOSED || has_blank_line(*exchange)) return is_size_sound(*exchange);
    if (exchange->received == RESPONSE_SIZE) {
      log_message(LOG_ERROR, "Invalid response size or incomplete: %zu", exchange->received);
      return false;
    }
  }
}

// As above, but a full response area is refused before it is searched.
static bool receive_server_response(const Fd &balancer, Exchange *exchange) {
  for (;;) {
    const Chunk chunk = receive_chunk(balancer, exchange);
    if (chunk == Chunk::FAILED) return false;
    if (exchange->received >= RESPONSE_SIZE) {
      log_message(LOG_ERROR, "Response too large");
      return false;
    }
    if (chunk == Chunk::CLOSED || has_blank_line(*exchange)) return is_size_sound(*exchange);
  }
}

// Nothing but 200: the balancer never redirects. 0 stands for a status line that makes no sense.
static bool check_status(const Exchange &exchange) {
  int status = 0;
  if (parse_http_status(exchange.response.get(), exchange.received, &status) && status == HTTP_OK) {
    return true;
  }
  log_message(LOG_ERROR, "Invalid HTTP response: %d", status);
  return false;
}

static bool read_id_answer(const Exchange &exchange, Text *id) {
  std::string_view body = exchange.text();
  const size_t blank_line = body.find(BLANK_LINE);
  if (blank_line == std::string_view::npos) {
    log_message(LOG_ERROR, "Malformed response - no body delimiter");
    return false;
  }
  body.remove_prefix(blank_line + BLANK_LINE.size());
  if (!extract_message_id(body.data(), body.size(), id)) return false;
  log_message(LOG_DEBUG, "Fetched new cloud ID from the API server");
  return true;
}

// Unlike an ID, the server is looked for in the headers too.
static bool read_server_answer(const Exchange &exchange, CloudServerInfo *info) {
  if (!parse_server_message(exchange.text(), info)) return false;
  log_message(LOG_DEBUG, "Resolved cloud server: %s:%d", info->host.get(), int{info->port});
  return true;
}

enum class Attempt { SUCCEEDED, FAILED, FATAL };

static Attempt attempt_result(bool succeeded) {
  return succeeded ? Attempt::SUCCEEDED : Attempt::FAILED;
}

// Nothing of an earlier attempt may answer for this one.
static void clear_response(Exchange *exchange) {
  exchange->received = 0;
  exchange->response[0] = '\0';
}

// `length` is what snprintf would have written.
static bool fits_request(const Exchange &exchange, int length) {
  if (length >= 0 && static_cast<size_t>(length) < exchange.request_size) return true;
  log_message(LOG_ERROR, "Request buffer overflow");
  return false;
}

// A request that does not fit is fatal here and not below: this one holds nothing but the built-in
// address, so that no other attempt could do better.
static Attempt attempt_id_fetch(Exchange *exchange, Text *id) {
  const char *server = proxy_context.config.api_server;
  clear_response(exchange);
  const Fd balancer = open_socket();
  if (!balancer) return Attempt::FAILED;
  sockaddr_in address;
  if (!tcp_address(server, proxy_context.config.api_port, &address)) {
    log_message(LOG_ERROR, "Invalid address: %s", server);
    return Attempt::FAILED;
  }
  if (!connect_to(balancer, address, exchange)) return Attempt::FAILED;
  if (!fits_request(*exchange, snprintf(exchange->request.get(), exchange->request_size, ID_REQUEST,
                                        server))) {
    return Attempt::FATAL;
  }
  return attempt_result(send_request(balancer, exchange) &&
                        receive_id_response(balancer, exchange) && check_status(*exchange) &&
                        read_id_answer(*exchange, id));
}

// The values go into the request line as they are, blanks included: the balancer knows.
static Attempt attempt_resolution(const char *cloud_id, Exchange *exchange, CloudServerInfo *info) {
  const AgentConfig &config = proxy_context.config;
  clear_response(exchange);
  const Fd balancer = open_socket();
  if (!balancer) return Attempt::FAILED;
  sockaddr_in address;
  if (!tcp_address(config.api_server, config.api_port, &address)) {
    log_message(LOG_ERROR, "Invalid API server address: %s", config.api_server);
    return Attempt::FAILED;
  }
  if (!connect_to(balancer, address, exchange)) return Attempt::FAILED;
  if (!fits_request(*exchange,
                    snprintf(exchange->request.get(), exchange->request_size, SERVER_REQUEST,
                             cloud_id, config.vendor, config.model, config.api_server))) {
    return Attempt::FAILED;
  }
  return attempt_result(send_request(balancer, exchange) &&
                        receive_server_response(balancer, exchange) && check_status(*exchange) &&
                        read_server_answer(*exchange, info));
}

// Pauses before the next attempt; false when the agent is to stop instead.
static bool pause_before_retry(int delay) {
  main_pause(delay);
  return agent_running();
}

// The buffers are allocated once, ahead of the first attempt: want of memory ends the start at
// once, while an unreachable balancer is waited for.
bool fetch_cloud_id(Text *id) {
  if (id) *id = nullptr;
  if (!id || !proxy_context.config.api_server) {
    log_message(LOG_ERROR, "Invalid parameters for cloud ID fetch");
    return false;
  }
  Exchange exchange;
  if (!allocate_buffers(&exchange, REQUEST_ROOM) || !agent_running()) return false;

  for (int delay = FIRST_DELAY_S;; delay = next_retry_delay(delay, DELAY_CAP_S)) {
    const Attempt attempt = attempt_id_fetch(&exchange, id);
    if (attempt != Attempt::FAILED) return attempt == Attempt::SUCCEEDED;
    if (!agent_running()) return false;
    log_message(LOG_INFO, "Retrying cloud ID fetch in %d seconds", delay);
    if (!pause_before_retry(delay)) return false;
  }
}

bool resolve_cloud_server(const char *cloud_id, CloudServerInfo *info) {
  const AgentConfig &config = proxy_context.config;
  if (info) *info = {};
  if (!cloud_id || !info || !config.api_server || !config.vendor || !config.model) {
    log_message(LOG_ERROR, "Invalid parameters for cloud server resolution");
    return false;
  }
  const size_t request_size = strlen(cloud_id) + strlen(config.vendor) + strlen(config.model) +
                              strlen(config.api_server) + REQUEST_ROOM;
  Exchange exchange;
  if (!allocate_buffers(&exchange, request_size) || !agent_running()) return false;

  for (int delay = FIRST_DELAY_S;; delay = next_retry_delay(delay, DELAY_CAP_S)) {
    if (attempt_resolution(cloud_id, &exchange, info) == Attempt::SUCCEEDED) return true;
    if (!agent_running()) return false;
    log_message(LOG_INFO, "Retrying cloud server resolution in %d seconds", delay);
    if (!pause_before_retry(delay)) return false;
  }
}
