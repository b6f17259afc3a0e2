#include "monitor/time_format.h"

#include <string.h>

#include <string>

#include "monitor/monitor.h"
#include "support/agent_test.h"
#include "support/fault.h"

class TimeFormat : public AgentTest {
 protected:
  static constexpr time_t START = 1'700'000'000;

  TimeFormat() {
    setenv("TZ", "XYZ-5:30", 1);
    tzset();
    EXPECT_TRUE(monitor_init(1));
  }

  static std::string stream_uptime(int stream_id) {
    char text[256];
    EXPECT_EQ(monitor_format_stream_uptime(stream_id, text, sizeof text), text);
    return text;
  }

  WallClock clock{START};
};

TEST_F(TimeFormat, DurationShowsItsTwoLargestUnits) {
  struct Case {
    uint32_t seconds;
    const char *expected;
  };
  for (const Case &c : {Case{0, "0s"},
                        {59, "59s"},
                        {60, "1m 00s"},
                        {61, "1m 01s"},
                        {3599, "59m 59s"},
                        {3600, "1h 00m"},
                        {86399, "23h 59m"},
                        {86400, "1d 00h"},
                        {90061, "1d 01h"},
                        {4294967295, "49710d 06h"}}) {
    const StringBuilderOwner text(string_builder_create(1));
    EXPECT_TRUE(format_duration(c.seconds, text.get()));
    EXPECT_STREQ(text->data, c.expected);
    clock.set(START + time_t{c.seconds});
    char uptime[128];
    EXPECT_EQ(monitor_format_uptime(uptime, sizeof uptime), uptime);
    EXPECT_STREQ(uptime, c.expected);
  }
}

TEST_F(TimeFormat, StreamUptimeFollowsTheWallClock) {
  for (const int id : {0, 1, 2})
    EXPECT_EQ(stream_uptime(id), "N/A");
  monitor_update_status(1, STREAM_STREAMING);
  EXPECT_EQ(stream_uptime(1), "N/A");  // less than a second
  clock.set(START + 61);
  EXPECT_EQ(stream_uptime(1), "1m 01s");
  clock.set(START - 1);
  EXPECT_EQ(monitor_get_streaming_duration(1), UINT64_MAX);
  EXPECT_EQ(stream_uptime(1), "49710d 06h");
  clock.set(START + (time_t{1} << 31));  // one more than the difference can hold
  EXPECT_EQ(stream_uptime(1), "49710d 06h");
  clock.fail();
  EXPECT_EQ(stream_uptime(1), "N/A");
  EXPECT_EQ(monitor_get_uptime(), 0U);
  clock.set(START + 100);
  monitor_update_status(1, STREAM_OFFLINE);
  EXPECT_EQ(stream_uptime(1), "N/A");
}

TEST_F(TimeFormat, TextsAreCutToTheBuffer) {
  char text[32];
  EXPECT_EQ(monitor_format_start_time(text, sizeof text), text);
  EXPECT_STREQ(text, "2023-11-15 03:43:20");
  clock.set(START + 3600);
  struct Case {
    size_t size;
    const char *uptime;
    const char *stream;
    const char *start;
  };
  for (const Case &c :
       {Case{1, "", "", ""}, {4, "1h ", "N/A", "202"}, {7, "1h 00m", "N/A", "2023-1"}}) {
    memset(text, '#', sizeof text);
    EXPECT_STREQ(monitor_format_uptime(text, c.size), c.uptime);
    EXPECT_EQ(text[c.size], '#');
    EXPECT_STREQ(monitor_format_stream_uptime(1, text, c.size), c.stream);
    EXPECT_STREQ(monitor_format_start_time(text, c.size), c.start);
    EXPECT_EQ(text[c.size], '#');
  }
  for (char *buffer : {static_cast<char *>(nullptr), text}) {
    EXPECT_EQ(monitor_format_uptime(buffer, 0), nullptr);
    EXPECT_EQ(monitor_format_stream_uptime(1, buffer, 0), nullptr);
    EXPECT_EQ(monitor_format_start_time(buffer, 0), nullptr);
  }
}
