#include "core/proxy.h"

#include <string.h>

#include <string>

#include "stream/stream_context.h"
#include "support/agent_test.h"
#include "support/fault.h"
#include "support/peers.h"

class Proxy : public AgentTest {
 protected:
  Proxy() {
    config.api_server = address;
    config.api_port = balancer.port();
    config.config_dir = const_cast<char *>(dir.path().c_str());
    config.vendor = config.model = name;
    config.stream_urls = urls;
    config.stream_count = 2;
  }

  // Releases what the process would keep until its end.
  void release_ids() {
    free(config.cloud_id);
    free(proxy_context.config.cloud_id);
    config.cloud_id = nullptr;
    proxy_context.config.cloud_id = nullptr;
  }

  TempDir dir;
  AgentConfig config = {};
  std::string id_answer = "new-cloud-id";

 private:
  LoopbackServer balancer{[this](const Fd &client) {
    const bool wants_id = get(client).starts_with("GET /balancer/uuid ");
    put(client, "HTTP/1.1 200 OK\r\nServer: at least sixty-four bytes\r\n\r\n{\"message\":\"" +
                    (wants_id ? id_answer : "10.0.0.1|5000") + "\"}");
  }};
  char address[16] = "127.0.0.1";
  char name[2] = "x";
  char url_1[16] = "rtsp://a:1/%s";
  char url_2[16] = "rtsp://b:2/x";
  char *urls[2] = {url_1, url_2};
};

TEST_F(Proxy, AFailedStartUpUndoesItsWork) {
  // The balancer client pauses without taking time, since a failed host copy is one of its retries.
  const FrozenClock clock;
  int retried = 0;
  const int failures = fail_each_allocation(Times::ONCE, [&](const Fault &fault) {
    std::filesystem::remove(dir.file("cloud.id"));
    const bool started = proxy_init(&config);
    const std::string lines = log.take();
    if (fault.struck() && started) {
      // Harmless: a line about the start time is left out, the balancer is asked again, or a stored
      // ID that was not there anyway cannot be looked up.
      retried++;
      EXPECT_TRUE(lines.find("Monitor started") == std::string::npos ||
                  lines.find("[INFO ] Retrying") != std::string::npos ||
                  lines.find("Failed to allocate memory for filepath") != std::string::npos)
          << lines;
    }
    if (started) {
      proxy_cleanup();
      free(proxy_context.cloud_server);
    } else {
      EXPECT_NE(lines.find("[ERROR]"), std::string::npos) << lines;
      EXPECT_TRUE(agent_running());
      EXPECT_EQ(proxy_context.streams, nullptr);
      EXPECT_EQ(proxy_context.stream_count, 0U);
      EXPECT_EQ(proxy_context.cloud_server, nullptr);
    }
    EXPECT_EQ(monitor.stream_count, 0U);
    proxy_context.cloud_server = nullptr;
    release_ids();
    log.take();
  });
  EXPECT_GT(failures, 15);
  EXPECT_LT(retried, failures / 2);
}
