#include "stream/camera.h"
#include "stream/relay_health.h"
#include "stream/rtsp_request.h"
#include "support/stream_fixture.h"

using Rtsp = StreamTest;

// Into user, password, host, port and path; then the request that is made of these.
TEST_F(Rtsp, UrlIsSplitIntoTheRecordAndPutTogetherForTheCamera) {
  char out[TRANSFER_SIZE];
  for (const auto &[url, expected] : rows(R"(
rtsp://10.0.0.1:8554/a/b?c%s -> [] [] [10.0.0.1] [/a/b?c%s] rtsp://10.0.0.1:8554/a/b?c%s
rtsp://h/a -> [] [] [h] [/a] rtsp://h:554/a | rtsp://h -> [] [] [h] [/] rtsp://h:554/
rtsp://u:p@h:65535 -> [u] [p] [h] [/] rtsp://u:p@h:65535/
rtsp://u@h -> [u] [] [h] [/] rtsp://u:@h:554/ | rtsp://u:@h/ -> [u] [] [h] [/] rtsp://u:@h:554/
rtsp://:p@h/ -> [] [p] [h] [/] rtsp://h:554/
rtsp://u:p:q/r@h:2/x -> [u] [p:q/r] [h] [/x] rtsp://u:p:q/r@h:2/x
rtsp://h:2/x@y:3/z -> [h] [2/x] [y] [/z] rtsp://h:2/x@y:3/z
rtsp://h:/ -> [] [] [h] [/] rtsp://h:0/ | rtsp://h:65537x/ -> [] [] [h] [/] rtsp://h:1/
rtsp://h:18446744073709551617/ -> [] [] [h] [/] rtsp://h:1/
rtsp://h:x/ -> [] [] [h] [/] rtsp://h:0/ | rtsp://h:1:2/ -> [] [] [h] [/] rtsp://h:1/
rtsp://h?a:1/b -> [] [] [h?a] [/b] rtsp://h?a:1/b | rtsp:// -> [] [] [] [/] rtsp://:554/
)")) {
    const auto parsed = make(url);
    const auto size = static_cast<size_t>(rtsp_rewrite_options(
        "OPTIONS rtsp://cloud/x RTSP/1.0\r\nA: b\r\nCSeq: 7%s CSeq:", parsed.get(), out,
        sizeof out));
    EXPECT_EQ("[" + std::string(parsed->user) + "] [" + parsed->password + "] [" + parsed->host +
                  "] [" + parsed->uri + "] " + std::string(out, size),
              std::regex_replace(expected, std::regex("rtsp:.*"),
                                 "OPTIONS $& RTSP/1.0\r\nCSeq: 7%s CSeq:"))
        << url;
  }
  const auto long_one = make("rtsp://h/" + std::string(250, 'p'));
  EXPECT_EQ(rtsp_rewrite_options("CSeq:", long_one.get(), out, sizeof out), -1);
  EXPECT_EQ(log.take(), "[ERROR] Camera URL too long");
  EXPECT_FALSE(rtsp_parse_url("RTSP://h/", stream.get()) || rtsp_parse_url("", stream.get()));
}

TEST_F(Rtsp, ConnectFailuresReachTheMonitor) {
  for (const char *host : {"localhost", "127.0.0", "127.0.0.1 ", ""}) {
    const auto other = make(std::string("rtsp://") + host + ":1");
    EXPECT_FALSE(camera_connect(other.get()) || stream_check(other.get())) << host;
    EXPECT_EQ(log.take(), "[DEBUG] Stream 1 error: [22] Invalid camera address") << host;
  }
  proxy_context.running = false;  // a stopping agent blames nobody
  EXPECT_FALSE(camera_connect(make("rtsp://localhost").get()));
  EXPECT_EQ(log.take(), "");
}

TEST_F(Rtsp, HandshakeSendsThatFailReachTheMonitor) {
  for (const auto &[steps, expected] : rows(R"(
i -> [4] Failed to forward OPTIONS to camera | 5 -> [11] Failed to forward OPTIONS to camera
wp -> [32] Failed to forward camera's OPTIONS response to cloud
w3 -> [11] Failed to forward camera's OPTIONS response to cloud
)")) {
    const TcpPair cloud;
    const TcpPair camera;
    put(camera.far, "RTSP/1.0 200 OK\r\n\r\n");
    const SendScript script(steps);
    EXPECT_FALSE(rtsp_handshake(cloud.ours.get(), camera.ours.get(), "CSeq: 1", stream.get()));
    EXPECT_TRUE(log.take().ends_with("Stream 1 error: " + expected)) << steps;
  }
}

TEST(RelayHealth, EndsARelayAtADueCheckBelow50) {
  RelayHealth health = {.checked = 1000};
  // Two chunks of three retries each: 100 -> 70 -> 75 -> 45.
  for (int event = 0; event < 8; event++)
    event % 4 == 0 ? health_data_received(&health) : health_send_failed(&health);
  EXPECT_TRUE(health_check(&health, 1029));
  EXPECT_FALSE(health_check(&health, 1030));
  health_data_received(&health);
  EXPECT_TRUE(health_check(&health, 1030));  // exactly 50
  for (int i = 0; i < 60; i++)
    health_send_timed_out(&health);
  EXPECT_EQ(health.score, 0);
  EXPECT_TRUE(health_check(&health, 900));  // the clock was set back
  EXPECT_TRUE(health_check(&health, 929));
  EXPECT_FALSE(health_check(&health, 930));
}
