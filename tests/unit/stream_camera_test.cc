#include "stream/camera.h"

#include <netinet/tcp.h>

#include <string>
#include <vector>

#include "core/sockets.h"
#include "stream/stream_thread.h"
#include "support/fault.h"
#include "support/peers.h"
#include "support/stream_fixture.h"

using Camera = StreamTest;

static constexpr char REQUEST[] = "OPTIONS * RTSP/1.0\r\nCSeq: 1\r\n\r\n";
static int option_of(int socket, int level, int option) {
  int value = -1;
  socklen_t size = sizeof value;
  EXPECT_EQ(getsockopt(socket, level, option, &value, &size), 0);
  return value;
}

static timeval timeout_of(int socket, int option) {
  timeval value = {};
  socklen_t size = sizeof value;
  EXPECT_EQ(getsockopt(socket, SOL_SOCKET, option, &value, &size), 0);
  return value;
}

TEST_F(Camera, SocketOptionsAreSetAndTheLastOnesCount) {
  const Fd socket(::socket(AF_INET, SOCK_STREAM, 0));
  ASSERT_TRUE(socket_set_options(socket.get(), 120, 10, false));
  EXPECT_EQ(option_of(socket.get(), SOL_SOCKET, SO_KEEPALIVE), 0);
  ASSERT_TRUE(socket_set_options(socket.get(), 7, 9, true));
  EXPECT_EQ(timeout_of(socket.get(), SO_RCVTIMEO).tv_sec, 7);
  EXPECT_EQ(timeout_of(socket.get(), SO_SNDTIMEO).tv_sec, 9);
  EXPECT_EQ(option_of(socket.get(), SOL_SOCKET, SO_KEEPALIVE), 1);
  EXPECT_EQ(option_of(socket.get(), IPPROTO_TCP, TCP_KEEPCNT), 3);
  EXPECT_EQ(option_of(socket.get(), IPPROTO_TCP, TCP_KEEPIDLE), 30);
  EXPECT_EQ(option_of(socket.get(), IPPROTO_TCP, TCP_KEEPINTVL), 5);
  EXPECT_EQ(log.take(), "");

  // Of the six settings only the first two can fail the operation.
  for (int nth = 1; nth <= 6; nth++) {
    const Fault fault(Call::SETSOCKOPT, nth, EPERM);
    EXPECT_EQ(socket_set_options(socket.get(), 1, 1, true), nth > 2);
    EXPECT_EQ(errno, EPERM);
    EXPECT_EQ(log.take(),
              nth > 2 ? "[DEBUG] Failed to set keep-alive options: Operation not permitted\n"
                      : "[ERROR] Failed to set socket timeouts: Operation not permitted\n");
  }
}

TEST_F(Camera, ConnectFailuresReachTheMonitor) {
  const Fd refusing = loopback_socket(-1);
  stream->port = port_of(refusing);
  EXPECT_FALSE(camera_connect(stream.get()));
  EXPECT_EQ(last_error(), "111 Camera connection failed");
  for (const char *host : {"localhost", "127.0.0", "127.0.0.1 ", ""}) {
    const StreamOwner other = make(host, 1, "/", "", "");
    errno = 0;
    EXPECT_FALSE(camera_connect(other.get()));
    EXPECT_EQ(last_error(), "22 Invalid camera address");
    EXPECT_FALSE(stream_check(other.get()));
  }
  {
    const Fault fault(Call::SETSOCKOPT, 2, EPERM);
    EXPECT_FALSE(camera_connect(stream.get()));
    EXPECT_EQ(last_error(), "1 Failed to set camera socket options");
  }
  log.take();
  const Fault fault(Call::SOCKET, 1, EMFILE, Times::FROM_THEN_ON);
  EXPECT_FALSE(stream_check(stream.get()));
  EXPECT_EQ(log.take(), "[ERROR] Failed to create stream check socket: Too many open files\n");
  EXPECT_FALSE(camera_connect(stream.get()));
  EXPECT_EQ(last_error(), "24 Failed to create camera socket");
  // A stopping agent blames nobody.
  monitor_update_status(1, STREAM_OFFLINE);
  proxy_context.running = 0;
  EXPECT_FALSE(camera_connect(stream.get()));
  EXPECT_EQ(last_error(), "0 ");
}

TEST_F(Camera, HandshakeSendsThatFailReachTheMonitor) {
  struct Case {
    std::vector<int> sends;  // to the camera, to the cloud
    const char *error;
  };
  for (const Case &c :
       {Case{{-EPIPE}, "32 Failed to forward OPTIONS to camera"},
        {{-EINTR}, "4 Failed to forward OPTIONS to camera"},
        {{5}, "11 Failed to forward OPTIONS to camera"},
        {{WHOLE, -ECONNRESET}, "104 Failed to forward camera's OPTIONS response to cloud"},
        {{WHOLE, 3}, "11 Failed to forward camera's OPTIONS response to cloud"}}) {
    const TcpPair cloud;
    const TcpPair camera;
    put(camera.far, "RTSP/1.0 200 OK\r\n\r\n");
    const IoScript script(Io::SEND, c.sends);
    EXPECT_FALSE(rtsp_handshake(cloud.ours.get(), camera.ours.get(), REQUEST, stream.get()));
    EXPECT_TRUE(script.used_up());
    EXPECT_EQ(last_error(), c.error);
  }
}

TEST_F(Camera, StreamStartRefusesWhatItCannotRun) {
  EXPECT_FALSE(stream_start(nullptr));
  const StreamOwner empty(stream_context_create());
  empty->stream_id = 1;
  EXPECT_FALSE(stream_start(empty.get()));
  EXPECT_EQ(last_error(), "-1 Invalid stream parameters");
  const StreamOwner other = make("", 0, "http://%s", "", "");
  EXPECT_FALSE(stream_start(other.get()));
  EXPECT_EQ(last_error(), "-2 Failed to parse RTSP URL");
  const StreamOwner good = make("", 0, "rtsp://127.0.0.1:1/x", "", "");
  const Fault fault(Call::PTHREAD_CREATE, 1, EAGAIN);
  EXPECT_FALSE(stream_start(good.get()));
  EXPECT_EQ(last_error(), "11 Failed to create stream thread");
  EXPECT_EQ(log.take(),
            "[ERROR] Invalid stream parameters\n"
            "[ERROR] Invalid stream parameters\n"
            "[DEBUG] Stream 1 error: [-1] Invalid stream parameters\n"
            "[ERROR] Failed to parse RTSP URL: http://%s\n"
            "[DEBUG] Stream 1 error: [-2] Failed to parse RTSP URL\n"
            "[ERROR] Failed to create stream thread: Resource temporarily unavailable\n"
            "[DEBUG] Stream 1 error: [11] Failed to create stream thread\n");
  workers_stop();  // the thread that was not created is not waited for
}
