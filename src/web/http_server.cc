#include "web/http_server.h"

#include <errno.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <stdio.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include <algorithm>
#include <span>

#include "core/clock.h"
#include "core/heap.h"
#include "core/log.h"
#include "core/owners.h"
#include "core/signals.h"
#include "core/text.h"
#include "web/http_response.h"

// Browsers open connections in reserve and say nothing on them, so clients are waited for together;
// only requests are served one at a time.
static constexpr int LISTEN_BACKLOG = 10;
static constexpr size_t MAX_CLIENTS = 32;              // accepted at the same time
static constexpr int WAIT_TIMEOUT_MS = 1250;           // between looks at `running`; a stop has 2 s
static constexpr time_t RECEIVE_TIMEOUT_S = 2;         // a client may take to send its request
static constexpr suseconds_t SEND_SLICE_US = 250'000;  // of a write between two looks
static constexpr size_t REQUEST_SIZE = 8192;           // bytes, terminator included
static constexpr int DRAIN_TIME_MS = 500;              // given to a client to close first
static constexpr size_t DRAIN_BYTES = 65536;           // of an overlong request thrown away
static constexpr int ACCEPT_PAUSE_MS = 100;            // after a failure that is likely to stay

HttpServer http_server;

// The server thread's own. What a client sends is received here: on the stack it would take a page
// more of a thread that waits, as the functions below end up in one frame.
static char receive_buffer[REQUEST_SIZE];

// A connection that is waited for: for its request, or to be closed by the client.
struct HttpClient {
  Fd socket;
  int64_t deadline_ms = 0;
  bool answered = false;
  size_t thrown_away = 0;  // bytes of what came behind the request
};

// The server thread's own; those in use come first, in the order of their arrival.
struct HttpClients {
  std::array<HttpClient, MAX_CLIENTS> list;
  size_t count = 0;
};

// --- One client, on the server thread ------------------------------------------------------------

static void set_client_timeouts(int socket) {
  const timeval receive = {.tv_sec = RECEIVE_TIMEOUT_S, .tv_usec = 0};
  if (setsockopt(socket, SOL_SOCKET, SO_RCVTIMEO, &receive, sizeof receive) != 0) {
    log_message(LOG_ERROR, "Failed to set socket receive timeout: %s", strerror(errno));
  }
  const timeval send = {.tv_sec = 0, .tv_usec = SEND_SLICE_US};
  if (setsockopt(socket, SOL_SOCKET, SO_SNDTIMEO, &send, sizeof send) != 0) {
    log_message(LOG_ERROR, "Failed to set socket send timeout: %s", strerror(errno));
  }
}

// In full and byte for byte: a query, a slash at the end or another case is another target.
static const HttpHandler *find_handler(const char *target) {
  const std::span used(http_server.handlers.data(), http_server.handler_count);
  const auto found = std::find_if(used.begin(), used.end(), [target](const HttpHandler &handler) {
    return strcmp(handler.path, target) == 0;
  });
  return found == used.end() ? nullptr : &*found;
}

// Reads once and answers from that part alone; only the request line is looked at. Method and
// version must be there, but any will do: nothing on the pages changes the device. False without
// an answer: the client sent nothing.
static bool http_handle_client(int socket) {
  const ssize_t received = recv(socket, receive_buffer, sizeof receive_buffer - 1, 0);
  if (received <= 0) return false;
  receive_buffer[received] = '\0';

  // One more than the widths below. A longer target is cut, and then matches no route.
  char method[16];
  char target[256];
  char version[16];
  if (sscanf(receive_buffer, "%15s %255s %15s", method, target, version) < 3) {
    http_send_not_found(socket);
    return true;
  }
  const HttpHandler *handler = find_handler(target);
  if (handler) {
    handler->callback(socket);
  } else {
    http_send_not_found(socket);
  }
  return true;
}

// Lets the stop operation cut the client off. False when the stop came first.
static bool enter_client(int socket) {
  const ScopedLock lock(&http_server.lock);
  if (!http_server.running) return false;
  http_server.client_fd = socket;
  return true;
}

static void leave_client() {
  const ScopedLock lock(&http_server.lock);
  http_server.client_fd = -1;
}

// False when the client is done with, and to be closed. Closing with request bytes unread would
// reset the connection and could cut off the response on its way: so the write side is shut and the
// client gets a moment to read it and to close first.
static bool answer_client(HttpClient *client) {
  const int socket = client->socket.get();
  if (!enter_client(socket)) return false;
  const bool answered = http_handle_client(socket);
  leave_client();
  if (!answered) return false;
  heap_trim();
  if (shutdown(socket, SHUT_WR) != 0) return false;
  client->answered = true;
  client->deadline_ms = monotonic_ms() + DRAIN_TIME_MS;
  return true;
}

// False when the client has closed, or says too much.
static bool drain_client(HttpClient *client) {
  const ssize_t received =
      recv(client->socket.get(), receive_buffer, sizeof receive_buffer, MSG_DONTWAIT);
  if (received <= 0) return false;
  client->thrown_away += static_cast<size_t>(received);
  return client->thrown_away < DRAIN_BYTES;
}

// --- All clients, on the server thread -----------------------------------------------------------

static void accept_client(HttpClients *clients) {
  Fd socket(accept4(http_server.listen_fd, nullptr, nullptr, SOCK_CLOEXEC));
  if (socket) {
    set_client_timeouts(socket.get());
    HttpClient client;
    client.socket = std::move(socket);
    client.deadline_ms = monotonic_ms() + RECEIVE_TIMEOUT_S * 1000;
    clients->list[clients->count++] = std::move(client);
    return;
  }
  if (errno == EAGAIN || errno == EWOULDBLOCK) return;
  const int error = errno;
  log_message(LOG_ERROR, "Accept failed: %s", strerror(error));
  if (error == EINTR || error == ECONNABORTED) return;
  // For want of descriptors or memory, or by an access policy: the connection stays waiting and
  // would wake the loop at once, again and again. A stop does not wait for the pause.
  pollfd shutdown_byte = {.fd = http_server.shutdown_pipe[0], .events = POLLIN, .revents = 0};
  poll(&shutdown_byte, 1, ACCEPT_PAUSE_MS);
}

// `now` is from before the first of them was served: time in which others were is not counted as
// silence.
static bool stays(HttpClient *client, bool readable, int64_t now) {
  if (!readable) return now < client->deadline_ms;
  return client->answered ? drain_client(client) : answer_client(client);
}

// Serves whoever has spoken, and closes who is done or late. `waits` are the clients', in order.
static void serve_clients(HttpClients *clients, std::span<const pollfd> waits) {
  const int64_t now = monotonic_ms();
  size_t kept = 0;
  for (size_t i = 0; i < waits.size(); i++) {
    HttpClient *client = &clients->list[i];
    if (stays(client, waits[i].revents != 0, now)) {
      if (kept != i) clients->list[kept] = std::move(*client);
      kept++;
    } else {
      client->socket = Fd();
    }
  }
  clients->count = kept;
}

// Up to the first deadline of a client, and to the next look at `running`.
static int wait_time_ms(const HttpClients &clients) {
  const int64_t now = monotonic_ms();
  int64_t left = WAIT_TIMEOUT_MS;
  for (size_t i = 0; i < clients.count; i++)
    left = std::min(left, clients.list[i].deadline_ms - now);
  return static_cast<int>(std::max<int64_t>(left, 0));
}

// --- The server thread ---------------------------------------------------------------------------

static void close_one(int *descriptor) {
  if (*descriptor >= 0) close(*descriptor);
  *descriptor = -1;
}

static void http_server_close_sockets() {
  const ScopedLock lock(&http_server.lock);
  close_one(&http_server.listen_fd);
  close_one(&http_server.shutdown_pipe[0]);
  close_one(&http_server.shutdown_pipe[1]);
}

static void read_shutdown_byte() {
  char byte = 0;
  const ssize_t count = read(http_server.shutdown_pipe[0], &byte, 1);
  if (count > 0) {
    log_message(LOG_DEBUG, "Web server received shutdown signal via pipe");
  } else if (count == 0) {
    log_message(LOG_ERROR, "Shutdown pipe closed unexpectedly");
  } else if (errno != EAGAIN && errno != EWOULDBLOCK) {
    log_message(LOG_ERROR, "Error reading from shutdown pipe: %s", strerror(errno));
  }
}

// Waits for events and handles them; false when the server is to end.
static bool serve_once(HttpClients *clients) {
  // poll rather than select: a descriptor number of 1024 or more must not write past a set.
  std::array<pollfd, 2 + MAX_CLIENTS> waits = {};
  waits[0] = {.fd = http_server.shutdown_pipe[0], .events = POLLIN, .revents = 0};
  // A negative number is passed over: while there is no place, whoever connects waits outside.
  const bool has_place = clients->count < MAX_CLIENTS;
  waits[1] = {.fd = has_place ? http_server.listen_fd : -1, .events = POLLIN, .revents = 0};
  for (size_t i = 0; i < clients->count; i++)
    waits[2 + i] = {.fd = clients->list[i].socket.get(), .events = POLLIN, .revents = 0};
  const int ready = poll(waits.data(), 2 + clients->count, wait_time_ms(*clients));
  if (ready < 0) {
    if (errno == EINTR) return true;
    // Meant: who watches the log looks for this text, whichever of the two calls waits.
    log_message(LOG_ERROR, "Select failed: %s", strerror(errno));
    return false;
  }
  if (waits[0].revents != 0) {
    read_shutdown_byte();
    return false;
  }
  serve_clients(clients, std::span(waits).subspan(2, clients->count));
  if (waits[1].revents != 0) accept_client(clients);
  return true;
}

// Created by http_server_start, ended by http_server_stop (or by a failed wait), joined by the
// latter. Runs every page handler, so these need no lock of their own.
static void *http_server_thread(void * /*argument*/) {
  HttpClients clients;
  while (http_server.running && serve_once(&clients)) {
  }
  // Here and not in the stop operation: a thread that ends by itself must not leave them open.
  http_server_close_sockets();
  return nullptr;
}

// --- Start and stop, on the main thread ----------------------------------------------------------

bool http_register_handler(const char *path, const char *link_id, bool show_on_home,
                           HttpCallback callback) {
  if (http_server.handler_count >= MAX_HANDLERS) {
    log_message(LOG_ERROR, "Maximum number of handlers reached");
    return false;
  }
  Text link_id_copy = text_copy(link_id);
  if (!link_id_copy) return false;
  http_server.handlers[http_server.handler_count++] = {.path = path,
                                                       .link_id = link_id_copy.release(),
                                                       .show_on_home = show_on_home,
                                                       .callback = callback};
  return true;
}

// Without the lock: the server thread does not exist yet, and no other one comes here.
static void reset_server(uint16_t port) UNCHECKED_LOCKS {
  http_server.listen_fd = -1;
  http_server.server_thread = {};
  http_server.running = true;
  http_server.handlers = {};
  http_server.handler_count = 0;
  http_server.port = port;
  http_server.shutdown_pipe[0] = -1;
  http_server.shutdown_pipe[1] = -1;
  http_server.client_fd = -1;
}

static bool create_shutdown_pipe() {
  if (pipe2(http_server.shutdown_pipe, O_CLOEXEC) != 0) {
    log_message(LOG_ERROR, "Failed to create shutdown pipe: %s", strerror(errno));
    return false;
  }
  const int read_end = http_server.shutdown_pipe[0];
  const int flags = fcntl(read_end, F_GETFL, 0);
  if (flags < 0) {
    log_message(LOG_ERROR, "Failed to get pipe flags: %s", strerror(errno));
    return false;
  }
  if (fcntl(read_end, F_SETFL, flags | O_NONBLOCK) != 0) {
    log_message(LOG_ERROR, "Failed to set pipe non-blocking: %s", strerror(errno));
    return false;
  }
  return true;
}

static bool create_socket() {
  // Non-blocking below: a client that is gone again between poll and accept must not hold the loop.
  const int socket_fd = http_server.listen_fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (socket_fd < 0) {
    log_message(LOG_ERROR, "Failed to create server socket: %s", strerror(errno));
    return false;
  }
  const int flags = fcntl(socket_fd, F_GETFL, 0);
  if (flags < 0) {
    log_message(LOG_ERROR, "Failed to get socket flags: %s", strerror(errno));
    return false;
  }
  if (fcntl(socket_fd, F_SETFL, flags | O_NONBLOCK) != 0) {
    log_message(LOG_ERROR, "Failed to set socket non-blocking: %s", strerror(errno));
    return false;
  }
  // A restarted agent must not wait for the connections of its last run to be forgotten.
  const int on = 1;
  if (setsockopt(socket_fd, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on) != 0) {
    log_message(LOG_ERROR, "Failed to set SO_REUSEADDR: %s", strerror(errno));
    return false;
  }
  return true;
}

static bool listen_on_port(uint16_t port) {
  sockaddr_in address = {};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_ANY);
  address.sin_port = htons(port);
  if (bind(http_server.listen_fd, reinterpret_cast<const sockaddr *>(&address), sizeof address) !=
      0) {
    log_message(LOG_ERROR, "Failed to bind server socket: %s", strerror(errno));
    return false;
  }
  if (listen(http_server.listen_fd, LISTEN_BACKLOG) != 0) {
    log_message(LOG_ERROR, "Failed to listen on server socket: %s", strerror(errno));
    return false;
  }
  return true;
}

static bool start_thread() {
  const StopSignalsBlocked blocked;
  const int result =
      pthread_create(&http_server.server_thread, nullptr, http_server_thread, nullptr);
  if (result == 0) return true;
  log_message(LOG_ERROR, "Failed to create server thread: %s", strerror(result));
  return false;
}

bool http_server_start(uint16_t port, bool (*register_routes)()) {
  reset_server(port);
  if (create_shutdown_pipe() && register_routes() && create_socket() && listen_on_port(port) &&
      start_thread()) {
    log_message(LOG_INFO, "Web server started on port %d", int{port});
    return true;
  }
  // Left as if never started, so that tear-down joins no thread that does not exist.
  http_server.running = false;
  http_server_close_sockets();
  return false;
}

// Clears `running` and wakes the thread. Under the lock, since the thread may find the cleared flag
// first and close the pipe, whose number must not be written to by then.
static void signal_stop() {
  const ScopedLock lock(&http_server.lock);
  http_server.running = false;
  if (http_server.client_fd >= 0) shutdown(http_server.client_fd, SHUT_RDWR);
  if (http_server.shutdown_pipe[1] < 0) return;
  const char byte = 1;
  if (write(http_server.shutdown_pipe[1], &byte, 1) != 1) {
    log_message(LOG_ERROR, "Failed to send shutdown signal: %s", strerror(errno));
  }
}

void http_server_stop() {
  if (!http_server_running()) return;
  signal_stop();
  pthread_join(http_server.server_thread, nullptr);
  log_message(LOG_INFO, "Web server stopped");
}
