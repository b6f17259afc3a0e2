// Stream options to the final stream list: channel ranges expanded, pairs interleaved, the RTSP
// default port inserted. Pure but for the log. Main thread, during loading.
#pragma once

#include <stddef.h>
#include <stdint.h>

#include "core/config.h"
#include "core/owners.h"
#include "core/text_list.h"

// The port of a camera whose URL names none.
inline constexpr uint16_t RTSP_PORT = 554;

// The first placeholder "{start-end}" of a URL.
struct ExpansionRange {
  size_t open;   // position of the opening brace: the text before it is the prefix
  size_t after;  // position just after the closing brace: the suffix begins there
  int start;     // first channel, >= 0
  int end;       // last channel, > start
};

// True (and *range filled) when the URL holds a valid placeholder. Without one the URL is used
// literally, braces included.
[[nodiscard]] bool parse_expansion_range(const char *url, ExpansionRange *range);

// Streams that the URL stands for: 1 without a placeholder, 2 to 64 with one, -1 (logged) for a
// range that is too wide.
[[nodiscard]] int expansion_count(const char *url);

// A copy of the URL, with ":554" inserted (logged) when it names no port; none without memory.
[[nodiscard]] Text add_default_port(const char *url);

// Appends the URL's expansions in ascending order. False without memory or room.
[[nodiscard]] bool expand_stream_url(const char *url, TextList *out);

// Appends the expansions of the options taken two by two, interleaved; an odd last option is
// expanded alone. False without memory or room.
[[nodiscard]] bool expand_stream_pairs(const TextList &options, TextList *out);

// Validates the options (their texts get the default port), expands them and stores the final
// list in the record, replacing the one it holds. False (logged) with the record's list untouched.
[[nodiscard]] bool process_stream_urls(AgentConfig *config, TextList *options);
