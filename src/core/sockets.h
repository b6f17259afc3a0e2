// IPv4 TCP client calls that the balancer client and the stream proxy share. Any thread. Failures
// leave their reason in errno and are reported by the caller.
#pragma once

#include <netinet/in.h>
#include <stdint.h>

#include <string_view>

// Fills the address from a dotted IPv4 text. False (EINVAL) for none and for anything else: names
// are never looked up.
[[nodiscard]] bool tcp_address(const char *host, uint16_t port, sockaddr_in *address);

// Connects, waiting on after a signal. The send time-out bounds the wait (EINPROGRESS).
[[nodiscard]] bool tcp_connect(int socket, const sockaddr_in &address);

// Sends a message with one call. A short count is a failure (EAGAIN: the send time-out struck).
[[nodiscard]] bool tcp_send_message(int socket, std::string_view message);
