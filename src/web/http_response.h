// Response framing of everything the server sends. Server thread.
#pragma once

#include <stddef.h>

#include "core/string_builder.h"

// Writes all bytes. False (logged) when the connection fails, or when the client takes nothing for
// 5 s or has not taken the whole within 30 s.
[[nodiscard]] bool http_write_all(int socket, const char *bytes, size_t length);

// Sends a complete HTML document, which stays the caller's. False for a bad argument or without
// memory; a failed write is only logged.
[[nodiscard]] bool http_send_html(int socket, const StringBuilder *page);

// Sends a JSON document, whose end is the closing of the connection. False when that fails.
[[nodiscard]] bool http_send_json(int socket, const StringBuilder *document);

// Sends the error page with the message, or less when there is no memory for it.
void http_send_error(int socket, const char *message);

void http_send_not_found(int socket);
