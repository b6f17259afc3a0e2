// The send retry rule of a relay, the same in both directions: one received chunk is sent whole,
// through partial sends, time-outs and passing errors. Stream thread and cloud-to-camera thread.
#pragma once

#include <stddef.h>
#include <stdint.h>

#include "core/atomic_flag.h"
#include "stream/relay_health.h"
#include "stream/relay_watch.h"

enum class SendResult {
  SENT,           // the whole chunk
  STOPPED,        // the relay is no longer active, or the agent stops
  CLOSED,         // the peer refuses writes (EPIPE, ECONNRESET)
  FAILED,         // more passing errors than one chunk may have
  SOURCE_CLOSED,  // where the chunk came from has hung up, and the peer takes nothing any more
  PEER_DEAD,      // either of the two has vanished; the watch says which
};

// How a chunk fared; `error` is the reason of CLOSED and FAILED, else 0.
struct SendOutcome {
  SendResult result;
  int error;
};

// One direction's way out.
struct RelayOutput {
  int socket;  // the connection to the peer
  int source;  // the connection that the chunks come from
  RelayPeer peer;
  const AtomicFlag *active;  // the relay's flag
  RelayHealth *health;       // none towards the camera
  uint64_t *sent;            // bytes moved are added; none towards the camera
  RelayWatch *watch;         // none towards the cloud
};

// Whether more is about to follow: the system may then hold the rest of a chunk back, to join it
// with what comes. Whoever says so sends more at once, or pushes it with socket_set_no_delay.
enum class Follows { NOTHING, MORE };

// Returns at once when the relay ends, provided that whoever ends it shuts the read side of the
// socket.
[[nodiscard]] SendOutcome relay_send(const RelayOutput &output, const char *data, size_t length,
                                     Follows follows);
