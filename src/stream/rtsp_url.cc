#include "stream/rtsp_url.h"

#include <string_view>

#include "core/text.h"

static constexpr std::string_view SCHEME = "rtsp://";
static constexpr uint16_t DEFAULT_RTSP_PORT = 554;

static constexpr size_t NONE = std::string_view::npos;

// The pieces of a URL, as views into it.
struct UrlParts {
  std::string_view user;
  std::string_view password;
  std::string_view host;
  std::string_view path;
  uint16_t port;
};

// Cuts `text` at the first `separator`: the part before it stays, the part after it is returned.
static std::string_view cut_at(std::string_view *text, char separator) {
  const size_t at = text->find(separator);
  if (at == NONE) return {};
  std::string_view after = *text;
  after.remove_prefix(at + 1);
  text->remove_suffix(text->size() - at);
  return after;
}

static uint16_t leading_number(std::string_view text) {
  uint32_t number = 0;
  for (const char c : text) {
    if (!is_decimal_digit(c)) break;
    number = number * 10 + static_cast<uint32_t>(c - '0');  // the low 16 bits are what counts
  }
  return static_cast<uint16_t>(number);
}

// The first at-sign ends the credentials, wherever it stands; their first colon splits them.
static void take_credentials(std::string_view *rest, UrlParts *parts) {
  if (rest->find('@') == NONE) return;
  parts->user = *rest;
  *rest = cut_at(&parts->user, '@');
  parts->password = cut_at(&parts->user, ':');
}

static UrlParts split_url(std::string_view rest) {
  UrlParts parts = {};
  take_credentials(&rest, &parts);
  parts.host = rest;
  parts.path = "/";
  const size_t slash = rest.find('/');
  if (slash != NONE) {
    parts.host.remove_suffix(rest.size() - slash);
    rest.remove_prefix(slash);
    parts.path = rest;
  }
  const bool names_port = parts.host.find(':') != NONE;
  const std::string_view port = cut_at(&parts.host, ':');
  parts.port = names_port ? leading_number(port) : DEFAULT_RTSP_PORT;
  return parts;
}

static bool assign_parts(const UrlParts &parts, StreamContext *stream) {
  // The path last: the other parts may be views into the text that it replaces.
  if (!text_assign(&stream->user, parts.user) || !text_assign(&stream->password, parts.password) ||
      !text_assign(&stream->host, parts.host) || !text_assign(&stream->uri, parts.path)) {
    return false;
  }
  stream->port = parts.port;
  return true;
}

bool rtsp_parse_url(const char *url, StreamContext *stream) {
  std::string_view text = url;
  if (text.starts_with(SCHEME)) {
    text.remove_prefix(SCHEME.size());
    if (assign_parts(split_url(text), stream)) return true;
  }
  text_release(&stream->host);
  text_release(&stream->user);
  text_release(&stream->password);
  return false;
}
