#include "core/log.h"

#include "support/agent_test.h"

class Log : public AgentTest {
 protected:
  Log() {
    setenv("TZ", "XYZ-5:30", 1);
    tzset();
  }

  static constexpr char FRAME[] = "[03:43:20 11-15-2023] [INFO ] \n";

  WallClock clock{1'700'000'000};
};

TEST_F(Log, WritesOneStampedLabelledLinePerCall) {
  for (const LogLevel level : {LOG_ERROR, LOG_INFO, LOG_DEBUG}) {
    errno = EBADF;
    log_message(level, "%s costs 100%% of %d", "%s%n", 3);
    EXPECT_EQ(errno, EBADF);
  }
  log_enabled = false;
  log_message(LOG_ERROR, "unseen");
  EXPECT_EQ(log.raw(),
            "[03:43:20 11-15-2023] [ERROR] %s%n costs 100% of 3\n"
            "[03:43:20 11-15-2023] [INFO ] %s%n costs 100% of 3\n"
            "[03:43:20 11-15-2023] [DEBUG] %s%n costs 100% of 3\n");
}

// A line that fills the buffer of ordinary lines exactly, and longer ones.
TEST_F(Log, LongLinesComeWholeOrCutWithoutMemory) {
  std::string lines;
  const Hook writes(fwrite_call, [&](const void *data, size_t size, size_t count, FILE *) {
    lines += std::to_string(size * count) + (static_cast<const char *>(data)[count - 1]);
    return count;
  });
  const auto written = [&] {
    lines.clear();
    for (const size_t length : {1279U, 1280U, 1281U, 20000U})
      log_message(LOG_INFO, "%s", std::string(length - strlen(FRAME), 'x').c_str());
    return lines;
  };
  EXPECT_EQ(written(), "1279\n1280\n1281\n20000\n");
  const Hook no_memory(allocation_call, [] { return -1; });
  EXPECT_EQ(written(), "1279\n1280\n1280\n1280\n");
}

// Whoever writes first waits for the other one, in vain: a line belongs to its thread until it is
// written.
TEST_F(Log, LinesOfTwoThreadsStayApart) {
  std::atomic<int> writing = 0;
  const Hook slow(fwrite_call, [&](auto...) {
    if (++writing == 1) becomes_true([&] { return writing == 2; }, 300);
  });
  std::thread other([] { log_message(LOG_INFO, "left"); });
  log_message(LOG_INFO, "right");
  other.join();
  const std::string lines = log.take();
  EXPECT_TRUE(lines == "[INFO ] left\n[INFO ] right" || lines == "[INFO ] right\n[INFO ] left")
      << lines;
}
