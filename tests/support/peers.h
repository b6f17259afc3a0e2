// Far ends for the unit tests: connected pairs, and a scripted server on the loopback.
#pragma once

#include <arpa/inet.h>
#include <netinet/tcp.h>

#include "core/sockets.h"
#include "support/agent_test.h"

inline sockaddr_in loopback(uint16_t port) {
  sockaddr_in address;
  EXPECT_TRUE(tcp_address("127.0.0.1", port, &address));
  return address;
}

inline uint16_t port_of(const Fd &socket) {
  sockaddr_in address = {};
  socklen_t size = sizeof address;
  EXPECT_EQ(getsockname(socket.get(), reinterpret_cast<sockaddr *>(&address), &size), 0);
  return ntohs(address.sin_port);
}

// Listens on a free port.
inline Fd loopback_socket(int backlog) {
  Fd socket(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
  const sockaddr_in any = loopback(0);
  EXPECT_EQ(bind(socket.get(), reinterpret_cast<const sockaddr *>(&any), sizeof any), 0);
  EXPECT_EQ(listen(socket.get(), backlog), 0);
  return socket;
}

// The agent's side and the far side of a TCP connection.
struct TcpPair {
  Fd ours = tcp_socket();
  Fd far;

  TcpPair() {
    const Fd listener = loopback_socket(1);
    StopGrace none(0);
    EXPECT_TRUE(tcp_connect(ours.get(), loopback(port_of(listener)), 20, &none));
    far = Fd(accept4(listener.get(), nullptr, nullptr, SOCK_CLOEXEC));
    EXPECT_TRUE(socket_set_options(far.get(), 20, 20, false));
  }
};

inline void put(const Fd &socket, const std::string &bytes) {
  EXPECT_EQ(write(socket.get(), bytes.data(), bytes.size()), static_cast<ssize_t>(bytes.size()));
}

// What one receive brings; empty at the end of the connection.
inline std::string get(const Fd &socket) {
  std::string bytes(16384, '\0');
  bytes.resize(size_t(std::max<ssize_t>(recv(socket.get(), bytes.data(), bytes.size(), 0), 0)));
  return bytes;
}

// Serves one connection after the other on a thread of its own, until it is destroyed.
class LoopbackServer {
 public:
  explicit LoopbackServer(std::function<void(const Fd &)> serve)
      : listener_(loopback_socket(10)), thread_([this, serve = std::move(serve)] {
          while (const Fd client{accept4(listener_.get(), nullptr, nullptr, SOCK_CLOEXEC)})
            serve(client);
        }) {}
  ~LoopbackServer() {
    shutdown(listener_.get(), SHUT_RDWR);
    thread_.join();
  }

  [[nodiscard]] uint16_t port() const { return port_of(listener_); }

 private:
  Fd listener_;
  std::thread thread_;
};
