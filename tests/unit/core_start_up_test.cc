#include "cloud/balancer_client.h"
#include "core/clock.h"
#include "core/proxy.h"
#include "core/text.h"
#include "stream/stream_context.h"
#include "support/peers.h"

// A start-up that asks a balancer on the loopback.
class StartUp : public AgentTest {
 protected:
  StartUp() {
    config.api_server = address;
    config.api_port = balancer.port();
    config.vendor = config.model = name;
    config.config_dir = const_cast<char *>(dir.path().c_str());
    config.stream_urls = urls;
    config.stream_count = 2;
    proxy_context.config = config;
  }
  ~StartUp() override { release_texts(); }

  // What the process would keep until its end.
  void release_texts() {
    for (char **text :
         {&config.cloud_id, &proxy_context.config.cloud_id, &proxy_context.cloud_server})
      text_release(text);
  }

  static constexpr char RETRIED[] =
      "[ERROR] Failed to send request: Resource temporarily unavailable\n"
      "[INFO ] Retrying cloud server resolution in 1 seconds";

  const TempDir dir;
  AgentConfig config = {};
  CloudServerInfo info = {.host = Text(strdup("old")), .port = 1};
  std::string request;  // the last whole one

 private:
  char address[16] = "127.0.0.1";
  char name[8] = "m&%s";
  char texts[2][16] = {"rtsp://a:1/%s", "rtsp://b:2/x"};
  char *urls[2] = {texts[0], texts[1]};
  LoopbackServer balancer{[this](const Fd &client) {
    std::string text;
    for (std::string part; !text.ends_with("\r\n\r\n"); text += part) {
      part = get(client);
      if (part.empty()) return;
    }
    request = text;
    put(client,
        "HTTP/1.1 200 OK\r\nServer: at least sixty-four bytes\r\n\r\n\"message\":\"" +
            std::string(text.starts_with("GET /balancer/uuid ") ? "new-cloud-id\"" : "cloud|1\""));
  }};
};

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

TEST_F(StartUp, ResultsAreEmptiedWhateverElseIsWrong) {
  AgentConfig &used = proxy_context.config;
  for (char **missing : {&used.model, &used.vendor, &used.api_server}) {
    used = config;
    *missing = nullptr;
    info = {.host = Text(strdup("old")), .port = 1};
    EXPECT_FALSE(resolve_cloud_server("id", &info));
    EXPECT_TRUE(!info.host && info.port == 0) << missing - &used.api_server;
    EXPECT_EQ(log.take(), "[ERROR] Invalid parameters for cloud server resolution");
  }
  Text id(strdup("old"));
  EXPECT_FALSE(fetch_cloud_id(&id));
  EXPECT_EQ(id, nullptr);
  EXPECT_EQ(log.take(), "[ERROR] Invalid parameters for cloud ID fetch");
}

TEST_F(StartUp, RequestGoesOutWholeThroughPartialSends) {
  const FrozenClock clock;
  const SendScript script("1i9r2i3");
  EXPECT_TRUE(resolve_cloud_server("id", &info));
  EXPECT_EQ(request,
            "GET /balancer/server/id?vendor=m&%s&model=m&%s HTTP/1.1\r\nHost: 127.0.0.1\r\n"
            "Connection: close\r\nContent-Type: text/xml\r\nContent-Length: 0\r\n\r\n");
  EXPECT_EQ(log.take(), RETRIED + std::string("\n[DEBUG] Resolved cloud server: cloud:1"));
}

TEST_F(StartUp, SendWaits5SecondsForRoom) {
  FrozenClock clock(1);  // stops the agent in its pause before the next attempt
  const int64_t began = monotonic_ms();
  const SendScript script("3");
  const Hook without_room(poll_call, [&](pollfd *fds, nfds_t count, int timeout) {
    if (!script.used_up()) return poll_call.real(fds, count, timeout);
    clock.pass(timeout);
    if (monotonic_ms() - began > 60'000) proxy_context.running = false;
    return 0;
  });
  EXPECT_FALSE(resolve_cloud_server("id", &info));
  EXPECT_EQ(monotonic_ms() - began, 5000 + 1000);
  EXPECT_EQ(log.take(), RETRIED);
}

TEST_F(StartUp, EachStreamGetsASnapshotOfItsOwn) {
  const WallClock clock(1'000'000);
  ASSERT_TRUE(proxy_init(&config));
  for (const unsigned id : {1U, 2U}) {
    const StreamContext &stream = *proxy_context.streams[id - 1];
    EXPECT_STREQ(stream.uri, config.stream_urls[id - 1]);
    EXPECT_EQ(stream.stream_id, id);
    ASSERT_NE(stream.monitor_snapshot, nullptr);
    EXPECT_EQ(stream.monitor_snapshot->stream_id, id);
    EXPECT_STREQ(stream.monitor_snapshot->url, stream.uri);
    EXPECT_EQ(stream.monitor_snapshot->last_change, 1'000'000);
  }
  proxy_cleanup();
}

TEST_F(StartUp, AFailedStartUpUndoesItsWork) {
  const FrozenClock clock;  // a failed host copy is one of the balancer client's retries
  fail_each_allocation([&](const auto &fault) {
    std::filesystem::remove(dir.file("cloud.id"));
    if (proxy_init(&config)) {
      proxy_cleanup();
    } else {
      EXPECT_TRUE(fault.struck() && log.has("[ERROR]") && agent_running()) << log.raw();
      EXPECT_TRUE(!proxy_context.streams && !proxy_context.cloud_server) << log.raw();
      EXPECT_EQ(proxy_context.stream_count, 0U);
    }
    EXPECT_EQ(monitor.stream_count, 0U);
    release_texts();
    log.take();
  });
}
