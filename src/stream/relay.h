// One relay between the cloud connection and the camera, from the cloud's OPTIONS request until
// either side ends.
#pragma once

#include <semaphore.h>
#include <stdint.h>
#include <time.h>

#include "core/atomic_flag.h"
#include "core/lock.h"
#include "stream/stream_context.h"

// What the two directions share. Owned by stream_proxy on the stream thread, which outlives the
// cloud-to-camera thread's use of it.
struct RelayContext {
  int cloud_fd;        // closed by the stream thread after the relay
  int camera_fd;       // closed at the end of stream_proxy
  AtomicFlag *active;  // set while the relay runs; cleared by whichever direction ends
  const StreamContext *stream;
  // Held by the direction that ends the relay, from before it reports why until it has cleared
  // `active` and woken the other. Taken before the monitor's lock.
  Mutex end_lock;
  sem_t left;  // posted by the cloud-to-camera thread as its last use of this
};

// Connects to the camera, performs the handshake and copies both ways, unchanged. False when the
// relay could not be started (reported, the camera closed), true when it ran and has ended. Either
// way the caller closes `cloud_fd`. Stream thread.
[[nodiscard]] bool stream_proxy(int cloud_fd, const StreamContext *stream, const char *request);

// The directions, each until the relay ends. Stream thread, and a thread of its own. `started` is
// the wall-clock second from which the health check counts.
void relay_camera_to_cloud(RelayContext *relay, time_t started);
void relay_cloud_to_camera(RelayContext *relay);

// After a relay, before the cloud connection is closed: lets what was relayed reach the cloud.
// Returns at once when all of it has, after a second at the most. Stream thread.
void relay_settle(int cloud_fd, const StreamContext *stream);
