#include <string.h>

#include <string>
#include <string_view>

#include "cloud/balancer_client.h"
#include "cloud/balancer_reply.h"
#include "support/agent_test.h"
#include "support/fault.h"

class Balancer : public AgentTest {
 protected:
  Balancer() {
    AgentConfig &config = proxy_context.config;
    config.api_server = address;
    config.vendor = vendor;
    config.model = model;
  }

  char address[16] = "127.0.0.1";
  char vendor[8] = "ven dor";
  char model[8] = "m&%s";
};

TEST_F(Balancer, StatusLineIsReadToTheByte) {
  struct Case {
    std::string_view text;
    bool good;
    int code;
  };
  for (const Case &c : {
           Case{"HTTP/1.1 200", true, 200},
           {"HTTP/1.0 100 x", true, 100},
           {"HTTP/1.1 599\r\n", true, 599},
           {"HTTP/1.1x 200 ", true, 200},
           {"HTTP/1.1 20x ", false, 20},
           {"HTTP/1.1 600 ", false, 600},
           {"HTTP/1.1 099 ", false, 99},
           {"HTTP/1.1  200", false, 0},
           {"HTTP/1.1 x200", false, 0},
           {"HTTP/1.1 20", false, -1},
           {"HTTP/1.1__ 20", false, -1},
           {"HTTP/1.1_200_x", false, -1},
           {"http/1.1 200 ", false, -1},
           {"HTTP/2.1 200 ", false, -1},
           {" HTTP/1.1 200", false, -1},
       }) {
    int code = -1;
    const std::string text(c.text);  // its end is not followed by more of the literal
    EXPECT_EQ(parse_http_status(text.data(), text.size(), &code), c.good) << text;
    EXPECT_EQ(code, c.code) << text;
  }
  EXPECT_FALSE(parse_http_status(nullptr, 20, nullptr));
}

TEST_F(Balancer, MessageValueIsTakenAsIdOnlyWhenSound) {
  struct Case {
    std::string body;
    std::string expected;
    std::string log;
  };
  const std::string id50(50, 'A');
  for (const Case &c : {
           Case{R"({"message":"abcd-1234_XY"})", "abcd-1234_XY", ""},
           {R"("message":"12345678","message":"87654321")", "12345678", ""},
           {"\"message\":\"" + id50 + "\"", id50, ""},
           {R"("message":"1234567")", "none", "[ERROR] Invalid ID length: 7\n"},
           {"\"message\":\"" + id50 + "1\"", "none", "[ERROR] Invalid ID length: 51\n"},
           {R"("message":"1234.5678")", "none", ""},
           {R"("message":"1234 5678")", "none", ""},
           {"\"message\":\"1234\xC3\xA4"
            "5678\"",
            "none", ""},
           {R"("message":"")", "none", ""},
           {R"("message":"12345678)", "none", ""},
           {R"("message": "12345678")", "none", ""},
           {R"("Message":"12345678")", "none", ""},
           {"", "none", ""},
       }) {
    Text id;
    const bool found = extract_message_id(c.body.data(), c.body.size(), &id);
    EXPECT_EQ(found ? id.get() : std::string("none"), c.expected) << c.body;
    EXPECT_EQ(log.take(), c.log) << c.body;
  }
}

TEST_F(Balancer, MessageValueIsTakenAsServerOnlyWhenSound) {
  struct Case {
    std::string value;  // of the member message
    std::string expected;
    const char *log;
  };
  static constexpr char FORMAT[] = "[ERROR] Invalid server info format\n";
  static constexpr char PORT[] = "[ERROR] Invalid port number\n";
  static constexpr char CHARACTER[] = "[ERROR] Invalid character in hostname\n";
  const std::string host255(255, 'h');
  for (const Case &c : {
           Case{"stream.example-1|554", "stream.example-1:554", ""},
           {"h|65535", "h:65535", ""},
           {"h| +1", "h:1", ""},
           {host255 + "|1", host255 + ":1", ""},
           {host255 + "h|1", "none", "[ERROR] Invalid host length\n"},
           {"h|0", "none", PORT},
           {"h|65536", "none", PORT},
           {"h|-1", "none", PORT},
           {"h|99999999999999999999", "none", PORT},
           {"h|12ab", "none", PORT},
           {"h|1|2", "none", PORT},
           {"h| ", "none", PORT},
           {"|80", "none", FORMAT},
           {"h|", "none", FORMAT},
           {"h80", "none", FORMAT},
           {"h_1|80", "none", CHARACTER},
           {"h 1|80", "none", CHARACTER},
           {"", "none", "[ERROR] Invalid message format\n"},
       }) {
    CloudServerInfo info;
    const std::string response = "X: \"message\":\"" + c.value + "\" 4\r\n\r\n";
    const bool found = parse_server_message(response, &info);
    EXPECT_EQ(found ? info.host.get() + (":" + std::to_string(info.port)) : "none", c.expected);
    EXPECT_EQ(info.host != nullptr, found);
    EXPECT_EQ(log.take(), c.log) << c.value;
  }
  CloudServerInfo info;
  EXPECT_FALSE(parse_server_message("{\"massage\":\"h|1\"}", &info));
  EXPECT_FALSE(parse_server_message("\"message\":\"h|1", &info));
  const Fault fault(Call::ALLOCATE, 1, ENOMEM);
  EXPECT_FALSE(parse_server_message("\"message\":\"h|1\"", &info));
  EXPECT_EQ(log.take(),
            "[ERROR] No message field in response\n"
            "[ERROR] Invalid message format\n"
            "[ERROR] Failed to allocate memory for host\n");
}

TEST_F(Balancer, RetriesWithDoublingPausesUntilStopped) {
  const FrozenClock clock(9);
  const Fault fault(Call::SOCKET, 1, EMFILE, Times::FROM_THEN_ON);
  std::string expected;
  for (const int delay : {1, 2, 4, 8, 16, 32, 60, 60, 60}) {
    expected += "[ERROR] Failed to create socket: Too many open files\n[INFO ] Retrying %s in " +
                std::to_string(delay) + " seconds\n";
  }
  Text id(strdup("old"));
  EXPECT_FALSE(fetch_cloud_id(&id));
  EXPECT_EQ(id, nullptr);
  for (size_t at = expected.find("%s"); at != std::string::npos; at = expected.find("%s", at))
    expected.replace(at, 2, "cloud ID fetch");
  EXPECT_EQ(log.take(), expected);
  EXPECT_EQ(clock.pauses(),
            (std::vector<int64_t>{1000, 2000, 4000, 8000, 16000, 32000, 60000, 60000, 60000}));

  // Not running any more: no attempt is made.
  CloudServerInfo info = {.host = Text(strdup("old")), .port = 1};
  EXPECT_FALSE(resolve_cloud_server("id", &info));
  EXPECT_FALSE(fetch_cloud_id(&id));
  EXPECT_EQ(info.host, nullptr);
  EXPECT_EQ(info.port, 0);
  EXPECT_EQ(log.take(), "");
}
