// The long-lived thread of one stream: probe the camera, connect to the cloud, register, relay when
// asked, and again; with a doubling back-off after failures. It ends when `running` is clear.
#pragma once

#include "stream/stream_context.h"

// Parses the camera URL in the record and starts the stream's thread. False (logged and reported)
// when the record is incomplete, the URL is not an RTSP URL, or the thread cannot be created. Main
// thread, in stream order.
[[nodiscard]] bool stream_start(StreamContext *stream);
