// One configured stream. Proxy start-up creates the record and owns it until tear-down;
// stream_start completes the camera fields; from then on the stream's threads only read it.
#pragma once

#include <stdint.h>

#include <type_traits>

#include "monitor/monitor.h"

// All texts are owned by the record.
struct StreamContext {
  char *uri;           // the whole camera URL until it is parsed, its path (from "/") afterwards
  uint16_t stream_id;  // 1-based stream number, in every monitor call and in the registration
  char *host;          // camera host, dotted IPv4; names are never looked up
  uint16_t port;       // camera RTSP port
  char *user;          // empty without credentials
  char *password;      // empty without credentials or with a user name only
  StreamMonitorState *monitor_snapshot;  // owned; made at start-up, not used by the threads
};

static_assert(std::is_trivially_copyable_v<StreamContext>);

// An empty record; none when memory runs out.
[[nodiscard]] StreamContext *stream_context_create();

// Releases the record and all that it owns; none is ignored.
void stream_context_free(StreamContext *stream);

// Reports a failure to the monitor, unless the agent is stopping: the wake-up of tear-down looks
// like the peer's failure, and nobody is to be blamed for it. Any worker thread.
void stream_report_error(const StreamContext *stream, int32_t code, const char *message);
