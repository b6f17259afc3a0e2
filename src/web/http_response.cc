#include "web/http_response.h"

#include <errno.h>
#include <string.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <string_view>

#include "core/clock.h"
#include "core/log.h"
#include "web/assets.h"
#include "web/template.h"

static constexpr size_t FRAMING_ROOM = 256;           // bytes beside the body
static constexpr size_t ERROR_PAGE_CAPACITY = 1024;   // bytes
static constexpr int64_t RESPONSE_LIMIT_MS = 30'000;  // for the whole of a response
static constexpr int64_t STALL_LIMIT_MS = 5'000;      // in which a client takes nothing

// Server to client.
static constexpr char HTML_HEADER[] =
    "HTTP/1.1 200 OK\r\n"
    "Content-Type: text/html; charset=UTF-8\r\n"
    "Content-Length: %zu\r\n"
    "Connection: close\r\n"
    "\r\n";
// The document is for pages of any origin too. It has no length: its end is the close.
static constexpr char JSON_HEADER[] =
    "HTTP/1.1 200 OK\r\n"
    "Content-Type: application/json\r\n"
    "Access-Control-Allow-Origin: *\r\n"
    "Access-Control-Allow-Methods: GET, OPTIONS\r\n"
    "Access-Control-Allow-Headers: Origin, X-Requested-With, Content-Type, Accept\r\n"
    "Connection: close\r\n"
    "\r\n";
static constexpr std::string_view NOT_FOUND =
    "HTTP/1.1 404 Not Found\r\n"
    "Content-Type: text/plain\r\n"
    "Connection: close\r\n"
    "\r\n"
    "404 Not Found\n";
static constexpr std::string_view FULL_ERROR =
    "HTTP/1.1 500 Internal Server Error\r\n"
    "Content-Type: text/plain\r\n"
    "Connection: close\r\n"
    "\r\n"
    "Internal Server Error";
// In front of the error page too, which browsers tell by its markup: it needs no memory.
static constexpr std::string_view BARE_ERROR =
    "HTTP/1.1 500 Internal Server Error\r\n"
    "\r\n";

// EAGAIN is the socket's send time-out: the caller then looks at its limits. After a write that
// moved nothing: whether to go on with the next one.
static bool can_go_on(ssize_t written) {
  if (written == 0) {
    log_message(LOG_ERROR, "Connection closed during write");
    return false;
  }
  if (errno == EINTR || errno == EAGAIN || errno == EWOULDBLOCK) return true;
  log_message(LOG_ERROR, "Write failed: %s", strerror(errno));
  return false;
}

// What the caller may still want to write fails at once, instead of waiting for this client again.
static void drop_client(int socket) {
  log_message(LOG_ERROR, "Write failed: %s", strerror(ETIMEDOUT));
  shutdown(socket, SHUT_RDWR);
}

// Each write returns after the socket's send time-out at the latest, a fraction of the limits.
bool http_write_all(int socket, const char *bytes, size_t length) {
  std::string_view rest(bytes, length);
  const int64_t end = monotonic_ms() + RESPONSE_LIMIT_MS;
  int64_t stall_end = monotonic_ms() + STALL_LIMIT_MS;
  while (!rest.empty()) {
    const ssize_t written = write(socket, rest.data(), rest.size());
    const int64_t now = monotonic_ms();
    if (written > 0) {
      rest.remove_prefix(static_cast<size_t>(written));
      stall_end = now + STALL_LIMIT_MS;
    } else if (!can_go_on(written)) {
      return false;
    }
    if (!rest.empty() && now >= std::min(end, stall_end)) {
      drop_client(socket);
      return false;
    }
  }
  return true;
}

static bool write_text(int socket, std::string_view text) {
  return http_write_all(socket, text.data(), text.size());
}

bool http_send_html(int socket, const StringBuilder *page) {
  if (socket < 0 || !page) return false;
  const StringBuilderOwner response(string_builder_create(page->length + FRAMING_ROOM));
  if (!response || !string_builder_appendf(response.get(), HTML_HEADER, page->length) ||
      !string_builder_append(response.get(), page->data)) {
    return false;
  }
  if (!http_write_all(socket, response->data, response->length)) {
    log_message(LOG_ERROR, "Failed to send http response");
  }
  // True all the same: no error page can follow on a connection that takes no more bytes.
  return true;
}

// Unlike a page, a list that was not written whole is a failure: the handler then tries to send the
// error page on the same connection, which drop_client lets fail at once.
bool http_send_json(int socket, const StringBuilder *document) {
  const StringBuilderOwner response(string_builder_create(document->length + FRAMING_ROOM));
  return response && string_builder_append(response.get(), JSON_HEADER) &&
         string_builder_append(response.get(), document->data) &&
         http_write_all(socket, response->data, response->length);
}

// Falls back step by step, since what fails here is mostly memory: page, bare status line, and with
// no builder at all a constant that says the same.
void http_send_error(int socket, const char *message) {
  const StringBuilderOwner page(string_builder_create(ERROR_PAGE_CAPACITY));
  if (!page) {
    if (!write_text(socket, FULL_ERROR)) {
      log_message(LOG_ERROR, "Failed to send minimal error response");
    }
    return;
  }
  const TemplateField fields[] = {{"message", message, Escape::NONE}};
  if (!template_append(page.get(), ASSET_ERROR_HTML, fields)) {
    if (!write_text(socket, BARE_ERROR)) {
      log_message(LOG_ERROR, "Failed to send minimal error response");
    }
    return;
  }
  if (!write_text(socket, BARE_ERROR) || !http_write_all(socket, page->data, page->length)) {
    log_message(LOG_ERROR, "Failed to send error response");
  }
}

void http_send_not_found(int socket) {
  if (!write_text(socket, NOT_FOUND)) log_message(LOG_ERROR, "Failed to send 404 response");
}
