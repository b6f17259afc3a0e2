#include "core/log.h"

#include <regex>
#include <thread>

#include "support/agent_test.h"

using Log = AgentTest;

TEST_F(Log, WritesOneStampedLabelledLinePerCall) {
  setenv("TZ", "UTC", 1);
  for (const LogLevel level : {LOG_ERROR, LOG_INFO, LOG_DEBUG}) {
    errno = EBADF;
    log_message(level, "%s costs 100%% of %d", "%s%n", 3);
    EXPECT_EQ(errno, EBADF);
  }
  log_enabled = false;
  log_message(LOG_ERROR, "unseen");
  const std::string message = R"(%s%n costs 100% of 3\n)";
  const std::string stamp = R"(\[([01]\d|2[0-3]):[0-5]\d:[0-5]\d (0\d|1[0-2])-[0-3]\d-2\d{3}\] )";
  EXPECT_TRUE(std::regex_match(
      log.take_raw(), std::regex(stamp + R"(\[ERROR\] )" + message + stamp + R"(\[INFO \] )" +
                                 message + stamp + R"(\[DEBUG\] )" + message)));
}

TEST_F(Log, LinesOfManyThreadsNeverInterleave) {
  static constexpr int LINES = 200;
  std::array<std::thread, 4> threads;
  for (std::thread &thread : threads) {
    thread = std::thread([] {
      for (int i = 0; i < LINES; i++)
        log_message(LOG_INFO, "%s-%s", "left", "right");
    });
  }
  for (std::thread &thread : threads)
    thread.join();
  std::string expected;
  for (size_t i = 0; i < LINES * threads.size(); i++)
    expected += "[INFO ] left-right\n";
  EXPECT_EQ(log.take(), expected);
}
