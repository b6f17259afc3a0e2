#include "core/clock.h"
#include "support/agent_test.h"
#include "web/http_server.h"

using Http = AgentTest;

// Its waits are longer here than the stop may take.
TEST_F(Http, StopEndsAWait) {
  std::atomic<bool> waits = false;
  const Hook polls(poll_call, [&waits](pollfd *fds, nfds_t count, int timeout) {
    waits = true;
    return poll_call.real(fds, count, timeout * 80);
  });
  ASSERT_TRUE(http_server_start(0, [] { return true; }));
  EXPECT_TRUE(becomes_true([&waits] { return waits.load(); }));
  const int64_t began = monotonic_ms();
  http_server_stop();
  EXPECT_LT(monotonic_ms() - began, 10'000);
}
