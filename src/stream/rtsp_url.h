// The camera URL as the fields of a stream record. Pure. Main thread, before the stream's thread.
#pragma once

#include "stream/stream_context.h"

// Fills user, password, uri (the path), host and port. `url` may be the record's own uri. On false
// (not "rtsp://", or no memory) host, user and password are none and uri is as it was. The host is
// not validated here.
[[nodiscard]] bool rtsp_parse_url(const char *url, StreamContext *stream);
