#include "stream/relay_watch.h"

#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>

#include "core/clock.h"

// As long as keep-alive takes for a connection at rest.
static constexpr uint32_t SILENT_AFTER_MS = 45'000;

bool is_peer_silent(int socket) {
  tcp_info info = {};
  socklen_t size = sizeof info;
  if (getsockopt(socket, IPPROTO_TCP, TCP_INFO, &info, &size) != 0) return false;
  return info.tcpi_last_ack_recv >= SILENT_AFTER_MS &&
         (info.tcpi_retransmits > 0 || info.tcpi_probes > 0);
}

bool relay_watch(RelayWatch *watch) {
  const int64_t now = monotonic_ms();
  if (now < watch->due_ms) return true;
  watch->due_ms = now + WATCH_STEP_MS;
  const RelayPeer before = watch->found;
  watch->found = is_peer_silent(watch->cloud_fd)    ? RelayPeer::CLOUD
                 : is_peer_silent(watch->camera_fd) ? RelayPeer::CAMERA
                                                    : RelayPeer::NONE;
  if (watch->found == before) watch->dead = before;
  return watch->dead == RelayPeer::NONE;
}
