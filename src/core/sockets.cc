#include "core/tcp.h"

#include <arpa/inet.h>
#include <errno.h>
#include <sys/socket.h>

bool tcp_address(const char *host, uint16_t port, sockaddr_in *address) {
  *address = {};
  address->sin_family = AF_INET;
  address->sin_port = htons(port);
  if (host && inet_pton(AF_INET, host, &address->sin_addr) == 1) return true;
  errno = EINVAL;
  return false;
}

bool tcp_connect(int socket, const sockaddr_in &address) {
  // A signal interrupts connect() whatever the handler's flags say; calling it again waits on.
  int result = 0;
  do {
    result = connect(socket, reinterpret_cast<const sockaddr *>(&address), sizeof address);
  } while (result != 0 && errno == EINTR);
  return result == 0;
}

bool tcp_send_message(int socket, std::string_view message) {
  const ssize_t sent = send(socket, message.data(), message.size(), 0);
  if (sent < 0) return false;
  if (static_cast<size_t>(sent) < message.size()) errno = EAGAIN;
  return static_cast<size_t>(sent) == message.size();
}
