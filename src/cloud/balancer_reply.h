// What the balancer's answers mean: status line, ID and server. Pure but for the log; the agent
// does not parse JSON but takes the text after the marker "message":" up to the next quote.
#pragma once

#include <stddef.h>
#include <stdint.h>

#include <string_view>

#include "core/owners.h"

// Where the cloud streaming server is.
struct CloudServerInfo {
  Text host;          // 1 to 255 letters, digits, "." or "-"; none until resolved
  uint16_t port = 0;  // 1 to 65535; 0 until resolved
};

// Reads the status code (stored even when out of range). False when the status line is malformed
// or the code is not within 100 to 599.
[[nodiscard]] bool parse_http_status(const char *text, size_t length, int *code);

// The message value of the body as a cloud ID: 8 to 50 letters, digits, "_" or "-". False without
// a line of the log, but for a wrong length.
[[nodiscard]] bool extract_message_id(const char *body, size_t length, Text *id);

// The message value of the response, "host|port". False (logged) with *info untouched.
[[nodiscard]] bool parse_server_message(std::string_view response, CloudServerInfo *info);
