// Whatever a client sends to the pages: an answer, if any, is well-formed.
#include "target.h"
#include "web/http_server.cc"
#include "web/routes.h"

void fuzz(Parts parts) {
  static char text[] = "demo-cloud-id-0001";
  proxy_context.config.cloud_id = proxy_context.cloud_server = text;
  static const bool ready = monitor_init(2) && register_routes();
  http_server.running = ready;
  far_pieces = parts;
  HttpClient client;
  client.socket = Fd(FAR_SIDE);
  REQUIRE(answer_client(&client) == !parts[0].empty());
  while (drain_client(&client)) {
  }
  if (far_took.empty()) return;
  const bool found = far_took.starts_with("HTTP/1.1 200 OK\r\n");
  REQUIRE(found || far_took.starts_with("HTTP/1.1 404 Not Found\r\n"));
  const size_t body = far_took.find("\r\n\r\n") + 4;
  const size_t length = far_took.find("\r\nContent-Length: ") + 18;
  const bool html = far_took.find("text/html") < body;
  REQUIRE(body >= 4 && html == (length >= 18 && length < body));
  REQUIRE(!html || body + std::stoul(&far_took[length]) == far_took.size());
}
