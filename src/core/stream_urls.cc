#include "core/stream_urls.h"

#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <string_view>

#include "core/log.h"
#include "core/text.h"

static constexpr size_t MAX_NUMBER_TEXT = 15;    // characters on either side of the "-"
static constexpr size_t CHANNEL_TEXT_SIZE = 12;  // a 32-bit number and the terminator
static constexpr size_t PORT_TEXT_SIZE = 7;      // a colon, a 16-bit number and the terminator

static constexpr size_t NONE = std::string_view::npos;

// Positions from `from` on; unlike substr this cannot throw.
static std::string_view view_from(std::string_view text, size_t from) {
  text.remove_prefix(from);
  return text;
}

static int read_number(std::string_view digits) {
  char text[MAX_NUMBER_TEXT + 1];
  text_copy_to(text, sizeof text, digits);
  return text_to_int(text);
}

// What is no valid placeholder is no mistake either: cameras have paths with braces in them.
bool parse_expansion_range(const char *url, ExpansionRange *range) {
  const std::string_view text = url;
  const size_t open = text.find('{');
  if (open == NONE) return false;
  const size_t close = text.find('}', open);
  if (close == NONE) return false;
  const size_t dash = text.find('-', open);
  if (dash == NONE || dash > close) return false;

  const std::string_view start_text(url + open + 1, dash - open - 1);
  const std::string_view end_text(url + dash + 1, close - dash - 1);
  if (start_text.size() > MAX_NUMBER_TEXT || end_text.size() > MAX_NUMBER_TEXT) return false;

  const int start = read_number(start_text);
  const int end = read_number(end_text);
  if (start < 0 || end <= 0 || start >= end) return false;
  *range = {.open = open, .after = close + 1, .start = start, .end = end};
  return true;
}

// Of the placeholder alone: a range of more channels than there can be streams is refused by
// itself, ahead of the total, since the message names it.
int expansion_count(const char *url) {
  ExpansionRange range;
  if (!parse_expansion_range(url, &range)) return 1;
  if (range.end - range.start >= static_cast<int>(MAX_STREAMS)) {
    log_message(LOG_ERROR, "Invalid expansion range %d-%d in URL: %s", range.start, range.end, url);
    return -1;
  }
  return range.end - range.start + 1;
}

static bool is_authority_end(char c) {
  return c == '/' || c == '?' || c == '\0';
}

// A ":" followed by digits that run up to the end of the authority. The colon between user and
// password never counts: its digits, if it has any, run up to the at-sign.
static bool names_port(const char *authority) {
  for (const char *at = authority; !is_authority_end(*at); at++) {
    if (*at != ':' || !is_decimal_digit(at[1])) continue;
    const char *digit = at + 1;
    while (is_decimal_digit(*digit))
      digit++;
    if (is_authority_end(*digit)) return true;
  }
  return false;
}

// The first "/" wins even when a "?" comes before it.
static size_t port_insertion_point(const char *url, size_t authority) {
  const std::string_view text = url;
  const size_t slash = text.find('/', authority);
  if (slash != NONE) return slash;
  const size_t question = text.find('?', authority);
  return question != NONE ? question : text.size();
}

static Text join(std::string_view head, std::string_view middle, std::string_view tail) {
  const size_t length = head.size() + middle.size() + tail.size();
  Text joined(static_cast<char *>(malloc(length + 1)));
  if (!joined) return nullptr;
  char *end = joined.get();
  for (const std::string_view piece : {head, middle, tail}) {
    end = static_cast<char *>(mempcpy(end, piece.data(), piece.size()));
  }
  *end = '\0';
  return joined;
}

Text add_default_port(const char *url) {
  const std::string_view text = url;
  const size_t scheme_end = text.find("://");
  const size_t authority = scheme_end == NONE ? 0 : scheme_end + 3;
  if (names_port(url + authority)) return text_copy(text);

  const size_t point = port_insertion_point(url, authority);
  char port[PORT_TEXT_SIZE];
  snprintf(port, sizeof port, ":%u", unsigned{RTSP_PORT});
  Text with_port = join({url, point}, port, view_from(text, point));
  if (with_port) {
    log_message(LOG_INFO, "No port specified in stream address, assuming default %u",
                unsigned{RTSP_PORT});
  }
  return with_port;
}

// Channels of a range are counted by their distance from its start: the last one may be the largest
// number there is, which no loop over the numbers themselves could get past.
static int last_distance(const ExpansionRange &range) {
  return range.end - range.start;
}

static bool append_channel(const char *url, const ExpansionRange &range, int distance,
                           TextList *out) {
  char number[CHANNEL_TEXT_SIZE];
  snprintf(number, sizeof number, "%d", range.start + distance);
  return out->append(join({url, range.open}, number, url + range.after));
}

bool expand_stream_url(const char *url, TextList *out) {
  ExpansionRange range;
  if (!parse_expansion_range(url, &range)) return out->append(text_copy(url));
  for (int distance = 0; distance <= last_distance(range); distance++) {
    if (!append_channel(url, range, distance, out)) return false;
  }
  return true;
}

// Both have a placeholder or none has: options of which only one has were refused by their counts.
static bool expand_pair(const char *first, const char *second, TextList *out) {
  ExpansionRange a;
  ExpansionRange b;
  if (!parse_expansion_range(first, &a) || !parse_expansion_range(second, &b)) {
    return expand_stream_url(first, out) && expand_stream_url(second, out);
  }
  // The counts are equal, the first channels need not be.
  for (int distance = 0; distance <= last_distance(a); distance++) {
    if (!append_channel(first, a, distance, out) || !append_channel(second, b, distance, out)) {
      return false;
    }
  }
  return true;
}

bool expand_stream_pairs(const TextList &options, TextList *out) {
  for (size_t i = 0; i < options.count(); i += 2) {
    const bool alone = i + 1 == options.count();
    const bool appended = alone ? expand_stream_url(options.at(i), out)
                                : expand_pair(options.at(i), options.at(i + 1), out);
    if (!appended) return false;
  }
  return true;
}

// Adds the streams of one option, or of one pair of options, to the running total.
static bool add_to_total(int count, int *total) {
  *total += count;
  if (*total <= static_cast<int>(MAX_STREAMS)) return true;
  log_message(LOG_ERROR, "Total stream count would exceed maximum %d",
              static_cast<int>(MAX_STREAMS));
  return false;
}

static bool validate_single(const TextList &options) {
  int total = 0;
  for (size_t i = 0; i < options.count(); i++) {
    const int count = expansion_count(options.at(i));
    if (count < 0 || !add_to_total(count, &total)) return false;
  }
  return true;
}

// The streams of one pair of options, or -1 (logged).
static int pair_count(const char *first, const char *second) {
  const int first_count = expansion_count(first);
  if (first_count < 0) return -1;
  const int second_count = expansion_count(second);
  if (second_count < 0) return -1;
  if (first_count != second_count) {
    log_message(LOG_ERROR, "Mismatched expansions in stream pair: %d != %d", first_count,
                second_count);
    return -1;
  }
  return first_count + second_count;
}

static bool validate_pairs(const TextList &options) {
  int total = 0;
  for (size_t i = 0; i < options.count(); i += 2) {
    const bool alone = i + 1 == options.count();
    const int count =
        alone ? expansion_count(options.at(i)) : pair_count(options.at(i), options.at(i + 1));
    if (count < 0 || !add_to_total(count, &total)) return false;
  }
  return true;
}

// Of the options, before they are expanded: so the log has one line for each, not one for each of
// its streams.
static bool add_default_ports(TextList *options) {
  for (size_t i = 0; i < options->count(); i++) {
    Text url = add_default_port(options->at(i));
    if (!url) {
      log_message(LOG_ERROR, "Failed to process URL port for stream %zu", i);
      return false;
    }
    options->replace(i, std::move(url));
  }
  return true;
}

static bool expand_all(const AgentConfig &config, const TextList &options, TextList *out) {
  if (!out->reserve(MAX_STREAMS)) return false;
  if (config.group_streams) return expand_stream_pairs(options, out);
  for (size_t i = 0; i < options.count(); i++) {
    if (!expand_stream_url(options.at(i), out)) return false;
  }
  return true;
}

// From here on nothing fails: the old list goes only when the new one stands.
static void store_list(AgentConfig *config, TextList *list) {
  for (size_t i = 0; i < config->stream_count; i++)
    text_release(&config->stream_urls[i]);
  free(config->stream_urls);
  config->stream_count = list->count();
  config->stream_urls = list->release();
}

// Everything is counted before anything is built, so that a range of millions costs nothing.
bool process_stream_urls(AgentConfig *config, TextList *options) {
  const bool valid = config->group_streams ? validate_pairs(*options) : validate_single(*options);
  if (!valid || !add_default_ports(options)) return false;
  TextList expanded;
  if (!expand_all(*config, *options, &expanded)) return false;
  store_list(config, &expanded);
  return true;
}
