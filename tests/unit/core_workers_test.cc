#include "core/workers.h"

#include "core/clock.h"
#include "core/signals.h"
#include "support/agent_test.h"

using WorkersTest = AgentTest;

TEST_F(WorkersTest, StopSignalsNeverReachThem) {
  signals_install();
  sigset_t blocked = {};
  const auto look = [](void *mask) -> void * {
    const WorkerPresence presence;
    pthread_sigmask(SIG_SETMASK, nullptr, static_cast<sigset_t *>(mask));
    return nullptr;
  };
  EXPECT_EQ(worker_start(look, &blocked), 0);
  workers_stop();
  EXPECT_TRUE(sigismember(&blocked, SIGINT) && sigismember(&blocked, SIGTERM));
}

TEST_F(WorkersTest, ASignalThatIsPendingEndsAPauseOfTheMainThread) {
  signals_install();
  {
    const StopSignalsBlocked blocked;
    kill(getpid(), SIGTERM);
    EXPECT_TRUE(agent_running());
  }
  const int64_t began = monotonic_ms();
  main_pause(600);
  EXPECT_LT(monotonic_ms() - began, 10'000);
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
