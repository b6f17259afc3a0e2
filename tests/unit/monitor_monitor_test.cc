#include "monitor/monitor.h"

#include <string.h>
#include <sys/stat.h>

#include <string>

#include "monitor/status_file.h"
#include "support/agent_test.h"
#include "support/fault.h"

class MonitorTest : public AgentTest {
 protected:
  static constexpr time_t START = 1'000'000;

  MonitorTest() {
    setenv("TZ", "UTC", 1);
    tzset();
  }

  void open(size_t count) {
    ASSERT_TRUE(monitor_init(count));
    log.take();
  }

  void enable_status_file() {
    proxy_context.config.status_file_enabled = 1;
    proxy_context.config.status_file_path = const_cast<char *>(status_path.c_str());
  }

  static StreamMonitorState state_of(int stream_id) {
    StreamMonitorState state = {};
    EXPECT_TRUE(monitor_get_stream_state(stream_id, &state));
    return state;
  }

  WallClock clock{START};
  TempDir dir;
  const std::string status_path = dir.file("status");
};

TEST_F(MonitorTest, InitChecksTheCountAndFillsTheRecords) {
  EXPECT_FALSE(monitor_init(0));
  EXPECT_FALSE(monitor_init(65));
  EXPECT_EQ(log.take(),
            "[ERROR] Invalid stream count for monitor initialization: 0\n"
            "[ERROR] Invalid stream count for monitor initialization: 65\n");

  std::string long_url(300, 'u');
  char *urls[MAX_STREAMS] = {long_url.data(), nullptr};
  proxy_context.config.stream_urls = urls;
  proxy_context.config.stream_count = MAX_STREAMS;
  ASSERT_TRUE(monitor_init(64));
  EXPECT_EQ(log.take(), "[INFO ] Monitor started for 64 streams at 1970-01-12 13:46:40\n");
  for (int id = 1; id <= 64; id++) {
    const StreamMonitorState state = state_of(id);
    EXPECT_EQ(state.stream_id, static_cast<uint32_t>(id));
    EXPECT_EQ(state.status, STREAM_OFFLINE);
    EXPECT_EQ(state.last_change, START);
    EXPECT_EQ(state.last_update, 0);
    EXPECT_EQ(state.url, id == 1 ? std::string(255, 'u') : "");
  }
  StreamMonitorState state;
  EXPECT_FALSE(monitor_get_stream_state(0, &state));
  EXPECT_FALSE(monitor_get_stream_state(65, &state));
  EXPECT_FALSE(monitor_get_stream_state(1, nullptr));
}

TEST_F(MonitorTest, StatusChangesAreLoggedOnceAndStamped) {
  open(2);
  for (const StreamStatus status : {STREAM_CONNECTING, STREAM_REGISTERED, STREAM_REGISTERED,
                                    static_cast<StreamStatus>(7), STREAM_ERROR, STREAM_OFFLINE}) {
    clock.set(START + status);
    EXPECT_TRUE(monitor_update_status(2, status));
    EXPECT_EQ(state_of(2).last_change, START + status);
    clock.set(START + 100);
    EXPECT_TRUE(monitor_update_status(2, status));
    EXPECT_EQ(state_of(2).last_change, START + status);
    EXPECT_EQ(state_of(2).status, status);
  }
  EXPECT_FALSE(monitor_update_status(0, STREAM_ERROR));
  EXPECT_FALSE(monitor_update_status(3, STREAM_ERROR));
  EXPECT_EQ(log.take(),
            "[DEBUG] Stream 2 status change: offline -> connecting\n"
            "[DEBUG] Stream 2 status change: connecting -> registered\n"
            "[DEBUG] Stream 2 status change: registered -> unknown\n"
            "[DEBUG] Stream 2 status change: unknown -> error\n"
            "[DEBUG] Stream 2 status change: error -> offline\n"
            "[ERROR] Invalid channel ID in status update: 0\n"
            "[ERROR] Invalid channel ID in status update: 3\n");
}

TEST_F(MonitorTest, OfflineClearsRateAndStreamingButKeepsTotals) {
  open(1);
  monitor_update_status(1, STREAM_STREAMING);
  clock.set(START + 5);
  monitor_update_stats(1, 100, 0);
  clock.set(START + 10);
  monitor_update_stats(1, 50, 0);
  // Streaming again without offline in between keeps the first start.
  monitor_update_status(1, STREAM_CONNECTING);
  monitor_update_status(1, STREAM_STREAMING);
  EXPECT_EQ(monitor_get_streaming_duration(1), 10U);
  StreamMonitorState state = state_of(1);
  EXPECT_EQ(state.streaming_since, START);
  EXPECT_EQ(state.streaming_duration, 10U);
  EXPECT_EQ(state.rate, 10U);

  monitor_update_status(1, STREAM_OFFLINE);
  state = state_of(1);
  EXPECT_EQ(state.streaming_since, 0);
  EXPECT_EQ(state.streaming_duration, 0U);
  EXPECT_EQ(state.rate, 0U);
  EXPECT_EQ(state.bytes_total, 150U);
  EXPECT_EQ(state.last_update, START + 10);
}

TEST_F(MonitorTest, ErrorsLastUntilTheNextOtherStatus) {
  enable_status_file();
  open(1);
  monitor_update_status(1, STREAM_STREAMING);
  log.take();
  clock.set(START + 1);
  const std::string text(300, '%');
  EXPECT_TRUE(monitor_update_error(1, -2, text.c_str()));
  StreamMonitorState state = state_of(1);
  EXPECT_EQ(state.status, STREAM_ERROR);
  EXPECT_EQ(state.last_error_code, -2);
  EXPECT_EQ(state.last_error_message, std::string(255, '%'));
  EXPECT_EQ(state.last_error_time, START + 1);
  EXPECT_EQ(state.last_change, START + 1);
  EXPECT_EQ(state.streaming_since, START);
  EXPECT_EQ(read_file(status_path), "1");  // not rewritten by an error
  EXPECT_EQ(log.take(), "[DEBUG] Stream 1 error: [-2] " + text + "\n");

  monitor_update_status(1, STREAM_ERROR);
  EXPECT_EQ(state_of(1).last_error_code, -2);
  monitor_update_status(1, STREAM_REGISTERED);
  state = state_of(1);
  EXPECT_EQ(state.last_error_code, 0);
  EXPECT_STREQ(state.last_error_message, "");
  EXPECT_EQ(state.last_error_time, START + 1);
  log.take();

  EXPECT_FALSE(monitor_update_error(2, 1, "x"));
  EXPECT_FALSE(monitor_update_error(1, 1, nullptr));
  for (const int nth : {1, 2, 3}) {
    const Fault fault(Call::ALLOCATE, nth, ENOMEM);
    EXPECT_FALSE(monitor_update_error(1, 1, text.c_str()));
  }
  EXPECT_EQ(state_of(1).status, STREAM_REGISTERED);
  EXPECT_EQ(log.take(),
            "[ERROR] Invalid parameters in monitor_update_error\n"
            "[ERROR] Invalid parameters in monitor_update_error\n"
            "[ERROR] Failed to create string builder for error message\n"
            "[ERROR] Failed to create string builder for error message\n"
            "[ERROR] Failed to append error message to string builder\n");
}

TEST_F(MonitorTest, RateIsTheTrafficOfTheLastInterval) {
  open(1);
  struct Case {
    time_t now;
    uint64_t sent;
    uint64_t received;
    uint64_t total;
    uint64_t rate;
  };
  for (const Case &c : {
           Case{START, START - 1, 0, START - 1, 0},  // the first interval is since the epoch
           {START, 500, 500, START + 499, 0},        // the same second: kept
           {START + 4, 10, 33, START + 509, 10},     // both directions, truncated
           {START + 4, 1, 1000, START + 510, 10},    //
           {START + 2, 5, 1000, START + 515, 10},    // the clock was set back: kept
           {START + 3, uint64_t{1} << 40, 1, START + 515 + (uint64_t{1} << 40),
            (uint64_t{1} << 40) + 1},
       }) {
    clock.set(c.now);
    EXPECT_TRUE(monitor_update_stats(1, c.sent, c.received));
    const StreamMonitorState state = state_of(1);
    EXPECT_EQ(state.bytes_total, c.total);
    EXPECT_EQ(state.rate, c.rate);
    EXPECT_EQ(state.last_update, c.now);
    EXPECT_EQ(state.last_change, c.now);
  }
  EXPECT_FALSE(monitor_update_stats(2, 1, 1));
  clock.fail();
  EXPECT_FALSE(monitor_update_stats(1, 1, 1));
  EXPECT_EQ(log.take(),
            "[ERROR] Invalid channel ID in monitor_update_stats: 2\n"
            "[ERROR] Failed to get current time: Value too large for defined data type\n");
}

TEST_F(MonitorTest, StatusFileFollowsTheStreams) {
  enable_status_file();
  open(3);
  EXPECT_FALSE(std::filesystem::exists(status_path));
  struct Case {
    int stream;
    StreamStatus status;
    const char *content;
  };
  for (const Case &c : {Case{1, STREAM_OFFLINE, "0"},
                        {1, STREAM_CONNECTING, "0"},
                        {3, STREAM_REGISTERED, "1"},
                        {2, STREAM_ERROR, "1"},
                        {1, STREAM_STREAMING, "1"},
                        {3, STREAM_CONNECTING, "1"},
                        {1, STREAM_ERROR, "0"},
                        {1, STREAM_ERROR, "0"}}) {
    write_file(status_path, "longer content");
    EXPECT_TRUE(monitor_update_status(c.stream, c.status));
    EXPECT_EQ(read_file(status_path), c.content);
  }
  log.take();
  monitor_cleanup();
  EXPECT_FALSE(std::filesystem::exists(status_path));
  EXPECT_EQ(log.take(),
            "[INFO ] Final system uptime: 0s\n"
            "[DEBUG] Successfully removed status file " +
                status_path +
                "\n"
                "[INFO ] Monitor cleanup completed\n");
  EXPECT_FALSE(monitor_remove_status_file());
  EXPECT_EQ(log.take(), "[INFO ] Failed to remove status file " + status_path +
                            ": No such file or directory\n");
}
