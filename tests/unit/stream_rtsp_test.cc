#include <string>

#include "stream/relay_health.h"
#include "stream/rtsp_request.h"
#include "stream/rtsp_url.h"
#include "support/fault.h"
#include "support/stream_fixture.h"

using Rtsp = StreamTest;

TEST_F(Rtsp, UrlIsSplitIntoTheRecord) {
  struct Case {
    const char *url;
    const char *expected;  // user password host port path
  };
  for (const Case &c : {
           Case{"rtsp://10.0.0.1:8554/a/b?c", "[] [] [10.0.0.1] 8554 [/a/b?c]"},
           {"rtsp://10.0.0.1/a", "[] [] [10.0.0.1] 554 [/a]"},
           {"rtsp://10.0.0.1", "[] [] [10.0.0.1] 554 [/]"},
           {"rtsp://u:p@10.0.0.1:1", "[u] [p] [10.0.0.1] 1 [/]"},
           {"rtsp://u@h", "[u] [] [h] 554 [/]"},
           {"rtsp://u:@h/", "[u] [] [h] 554 [/]"},
           {"rtsp://:p@h/", "[] [p] [h] 554 [/]"},
           {"rtsp://u:p:q/r@h:2/x", "[u] [p:q/r] [h] 2 [/x]"},
           {"rtsp://h:2/x@y:3/z", "[h] [2/x] [y] 3 [/z]"},
           {"rtsp://h:/", "[] [] [h] 0 [/]"},
           {"rtsp://h:65537x/", "[] [] [h] 1 [/]"},
           {"rtsp://h:18446744073709551617/", "[] [] [h] 1 [/]"},
           {"rtsp://h:x/", "[] [] [h] 0 [/]"},
           {"rtsp://h:1:2/", "[] [] [h] 1 [/]"},
           {"rtsp://h?a:1/b", "[] [] [h?a] 1 [/b]"},
           {"rtsp://", "[] [] [] 554 [/]"},
       }) {
    const StreamOwner parsed = make("old", 1, c.url, "old", "old");
    ASSERT_TRUE(rtsp_parse_url(parsed->uri, parsed.get()));
    EXPECT_EQ("[" + std::string(parsed->user) + "] [" + parsed->password + "] [" + parsed->host +
                  "] " + std::to_string(parsed->port) + " [" + parsed->uri + "]",
              c.expected)
        << c.url;
  }
  for (const char *url : {"RTSP://h/", "rtsp:/h/", "http://h/", "", " rtsp://h"}) {
    const StreamOwner refused = make("old", 1, url, "old", "old");
    EXPECT_FALSE(rtsp_parse_url(refused->uri, refused.get()));
    EXPECT_STREQ(refused->uri, url);
    EXPECT_TRUE(!refused->host && !refused->user && !refused->password);
  }
}

TEST_F(Rtsp, AFailedAllocationKeepsTheUrl) {
  for (const Times times : {Times::ONCE, Times::FROM_THEN_ON}) {
    int failures = 0;
    for (bool struck = true; struck; failures++) {
      const StreamOwner parsed = make("old", 1, "rtsp://u:p@h:2/x", "", "");
      const Fault fault(Call::ALLOCATE, failures + 1, ENOMEM, times);
      const bool done = rtsp_parse_url(parsed->uri, parsed.get());
      struck = fault.struck();
      EXPECT_EQ(done, !struck);
      EXPECT_STREQ(parsed->uri, struck ? "rtsp://u:p@h:2/x" : "/x");
      EXPECT_EQ(parsed->host == nullptr, struck);
    }
    EXPECT_EQ(failures, 5);  // four texts, and the run that gets through
  }
}

TEST_F(Rtsp, OptionsRequestNamesTheCameraFromItsCSeqOn) {
  static constexpr char REQUEST[] =
      "OPTIONS rtsp://cloud/x RTSP/1.0\r\nUser-Agent: cloud\r\nCSeq: 7\r\nX: %s CSeq: 8\r\n\r\n";
  static constexpr char REST[] = " RTSP/1.0\r\nCSeq: 7\r\nX: %s CSeq: 8\r\n\r\n";
  struct Case {
    StreamOwner stream;
    const char *url;
  };
  Case cases[] = {{make("10.0.0.1", 554, "/a%d", "", ""), "rtsp://10.0.0.1:554/a%d"},
                  {make("10.0.0.1", 1, "/", "u%s", "p"), "rtsp://u%s:p@10.0.0.1:1/"},
                  {make("10.0.0.1", 65535, "/", "u", ""), "rtsp://u:@10.0.0.1:65535/"},
                  {make("10.0.0.1", 1, "/", "", "p"), "rtsp://10.0.0.1:1/"}};
  for (const Case &c : cases) {
    char out[8192];
    const int length = rtsp_rewrite_options(REQUEST, c.stream.get(), out, sizeof out);
    const std::string expected = std::string("OPTIONS ") + c.url + REST;
    EXPECT_EQ(length, static_cast<int>(expected.size()));
    EXPECT_EQ(out, expected);
  }
  char out[8192];
  EXPECT_EQ(rtsp_rewrite_options("OPTIONS x RTSP/1.0\r\ncseq: 1\r\n\r\n", stream.get(), out, 8192),
            -1);
  EXPECT_EQ(log.take(), "[ERROR] No CSeq found in OPTIONS request\n");
}

TEST_F(Rtsp, RequestsMayFillTheirBuffersButNotOverrunThem) {
  char out[8192];
  const std::string head = "rtsp://127.0.0.1:554";
  const auto with_path = [](size_t length) {
    return make("127.0.0.1", 554, "/" + std::string(length - 1, 'p'), "", "");
  };
  // The camera URL: 255 characters.
  const StreamOwner longest = with_path(255 - head.size());
  EXPECT_EQ(rtsp_rewrite_options("CSeq:", longest.get(), out, sizeof out), 8 + 255 + 11 + 5);
  EXPECT_EQ(rtsp_rewrite_options("CSeq:", with_path(256 - head.size()).get(), out, sizeof out), -1);
  EXPECT_EQ(log.take(), "[ERROR] Camera URL too long\n");
  // The rewritten request: below the size of its buffer.
  const size_t fixed = strlen("OPTIONS rtsp://127.0.0.1:554/live RTSP/1.0\r\n");
  const std::string fitting = "CSeq:" + std::string(8191 - fixed - 5, 'x');
  EXPECT_EQ(rtsp_rewrite_options(fitting.c_str(), stream.get(), out, sizeof out), 8191);
  EXPECT_EQ(rtsp_rewrite_options((fitting + "x").c_str(), stream.get(), out, sizeof out), -1);
  EXPECT_EQ(log.take(), "[ERROR] Modified OPTIONS request too long\n");
  // The probe, credentials left out.
  const StreamOwner secret = make("10.0.0.1", 80, "/%s", "u", "p");
  const std::string probe =
      "OPTIONS rtsp://10.0.0.1:80/%s RTSP/1.0\r\nCSeq: 1\r\nUser-Agent: Camera Proxy\r\n\r\n";
  EXPECT_EQ(rtsp_compose_probe(secret.get(), out, probe.size() + 1),
            static_cast<int>(probe.size()));
  EXPECT_EQ(out, probe);
  EXPECT_EQ(rtsp_compose_probe(secret.get(), out, probe.size()), -1);
}

TEST_F(Rtsp, StatusFollowsTheVersion) {
  struct Case {
    const char *answer;
    bool matches;
    int code;
  };
  for (const Case &c : {Case{"RTSP/1.0 200 OK\r\n", true, 200},
                        {"RTSP/1.0200", true, 200},
                        {"RTSP/1.0 \t\r\n401", true, 401},
                        {"RTSP/1.0 -1", true, -1},
                        {"RTSP/1.0 +200", true, 200},
                        {"RTSP/1.0", false, 0},
                        {"RTSP/1.0 OK 200", false, 0},
                        {"RTSP/1.0 - 200", false, 0},
                        {"RTSP/1.1 200", false, 0},
                        {" RTSP/1.0 200", false, 0},
                        {"rtsp/1.0 200", false, 0},
                        {"", false, 0}}) {
    int code = 0;
    EXPECT_EQ(rtsp_parse_status(c.answer, &code), c.matches) << c.answer;
    EXPECT_EQ(code, c.code) << c.answer;
  }
}

TEST(RelayHealth, EndsARelayAtADueCheckBelow50) {
  RelayHealth health = {.checked = 1000};
  // Two chunks of three retries each: 100 -> 70 -> 75 -> 45.
  for (int chunk = 0; chunk < 2; chunk++) {
    health_data_received(&health);
    EXPECT_LE(health.score, 100);
    for (int retry = 0; retry < 3; retry++)
      health_send_failed(&health);
  }
  EXPECT_EQ(health.score, 45);
  EXPECT_TRUE(health_check(&health, 1029));
  EXPECT_FALSE(health_check(&health, 1030));
  EXPECT_EQ(health.checked, 1000);
  health_data_received(&health);
  EXPECT_TRUE(health_check(&health, 1030));
  EXPECT_EQ(health.checked, 1030);
  for (int i = 0; i < 49; i++)
    health_send_timed_out(&health);
  EXPECT_EQ(health.score, 1);
  health_send_failed(&health);
  EXPECT_EQ(health.score, 0);
  EXPECT_TRUE(health_check(&health, 900));  // the clock was set back
  EXPECT_FALSE(health_check(&health, 1060));
}
