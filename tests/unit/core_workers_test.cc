#include "core/workers.h"

#include <poll.h>
#include <signal.h>
#include <unistd.h>

#include <atomic>
#include <thread>
#include <vector>

#include "core/clock.h"
#include "core/signals.h"
#include "core/sockets.h"
#include "support/agent_test.h"
#include "support/fault.h"
#include "support/peers.h"

class WorkersTest : public AgentTest {
 protected:
  static constexpr int64_t GENEROUS = 10'000;  // ms; the waits that are cut short are longer

  template <typename Body>
  static void start(const Body *body) {
    ASSERT_EQ(worker_start(
                  [](void *argument) -> void * {
                    const WorkerPresence presence;
                    (*static_cast<const Body *>(argument))();
                    return nullptr;
                  },
                  const_cast<Body *>(body)),
              0);
  }

  static void stop_within_bounds() {
    const int64_t started = monotonic_ms();
    workers_stop();
    EXPECT_LT(monotonic_ms() - started, GENEROUS);
    EXPECT_FALSE(agent_running());
  }

  std::atomic<int> ready = 0;
  std::atomic<int> left = 0;

  void wait_until_ready(int count) const {
    while (ready < count)
      std::this_thread::sleep_for(std::chrono::milliseconds(1));
    std::this_thread::sleep_for(std::chrono::milliseconds(20));  // most of them block by then
  }
};

TEST_F(WorkersTest, StopWakesAPauseAReceiveAndASend) {
  const TcpPair silent;
  const TcpPair full;
  const auto pauses = [this] {
    ready++;
    worker_pause(600'000);
    left++;
  };
  const auto receives = [this, &silent] {
    const WorkerSocket socket{Fd(dup(silent.ours.get()))};
    ready++;
    EXPECT_EQ(get_all(Fd(dup(socket.get()))), "");
    left++;
  };
  const auto sends = [this, &full] {
    const WorkerSocket socket{Fd(dup(full.ours.get()))};
    const std::string data(32 * 1024 * 1024, 'x');
    ready++;
    EXPECT_FALSE(tcp_send_message(socket.get(), data));
    left++;
  };
  start(&pauses);
  start(&receives);
  start(&sends);
  wait_until_ready(3);
  stop_within_bounds();
  EXPECT_EQ(left, 3);
}

TEST_F(WorkersTest, StopWakesAConnectThatNobodyAnswers) {
  const Fd listener = loopback_socket(0);
  const sockaddr_in address = loopback(port_of(listener));
  // With the backlog full the handshake of a further connection stays unanswered.
  std::vector<Fd> fillers;
  for (bool answered = true; answered && fillers.size() < 10;) {
    Fd filler(socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK, 0));
    EXPECT_NE(connect(filler.get(), reinterpret_cast<const sockaddr *>(&address), sizeof address),
              0);
    pollfd wait = {.fd = filler.get(), .events = POLLOUT, .revents = 0};
    answered = poll(&wait, 1, 200) == 1;
    fillers.push_back(std::move(filler));
  }
  const auto connects = [this, &address] {
    const WorkerSocket socket = worker_tcp_socket();
    ready++;
    StopGrace none(0);
    EXPECT_FALSE(tcp_connect(socket.get(), address, 600, &none));
    left++;
  };
  start(&connects);
  wait_until_ready(1);
  EXPECT_EQ(left, 0);
  stop_within_bounds();
  EXPECT_EQ(left, 1);
}

TEST_F(WorkersTest, StopWaitsForManyThatComeAndGo) {
  static constexpr int STREAMS = 32;
  const auto relays = [this] {
    left++;
    ready++;
  };
  const auto streams = [this, &relays] {
    left++;
    ready++;
    while (agent_running()) {
      const WorkerSocket socket = worker_tcp_socket();
      EXPECT_TRUE(socket);
      left--;
      start(&relays);  // counts itself back in
      worker_pause(1);
    }
  };
  for (int round = 0; round < 3; round++) {
    workers_open();
    proxy_context.running = 1;
    ready = left = 0;
    for (int i = 0; i < STREAMS; i++)
      start(&streams);
    wait_until_ready(STREAMS);
    stop_within_bounds();
    EXPECT_EQ(left, STREAMS);
  }
}

TEST_F(WorkersTest, StopSignalsNeverReachThem) {
  signals_install();
  const auto looks = [this] {
    sigset_t blocked;
    pthread_sigmask(SIG_SETMASK, nullptr, &blocked);
    ready += sigismember(&blocked, SIGINT) + sigismember(&blocked, SIGTERM);
    left++;
  };
  start(&looks);
  while (left == 0)
    worker_pause(1);
  EXPECT_EQ(ready, 2);
  // A signal that is pending already ends a pause of the main thread at once.
  {
    const StopSignalsBlocked blocked;
    kill(getpid(), SIGTERM);
    EXPECT_TRUE(agent_running());
  }
  const int64_t started = monotonic_ms();
  main_pause(600);
  EXPECT_LT(monotonic_ms() - started, GENEROUS);
  EXPECT_FALSE(agent_running());
}
