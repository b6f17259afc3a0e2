// Client sockets: what the connections to balancer, camera and cloud have in common. IPv4 TCP; any
// thread. Failures leave their reason in errno; unless it says "logged", the caller reports them.
#pragma once

#include <netinet/in.h>
#include <stdint.h>

#include <string_view>

#include "core/owners.h"

// Whether a receive or send gave up for want of data or room.
[[nodiscard]] bool is_time_out(int error);

// How long the waits of one undertaking may go on once the agent is to stop: `grace_ms` in all,
// from the first wait that finds `running` clear, however many signals follow.
class StopGrace {
 public:
  explicit StopGrace(int grace_ms) : grace_ms_(grace_ms) {}

  // Milliseconds left, 0 when there are none; more than any wait takes while the agent runs.
  [[nodiscard]] int64_t left_ms();

 private:
  int grace_ms_;
  int64_t end_ms_ = -1;  // on the monotonic clock; -1 while the agent runs
};

// Waits until the socket is ready for `events` of poll(). False after the time-out and when the
// grace is used up (both EAGAIN), or when the wait itself fails.
[[nodiscard]] bool socket_wait(int socket, short events, int timeout_ms, StopGrace *grace);

// Sets both time-outs (whole seconds) and, when asked for, TCP keep-alive. False (logged) when a
// time-out cannot be set; a failed keep-alive setting is only logged.
[[nodiscard]] bool socket_set_options(int socket, int receive_timeout_s, int send_timeout_s,
                                      bool keepalive);

// Sends small writes at once: with delayed acknowledgements on the far side, waiting for a full
// segment would hold live video back by tens of milliseconds. Pushes what an earlier send has held
// back with MSG_MORE, too. A failure only costs latency and is logged.
void socket_set_no_delay(int socket);

// A new socket, to be given to tcp_connect.
[[nodiscard]] Fd tcp_socket();

// Fills the address from a dotted IPv4 text. False (EINVAL) for none and for anything else: names
// are never looked up.
[[nodiscard]] bool tcp_address(const char *host, uint16_t port, sockaddr_in *address);

// Connects a socket of tcp_socket, which blocks from then on. Without a connection in time the
// reason is EINPROGRESS, as for a connect() that blocks until its send time-out.
[[nodiscard]] bool tcp_connect(int socket, const sockaddr_in &address, int timeout_s,
                               StopGrace *grace);

// Sends a message with one call. A short count is a failure (EAGAIN: the send time-out struck).
[[nodiscard]] bool tcp_send_message(int socket, std::string_view message);
