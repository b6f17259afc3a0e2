// Whether a relay's peers are still there. One that vanishes without a word leaves data that nobody
// acknowledges, and keep-alive is silent meanwhile: the system would send again for a quarter of an
// hour. One that is alive but does not read answers the system's probes, and is waited for.
#pragma once

#include <stdint.h>

inline constexpr int WATCH_STEP_MS = 3000;  // between two looks

enum class RelayPeer { NONE, CLOUD, CAMERA };

// Kept by the relay's cloud-to-camera thread, which looks whatever it is busy with.
struct RelayWatch {
  int cloud_fd;
  int camera_fd;
  int64_t due_ms = 0;                 // when the next look is due, by the monotonic clock
  RelayPeer found = RelayPeer::NONE;  // without a sign of life at the last look
  RelayPeer dead = RelayPeer::NONE;   // and at the one before
};

// True when nothing has come from the peer for 45 s although an answer is due, be it only since a
// moment. False also when the system cannot say.
[[nodiscard]] bool is_peer_silent(int socket);

// Looks at both peers if a look is due. False, with `dead` set, when one has gone: two looks have
// found it silent. The probes to a peer that does not read are up to two minutes apart, and one
// look could fall between such a probe and its answer.
[[nodiscard]] bool relay_watch(RelayWatch *watch);
