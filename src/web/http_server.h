// The small HTTP server for the device's local network: one thread, one request at a time, a fixed
// table of routes, a complete response and a close for every request.
#pragma once

#include <pthread.h>
#include <stdint.h>

#include <array>

#include "core/atomic_flag.h"
#include "core/lock.h"

inline constexpr uint32_t MAX_HANDLERS = 32;

// Writes one complete response to the connected client. Server thread.
using HttpCallback = void (*)(int socket);

// One route. Written before the server thread starts, only read afterwards.
struct HttpHandler {
  const char *path;      // the request target must equal it in full; a constant, not copied
  char *link_id;         // owned copy, until the process ends; element id of the home page's link
  uint8_t show_on_home;  // 1: the home page lists this route
  HttpCallback callback;
};

struct HttpServer {
  int listen_fd;                                   // -1 when closed
  pthread_t server_thread;                         // joined by http_server_stop
  AtomicFlag running;                              // 1 from the start until the stop
  std::array<HttpHandler, MAX_HANDLERS> handlers;  // in registration order
  uint32_t handler_count;
  uint16_t port;
  int shutdown_pipe[2];  // read end, write end; -1 when closed
  // Guards the closing of the descriptors against the stop operation, which writes to the pipe and
  // cuts off the client from the main thread.
  Mutex lock;
  int client_fd GUARDED_BY(lock);  // the connection being served; -1 when none
};

extern HttpServer http_server;

// Lets `register_routes` fill the route table by http_register_handler, listens on all interfaces
// and starts the server thread. False (logged) with everything closed and `running` clear. Main
// thread, once.
[[nodiscard]] bool http_server_start(uint16_t port, bool (*register_routes)());

// Ends and joins the server thread; a request in progress is cut off. Nothing unless `running` is
// set. Main thread.
void http_server_stop();

[[nodiscard]] inline bool http_server_running() {
  return http_server.running;
}

// Adds a route. False (logged) when the table is full, or without memory. Main thread, during the
// start.
[[nodiscard]] bool http_register_handler(const char *path, const char *link_id, bool show_on_home,
                                         HttpCallback callback);
