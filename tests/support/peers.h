// Far ends for the unit tests: connected pairs, and a scripted server on the loopback.
#pragma once

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <functional>
#include <string>
#include <thread>

#include "core/owners.h"

inline uint16_t port_of(const Fd &socket) {
  sockaddr_in address = {};
  socklen_t size = sizeof address;
  EXPECT_EQ(getsockname(socket.get(), reinterpret_cast<sockaddr *>(&address), &size), 0);
  return ntohs(address.sin_port);
}

inline sockaddr_in loopback(uint16_t port) {
  sockaddr_in address = {};
  address.sin_family = AF_INET;
  address.sin_port = htons(port);
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  return address;
}

// Bound to a free port; with a negative backlog it does not listen, so that connections are
// refused.
inline Fd loopback_socket(int backlog) {
  Fd socket(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
  const sockaddr_in any = loopback(0);
  EXPECT_EQ(bind(socket.get(), reinterpret_cast<const sockaddr *>(&any), sizeof any), 0);
  if (backlog >= 0) {
    EXPECT_EQ(listen(socket.get(), backlog), 0);
  }
  return socket;
}

// The agent's side and the far side of a TCP connection.
struct TcpPair {
  Fd ours;
  Fd far;

  TcpPair() : ours(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
    const Fd listener = loopback_socket(1);
    const sockaddr_in address = loopback(port_of(listener));
    EXPECT_EQ(connect(ours.get(), reinterpret_cast<const sockaddr *>(&address), sizeof address), 0);
    far = Fd(accept4(listener.get(), nullptr, nullptr, SOCK_CLOEXEC));
    const timeval limit = {.tv_sec = 20, .tv_usec = 0};
    setsockopt(far.get(), SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof limit);
  }
};

inline void put(const Fd &socket, const std::string &bytes) {
  EXPECT_EQ(write(socket.get(), bytes.data(), bytes.size()), static_cast<ssize_t>(bytes.size()));
}

// What one receive brings; empty at the end of the connection.
inline std::string get(const Fd &socket) {
  std::string bytes(16384, '\0');
  const ssize_t received = recv(socket.get(), bytes.data(), bytes.size(), 0);
  bytes.resize(received > 0 ? static_cast<size_t>(received) : 0);
  return bytes;
}

inline std::string get_all(const Fd &socket) {
  std::string all;
  for (std::string part = get(socket); !part.empty(); part = get(socket))
    all += part;
  return all;
}

// Serves one connection after the other on a thread of its own, until it is destroyed.
class LoopbackServer {
 public:
  explicit LoopbackServer(std::function<void(const Fd &)> serve)
      : listener_(loopback_socket(10)), thread_([this, serve = std::move(serve)] {
          for (;;) {
            const Fd client(accept4(listener_.get(), nullptr, nullptr, SOCK_CLOEXEC));
            if (!client) return;
            serve(client);
          }
        }) {}
  LoopbackServer(const LoopbackServer &) = delete;
  LoopbackServer &operator=(const LoopbackServer &) = delete;
  ~LoopbackServer() {
    shutdown(listener_.get(), SHUT_RDWR);
    thread_.join();
  }

  [[nodiscard]] uint16_t port() const { return port_of(listener_); }

 private:
  Fd listener_;
  std::thread thread_;
};
