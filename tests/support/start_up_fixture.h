// A start-up that asks a balancer on the loopback.
#pragma once

#include "cloud/balancer_client.h"
#include "core/proxy.h"
#include "core/text.h"
#include "support/peers.h"

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
