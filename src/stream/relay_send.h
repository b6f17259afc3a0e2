// The send retry rule of a relay, the same in both directions: one received chunk is sent whole,
// through partial sends, time-outs and passing errors. Stream thread and cloud-to-camera thread.
#pragma once

#include <stddef.h>
#include <stdint.h>

#include "core/atomic_flag.h"
#include "stream/relay_health.h"

enum class RelayPeer { CLOUD, CAMERA };

enum class SendResult {
  SENT,     // the whole chunk
  STOPPED,  // the relay is no longer active, or the agent stops
  CLOSED,   // the peer refuses writes (EPIPE, ECONNRESET)
  FAILED,   // more passing errors than one chunk may have
};

// One direction's way out.
struct RelayOutput {
  int fd;  // the connection to the peer
  RelayPeer peer;
  const AtomicFlag *active;  // the relay's flag
  RelayHealth *health;       // none towards the camera
  uint64_t *sent;            // bytes moved are added; none towards the camera
};

// Returns at once when the relay ends, provided that whoever ends it shuts the read side of `fd`.
// On CLOSED and FAILED the reason is in errno.
[[nodiscard]] SendResult relay_send(const RelayOutput &output, const char *data, size_t length);
