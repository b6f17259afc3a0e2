#include "monitor/monitor.h"

#include "monitor/status_file.h"
#include "support/agent_test.h"

class MonitorTest : public AgentTest {
 protected:
  static constexpr time_t START = 1'700'000'000;

  MonitorTest() {
    setenv("TZ", "XYZ-5:30", 1);
    tzset();
    EXPECT_TRUE(monitor_init(3));
    log.take();
  }

  static StreamMonitorState state(int stream_id = 1) {
    StreamMonitorState copy = {};
    EXPECT_TRUE(monitor_get_stream_state(stream_id, &copy)) << stream_id;
    return copy;
  }

  static std::string shown(const std::function<char *(char *, size_t)> &format) {
    char text[32];
    EXPECT_EQ(format(text, sizeof text), text);
    return text;
  }

  WallClock clock{START};
};

TEST_F(MonitorTest, OfflineClearsRateAndStreamingButKeepsTotals) {
  // Streaming again without offline in between keeps the first start.
  for (const StreamStatus status : {STREAM_STREAMING, STREAM_CONNECTING, STREAM_STREAMING}) {
    monitor_update_status(1, status);
    clock.now += 5;
    monitor_update_stats(1, 50, 0);
  }
  EXPECT_EQ(monitor_get_streaming_duration(1), 15U);
  EXPECT_TRUE(state().streaming_since == START && state().streaming_duration == 15);
  EXPECT_TRUE(state().rate == 10 && state().bytes_total == 150);
  monitor_update_status(1, STREAM_OFFLINE);
  EXPECT_TRUE(state().streaming_since == 0 && state().streaming_duration == 0);
  EXPECT_TRUE(state().rate == 0 && state().bytes_total == 150);
}

TEST_F(MonitorTest, ErrorsLastUntilTheNextOtherStatus) {
  const std::string text(300, '%');
  EXPECT_TRUE(monitor_update_error(1, -2, text.c_str()));
  EXPECT_EQ(log.take(), "[DEBUG] Stream 1 error: [-2] " + text);
  monitor_update_status(1, STREAM_ERROR);
  EXPECT_EQ(state().last_error_code, -2);
  EXPECT_EQ(state().last_error_message, std::string(255, '%'));
  monitor_update_status(1, StreamStatus(7));
  EXPECT_EQ(state().last_error_code, 0);
  EXPECT_STREQ(state().last_error_message, "");
  EXPECT_EQ(log.take(), "[DEBUG] Stream 1 status change: error -> unknown");
}

// From time, sent and received to total and rate. The first interval is since the epoch; within a
// second, or with the clock set back, it is kept.
TEST_F(MonitorTest, RateIsTheTrafficOfTheLastInterval) {
  for (const auto &[update, expected] : rows(R"(
1000000 999999 0 -> 999999 0 | 1000000 500 500 -> 1000499 0 | 1000004 10 33 -> 1000509 10
1000004 1 1000 -> 1000510 10 | 1000002 5 1000 -> 1000515 10
1000003 1099511627776 1 -> 1099512628291 1099511627777
)")) {
    uint64_t now[3];  // and sent and received
    std::istringstream(update) >> now[0] >> now[1] >> now[2];
    clock.now = time_t(now[0]);
    EXPECT_TRUE(monitor_update_stats(1, now[1], now[2])) << update;
    EXPECT_EQ(std::to_string(state().bytes_total) + " " + std::to_string(state().rate), expected)
        << update;
  }
}

TEST_F(MonitorTest, StatusFileSaysWhetherAStreamIsRegistered) {
  const TempDir dir;
  std::string path = dir.file("status");
  proxy_context.config.status_file_enabled = 1;
  proxy_context.config.status_file_path = path.data();
  for (const auto &[update, expected] :
       rows("1 1 -> 0 | 3 2 -> 1 | 1 3 -> 1 | 3 4 -> 1 | 1 4 -> 0")) {
    write_file(path, "longer content");
    EXPECT_TRUE(monitor_update_status(update[0] - '0', StreamStatus(update[2] - '0')));
    EXPECT_EQ(read_file(path), expected) << update;
  }
  write_file(path, "as it was");
  monitor_update_error(1, 1, "");
  EXPECT_EQ(read_file(path), "as it was");
  proxy_context.config.status_file_enabled = 0;  // the path ends here
}

TEST_F(MonitorTest, DurationShowsItsTwoLargestUnits) {
  for (const auto &[seconds, expected] : rows(R"(
0 -> 0s | 59 -> 59s | 60 -> 1m 00s | 3599 -> 59m 59s | 3600 -> 1h 00m | 86399 -> 23h 59m
86400 -> 1d 00h | 90061 -> 1d 01h | 4294967295 -> 49710d 06h
)")) {
    clock.now = START + std::stol(seconds);
    EXPECT_EQ(shown(monitor_format_uptime), expected) << seconds;
  }
  EXPECT_EQ(shown(monitor_format_start_time), "2023-11-15 03:43:20");
}

TEST_F(MonitorTest, StreamUptimeFollowsTheWallClock) {
  const auto stream_uptime = [](int id) {
    return shown([id](auto... buffer) { return monitor_format_stream_uptime(id, buffer...); });
  };
  for (const int id : {0, 1, 4})
    EXPECT_EQ(stream_uptime(id), "N/A") << id;
  monitor_update_status(1, STREAM_STREAMING);
  // The clock set back, and more than the difference can hold.
  for (const auto &[seconds, expected] :
       {std::pair{0L, "N/A"}, {61L, "1m 01s"}, {-1L, "49710d 06h"}, {1L << 31, "49710d 06h"}}) {
    clock.now = START + seconds;
    EXPECT_EQ(stream_uptime(1), expected) << seconds;
  }
}
