// The device's channels as a JSON document, for other programs and for the redirect page.
#pragma once

#include <stddef.h>

#include "core/string_builder.h"

// The path of a stream URL without its leading "/": what follows the first "/" after the port,
// else after the last "/". Cut to size - 1 bytes, or less for a whole UTF-8 character, and
// terminated; empty when there is none.
void extract_stream_path(const char *url, char *out, size_t size);

// Appends the channel list. False without memory. Takes the monitor lock.
[[nodiscard]] bool build_channels_json(StringBuilder *builder);

// Route handler of "/api/channels": one complete response. Server thread.
void handle_channels_api(int socket);
