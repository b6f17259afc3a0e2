// Stream records for the tests of the stream proxy, known to a monitor of one stream.
#pragma once

#include "core/text.h"
#include "stream/rtsp_url.h"
#include "stream/stream_context.h"
#include "support/peers.h"

class StreamTest : public AgentTest {
 protected:
  StreamTest() {
    EXPECT_TRUE(monitor_init(1));
    log.take();
  }

  static std::shared_ptr<StreamContext> make(const std::string &url) {
    const std::shared_ptr<StreamContext> made(stream_context_create(), stream_context_free);
    made->stream_id = 1;
    EXPECT_TRUE(rtsp_parse_url(url.c_str(), made.get()));
    return made;
  }

  const std::shared_ptr<StreamContext> stream = make("rtsp://127.0.0.1/live");
};
