#include "cloud/balancer_reply.h"

#include <stdlib.h>

#include <algorithm>

#include "cloud/cloud_id.h"
#include "core/log.h"
#include "core/text.h"

static constexpr size_t MIN_STATUS_LENGTH = 12;  // "HTTP/1.1 200"
static constexpr int MIN_STATUS = 100;
static constexpr int MAX_STATUS = 599;

static constexpr std::string_view MESSAGE_MARKER = "\"message\":\"";
static constexpr size_t MAX_HOST_LENGTH = 255;
static constexpr unsigned long MAX_PORT = 65535;

static constexpr size_t NONE = std::string_view::npos;

bool parse_http_status(const char *text, size_t length, int *code) {
  if (!text || !code || length < MIN_STATUS_LENGTH) return false;
  const std::string_view line(text, length);
  if (!line.starts_with("HTTP/1.")) return false;
  const size_t space = line.find(' ');  // wherever it is: the version's digit is not looked at
  if (space == NONE || space + 4 > length) return false;
  int value = 0;
  for (size_t i = space + 1; i < space + 4 && is_decimal_digit(text[i]); i++) {
    value = value * 10 + (text[i] - '0');
  }
  *code = value;
  return value >= MIN_STATUS && value <= MAX_STATUS;
}

// Here and below texts are shrunk in place, never cut out: substr() can throw, and nothing here
// may.

// Shrinks the text to what follows the first message marker; false without one.
static bool skip_to_value(std::string_view *text) {
  const size_t marker = text->find(MESSAGE_MARKER);
  if (marker == NONE) return false;
  text->remove_prefix(marker + MESSAGE_MARKER.size());
  return true;
}

// Shrinks the text to what stands before the first quote; false without one, or when that is
// nothing.
static bool cut_at_quote(std::string_view *text) {
  const size_t quote = text->find('"');
  if (quote == NONE || quote == 0) return false;
  text->remove_suffix(text->size() - quote);
  return true;
}

static bool is_id_character(char c) {
  return is_letter_or_digit(c) || c == '_' || c == '-';
}

static bool is_host_character(char c) {
  return is_letter_or_digit(c) || c == '.' || c == '-';
}

bool extract_message_id(const char *body, size_t length, Text *id) {
  if (!body || length == 0 || !id) return false;
  std::string_view value(body, length);
  if (!skip_to_value(&value) || !cut_at_quote(&value)) return false;
  if (!is_cloud_id_length(value.size())) {
    log_message(LOG_ERROR, "Invalid ID length: %zu", value.size());
    return false;
  }
  // Without a line of its own; the retry has one.
  if (!std::all_of(value.begin(), value.end(), is_id_character)) return false;
  Text copy = text_copy(value);
  if (!copy) return false;
  *id = std::move(copy);
  return true;
}

// `text` stands inside a terminated response and is followed by a quote, where the number must
// end. White space and a sign before it are tolerated, as strtoul does.
static bool parse_port(std::string_view text, uint16_t *port) {
  char *end = nullptr;
  const unsigned long number = strtoul(text.data(), &end, 10);
  if (end == text.data() || end != text.data() + text.size() || number == 0 || number > MAX_PORT) {
    return false;
  }
  *port = static_cast<uint16_t>(number);
  return true;
}

// Checked in the order in which the failures are to be named; *info is written last of all.
static bool parse_server(std::string_view value, CloudServerInfo *info) {
  const size_t bar = value.find('|');
  if (bar == NONE || bar == 0 || bar + 1 == value.size()) {
    log_message(LOG_ERROR, "Invalid server info format");
    return false;
  }
  const std::string_view host(value.data(), bar);
  if (host.size() > MAX_HOST_LENGTH) {
    log_message(LOG_ERROR, "Invalid host length");
    return false;
  }
  if (!std::all_of(host.begin(), host.end(), is_host_character)) {
    log_message(LOG_ERROR, "Invalid character in hostname");
    return false;
  }
  // Before the port is looked at, so that want of memory is reported ahead of a bad port.
  Text host_copy = text_copy(host);
  if (!host_copy) {
    log_message(LOG_ERROR, "Failed to allocate memory for host");
    return false;
  }
  value.remove_prefix(bar + 1);
  uint16_t port = 0;
  if (!parse_port(value, &port)) {
    log_message(LOG_ERROR, "Invalid port number");
    return false;
  }
  *info = {.host = std::move(host_copy), .port = port};
  return true;
}

bool parse_server_message(std::string_view response, CloudServerInfo *info) {
  if (!skip_to_value(&response)) {
    log_message(LOG_ERROR, "No message field in response");
    return false;
  }
  if (!cut_at_quote(&response)) {
    log_message(LOG_ERROR, "Invalid message format");
    return false;
  }
  return parse_server(response, info);
}
