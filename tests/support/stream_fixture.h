// A stream record for the tests of the stream proxy, known to a monitor of one stream.
#pragma once

#include <arpa/inet.h>
#include <string.h>

#include <memory>
#include <string>

#include "monitor/monitor.h"
#include "stream/stream_context.h"
#include "support/agent_test.h"

struct StreamDeleter {
  void operator()(StreamContext *stream) const { stream_context_free(stream); }
};

using StreamOwner = std::unique_ptr<StreamContext, StreamDeleter>;

class StreamTest : public AgentTest {
 protected:
  StreamTest() : stream(make("127.0.0.1", 554, "/live", "", "")) {
    EXPECT_TRUE(monitor_init(1));
    log.take();
  }

  static StreamOwner make(const std::string &host, uint16_t port, const std::string &path,
                          const std::string &user, const std::string &password) {
    StreamOwner made(stream_context_create());
    *made = {.uri = strdup(path.c_str()),
             .stream_id = 1,
             .host = strdup(host.c_str()),
             .port = port,
             .user = strdup(user.c_str()),
             .password = strdup(password.c_str()),
             .monitor_snapshot = nullptr,
             .buffers = made->buffers};
    return made;
  }

  // The last error of the stream, "code text".
  static std::string last_error() {
    StreamMonitorState state = {};
    EXPECT_TRUE(monitor_get_stream_state(1, &state));
    return std::to_string(state.last_error_code) + " " + state.last_error_message;
  }

  static uint64_t total_bytes() {
    StreamMonitorState state = {};
    EXPECT_TRUE(monitor_get_stream_state(1, &state));
    return state.bytes_total;
  }

  StreamOwner stream;
};
