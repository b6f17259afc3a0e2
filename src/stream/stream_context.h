// One configured stream. Start-up creates the record and owns it until tear-down;
// stream_start completes the camera fields; from then on the stream's threads only read it.
#pragma once

#include <stddef.h>
#include <stdint.h>

#include <type_traits>

#include "monitor/monitor.h"

inline constexpr size_t TRANSFER_SIZE = 8192;  // bytes copied, sent or received at a time

// The memory that the stream's threads work in. None of it lies on their stacks, which so stay at a
// page or two each. Pages of its own; one thread at a time uses a buffer.
struct StreamBuffers {
  char cloud[TRANSFER_SIZE];   // received from the cloud: its messages, later what the camera gets
  char camera[TRANSFER_SIZE];  // exchanged with the camera; before that, the registration
};

// All texts are owned by the record.
struct StreamContext {
  char *uri;           // the whole camera URL until it is parsed, its path (from "/") afterwards
  uint16_t stream_id;  // 1-based stream number, in every monitor call and in the registration
  char *host;          // camera host, dotted IPv4; names are never looked up
  uint16_t port;       // camera RTSP port
  char *user;          // empty without credentials
  char *password;      // empty without credentials or with a user name only
  StreamMonitorState *monitor_snapshot;  // owned; made at start-up, not used by the threads
  StreamBuffers *buffers;                // owned; the one thing that the threads write to
};

static_assert(std::is_trivially_copyable_v<StreamContext>);

// A record with nothing but its buffers; none when memory runs out.
[[nodiscard]] StreamContext *stream_context_create();

// Releases the record and all that it owns; none is ignored.
void stream_context_free(StreamContext *stream);

// Gives the pages of the buffers back to the system until they are written again; their content is
// lost. Before a long wait: with many streams, idle ones would hold most of what the agent takes.
void stream_forget_buffers(const StreamContext *stream);

// Reports a failure to the monitor, unless the agent is stopping: the wake-up of tear-down looks
// like the peer's failure, and nobody is to be blamed for it. Any worker thread.
void stream_report_error(const StreamContext *stream, int32_t code, const char *message);
