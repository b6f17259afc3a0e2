#include "stream/stream_context.h"
#include "support/start_up_fixture.h"

TEST_F(StartUp, MessageValueIsTakenAsIdOnlyWhenSound) {
  for (const auto &[body, expected] : rows(R"(
{"message":"abcd-1234_XY"} -> abcd-1234_XY
"message":"12345678","message":"87654321" -> 12345678
"message":"123456789.123456789.123456789.123456789.123456789." -> 
"message":"123456789.123456789.123456789.123456789.123456789.1" -> [ERROR] Invalid ID length: 51
"message":"1234567" -> [ERROR] Invalid ID length: 7
"message":"1234 5678" ->  | "message":"1234ä5678" ->  | "message":"" -> 
"message":"12345678 ->  | "message": "12345678" -> 
)")) {
    Text id;
    const bool found = extract_message_id(body.data(), body.size(), &id);
    EXPECT_EQ((found ? id.get() : "") + log.take(), expected) << body;
  }
}

TEST_F(StartUp, MessageValueIsTakenAsServerOnlyWhenSound) {
  const std::string host(255, 'h');
  std::vector<Row> table = rows(R"(
stream.example-1|554" -> stream.example-1:554
h|65535","message":"g|1" -> h:65535
h| +1" -> h:1
h|0" -> Invalid port number | h|65536" -> Invalid port number | h|-1" -> Invalid port number
h|12ab" -> Invalid port number | h| " -> Invalid port number
h|99999999999999999999" -> Invalid port number
|80" -> Invalid server info format | h|" -> Invalid server info format
h80" -> Invalid server info format | h_1|80" -> Invalid character in hostname
" -> Invalid message format | h|1 -> Invalid message format
)");
  table.push_back({host + "|1\"", host + ":1"});
  table.push_back({host + "h|1\"", "Invalid host length"});
  for (const auto &[value, expected] : table) {
    const bool found = parse_server_message("\"message\":\"" + value, &info);
    EXPECT_EQ(found ? info.host.get() + (":" + std::to_string(info.port)) : log.take(),
              (found ? "" : "[ERROR] ") + expected)
        << value;
  }
}

TEST_F(StartUp, WithoutParametersResultsAreEmptied) {
  AgentConfig &used = proxy_context.config;
  for (char **missing : {&used.model, &used.vendor, &used.api_server}) {
    used = config;
    *missing = nullptr;
    info = {.host = Text(strdup("old")), .port = 1};
    EXPECT_TRUE(!resolve_cloud_server("id", &info) && !info.host && info.port == 0);
    EXPECT_EQ(log.take(), "[ERROR] Invalid parameters for cloud server resolution");
  }
  Text id(strdup("old"));
  EXPECT_TRUE(!fetch_cloud_id(&id) && !id);
  EXPECT_EQ(log.take(), "[ERROR] Invalid parameters for cloud ID fetch");
}

TEST_F(StartUp, RequestGoesOutWholeThroughPartialSends) {
  const FrozenClock clock;
  const SendScript script("1i9r2i3");
  EXPECT_TRUE(resolve_cloud_server("id", &info));
  EXPECT_EQ(request,
            "GET /balancer/server/id?vendor=m&%s&model=m&%s HTTP/1.1\r\nHost: 127.0.0.1\r\n"
            "Connection: close\r\nContent-Type: text/xml\r\nContent-Length: 0\r\n\r\n");
  EXPECT_EQ(log.take(),
            "[ERROR] Failed to send request: Resource temporarily unavailable\n"
            "[INFO ] Retrying cloud server resolution in 1 seconds\n"
            "[DEBUG] Resolved cloud server: cloud:1");
}

TEST_F(StartUp, EachStreamGetsASnapshotOfItsOwn) {
  const WallClock clock(1'000'000);
  proxy_context.running = false;  // a signal that came before the start-up is forgotten
  ASSERT_TRUE(proxy_init(&config));
  for (const unsigned id : {1U, 2U}) {
    const StreamContext &stream = *proxy_context.streams[id - 1];
    EXPECT_STREQ(stream.uri, config.stream_urls[id - 1]);
    ASSERT_NE(stream.monitor_snapshot, nullptr);
    EXPECT_EQ(stream.monitor_snapshot->stream_id, id);
    EXPECT_STREQ(stream.monitor_snapshot->url, stream.uri);
    EXPECT_EQ(stream.monitor_snapshot->last_change, 1'000'000);
  }
  proxy_cleanup();
}
