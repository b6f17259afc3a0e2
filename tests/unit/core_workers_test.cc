#include "core/workers.h"

#include "core/clock.h"
#include "core/signals.h"
#include "support/peers.h"

class WorkersTest : public AgentTest {
 protected:
  static constexpr int64_t GENEROUS_MS = 10'000;  // the waits that are cut short are longer

  void start(const std::function<void()> &body) {
    using Work = std::function<void()>;
    const auto run = [](void *argument) -> void * {
      const WorkerPresence presence;
      (*std::unique_ptr<Work>(static_cast<Work *>(argument)))();
      return nullptr;
    };
    started++;
    EXPECT_EQ(worker_start(run, new Work([this, body] {
                             entered++;
                             body();
                             left++;
                           })),
              0);
  }

  void stop_within_bounds() {
    EXPECT_TRUE(becomes_true([&] { return entered == started; }));
    const int64_t began = monotonic_ms();
    workers_stop();
    EXPECT_LT(monotonic_ms() - began, GENEROUS_MS);
    EXPECT_EQ(left, started);
  }

  std::atomic<int> started = 0;
  std::atomic<int> entered = 0;
  std::atomic<int> left = 0;
};

TEST_F(WorkersTest, StopWaitsForThoseThatWorkersStart) {
  for (int i = 0; i < 32; i++) {
    start([this] {
      while (agent_running()) {
        const WorkerSocket socket = worker_tcp_socket();
        start([] {});
        worker_pause(1);
      }
    });
  }
  stop_within_bounds();
}

TEST_F(WorkersTest, StopSignalsNeverReachThem) {
  signals_install();
  start([] {
    sigset_t blocked;
    pthread_sigmask(SIG_SETMASK, nullptr, &blocked);
    EXPECT_TRUE(sigismember(&blocked, SIGINT) && sigismember(&blocked, SIGTERM));
  });
  // A signal that is pending already ends a pause of the main thread at once.
  {
    const StopSignalsBlocked blocked;
    kill(getpid(), SIGTERM);
    EXPECT_TRUE(agent_running());
  }
  const int64_t began = monotonic_ms();
  main_pause(600);
  EXPECT_LT(monotonic_ms() - began, GENEROUS_MS);
  stop_within_bounds();
}

TEST_F(WorkersTest, AFullTableIsAFailedSocket) {
  std::vector<WorkerSocket> sockets;
  while (sockets.size() < MAX_WORKER_SOCKETS)
    EXPECT_TRUE(sockets.emplace_back(worker_tcp_socket()));
  EXPECT_FALSE(worker_tcp_socket());
  EXPECT_EQ(errno, EMFILE);
  sockets.pop_back();
  EXPECT_TRUE(worker_tcp_socket());
}

// How a connection ends that is not made: an error number.
TEST_F(WorkersTest, ConnectFailsAsABlockingOneDoes) {
  const Hook useless(shutdown_call, [](int, int) { return 0; });  // as on some kernels
  const Fd full = loopback_socket(0);
  const Fd refusing = loopback_socket(-1);
  const auto error_of = [](const Fd &listener, int timeout_s) {
    const WorkerSocket socket = worker_tcp_socket();
    StopGrace none(0);
    const bool connected = tcp_connect(socket.get(), loopback(port_of(listener)), timeout_s, &none);
    return connected ? 0 : errno;
  };
  EXPECT_EQ(error_of(refusing, 600), ECONNREFUSED);
  // With the backlog full, handshakes stay unanswered.
  int last = 0;
  for (int i = 0; i < 10 && last == 0; i++)
    last = error_of(full, 1);
  EXPECT_EQ(last, EINPROGRESS);
  std::atomic<bool> waits = false;
  const Hook polls(poll_call, [&](auto...) { waits = true; });
  start([&] { EXPECT_EQ(error_of(full, 600), EINPROGRESS); });
  EXPECT_TRUE(becomes_true([&] { return waits.load(); }));
  stop_within_bounds();
}

TEST_F(WorkersTest, GraceCountsFromTheStopHoweverManySignalsCome) {
  FrozenClock clock;
  StopGrace grace(2000);
  EXPECT_GT(grace.left_ms(), 1'000'000);
  for (const int64_t left_ms : {2000, 1200, 400, 0, 0}) {
    handle_signal(SIGTERM);
    EXPECT_EQ(grace.left_ms(), left_ms);
    clock.pass(800);
  }
}
