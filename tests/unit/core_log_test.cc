#include "core/log.h"

#include "support/agent_test.h"

using Log = AgentTest;

// A line that fills the buffer of ordinary lines exactly, and longer ones.
TEST_F(Log, LongLinesComeWholeOrCutWithoutMemory) {
  const auto written = [this] {
    std::string sizes;
    for (const size_t length : {1279U, 1280U, 1281U, 20000U}) {
      const std::string text(length - strlen("[03:43:20 11-15-2023] [INFO ] \n"), 'x');
      errno = EBADF;
      log_message(LOG_INFO, "%s", text.c_str());
      EXPECT_EQ(errno, EBADF);
      sizes += std::to_string(log.raw().size()) + log.raw().back();
      log.take();
    }
    return sizes;
  };
  EXPECT_EQ(written(), "1279\n1280\n1281\n20000\n");
  const Hook no_memory(allocation_call, [] { return -1; });
  EXPECT_EQ(written(), "1279\n1280\n1280\n1280\n");
}
