#include "stream/rtsp_url.h"

#include <string_view>

#include "core/stream_urls.h"
#include "core/text.h"

static constexpr std::string_view SCHEME = "rtsp://";

static constexpr size_t NONE = std::string_view::npos;

// The pieces of a URL, as views into it.
struct UrlParts {
  std::string_view user;
  std::string_view password;
  std::string_view host;
  std::string_view path;
  uint16_t port;
};

// What stands before and after the first separator. Without one all of the text stands before it.
struct Halves {
  std::string_view before;
  std::string_view after;
  bool found;
};

static Halves cut_at(std::string_view text, char separator) {
  const size_t at = text.find(separator);
  if (at == NONE) return {.before = text, .after = {}, .found = false};
  return {.before = {text.data(), at},
          .after = {text.data() + at + 1, text.size() - at - 1},
          .found = true};
}

// 0 without digits, and whatever is left of a number that is too large: a port that cannot be
// reached shows at the probe.
static uint16_t leading_number(std::string_view text) {
  uint32_t number = 0;
  for (const char c : text) {
    if (!is_decimal_digit(c)) break;
    number = number * 10 + static_cast<uint32_t>(c - '0');  // the low 16 bits are what counts
  }
  return static_cast<uint16_t>(number);
}

// Takes apart what follows the scheme.
static UrlParts split_url(std::string_view url) {
  UrlParts parts = {};
  // The first at-sign ends the credentials, wherever it stands; their first colon splits them.
  const Halves at_sign = cut_at(url, '@');
  if (at_sign.found) {
    const Halves credentials = cut_at(at_sign.before, ':');
    parts.user = credentials.before;
    parts.password = credentials.after;
    url = at_sign.after;
  }
  const Halves slash = cut_at(url, '/');
  parts.path = "/";
  if (slash.found) parts.path = {slash.after.data() - 1, slash.after.size() + 1};  // with the "/"
  const Halves colon = cut_at(slash.before, ':');
  parts.host = colon.before;
  parts.port = colon.found ? leading_number(colon.after) : RTSP_PORT;
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
