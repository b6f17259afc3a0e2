#include "core/stream_urls.h"

#include "core/text.h"
#include "support/agent_test.h"

using StreamUrls = AgentTest;

TEST_F(StreamUrls, DefaultPortGoesBehindTheAuthority) {
  for (const auto &[url, expected] : rows(R"(
rtsp://h -> rtsp://h:554 | rtsp://h/a -> rtsp://h:554/a | rtsp://h?a -> rtsp://h:554?a
rtsp://h?a/b -> rtsp://h?a:554/b | rtsp://h:8554 -> rtsp://h:8554
rtsp://h:8554?a -> rtsp://h:8554?a | rtsp://u:1@h:80/a -> rtsp://u:1@h:80/a
rtsp://u:1234@h/a -> rtsp://u:1234@h:554/a | rtsp://u:12/3@h -> rtsp://u:12/3@h
rtsp://h:/a:80/ -> rtsp://h::554/a:80/ | rtsp://h:80a/ -> rtsp://h:80a:554/
rtsp://a::80/ -> rtsp://a::80/ | h/a -> h:554/a | h:80 -> h:80 | rtsp:/h -> rtsp::554/h
a?b://c -> a?b://c:554 |  -> :554
)")) {
    EXPECT_EQ(add_default_port(url.c_str()).get(), expected) << url;
    EXPECT_EQ(log.take().ends_with("in stream address, assuming default 554"), url != expected)
        << url;
  }
}

// The final list of the options, joined with blanks.
static std::string processed(const std::string &options) {
  AgentConfig config = {};
  config.group_streams = options.starts_with("-g");
  TextList list;
  EXPECT_TRUE(list.reserve(MAX_STREAMS));
  std::istringstream words(options.substr(config.group_streams ? 2 : 0));
  for (std::string url; words >> url;)
    EXPECT_TRUE(list.append(text_copy(url)));
  EXPECT_TRUE(process_stream_urls(&config, &list) || !config.stream_urls) << options;
  std::string result;
  for (size_t i = 0; i < config.stream_count; i++)
    result += (i == 0 ? "" : " ") + std::string(config.stream_urls[i]);
  config_free(&config);
  return result;
}

// Options behind "-g" are taken in pairs.
TEST_F(StreamUrls, OptionsBecomeTheStreamListOrAreRefused) {
  for (const auto &[options, expected] : rows(R"(
 ->  | -g ->  | h/{1-4} -> h:554/1 h:554/2 h:554/3 h:554/4
h:1/a{8-10}b{1-2}c -> h:1/a8b{1-2}c h:1/a9b{1-2}c h:1/a10b{1-2}c
h-2:1/-{1-2} -> h-2:1/-1 h-2:1/-2 | h:1/{007-8} -> h:1/7 h:1/8 | h:1/{-2} -> h:1/0 h:1/1 h:1/2
h:1/{-1-4} -> h:1/0 h:1/1 | h:1/{+1x-+2y} -> h:1/1 h:1/2 | h:1/{000000000000001-2} -> h:1/1 h:1/2
h:1/{2147483646-2147483647} -> h:1/2147483646 h:1/2147483647 | h:1/{4-1} -> h:1/{4-1}
h:1/{2-2} -> h:1/{2-2} | h:1/{a-b} -> h:1/{a-b} | h:1/{12}-3 -> h:1/{12}-3 | h:1/{1-3 -> h:1/{1-3
h:1/}{2-0}{1-3} -> h:1/}{2-0}{1-3} | h:1/{0000000000000001-2} -> h:1/{0000000000000001-2}
h{1-2} -> h1:554 h2:554 | h/{1-65} -> [ERROR] Invalid expansion range 1-65 in URL: h/{1-65}
h:1/%d{0-64} -> [ERROR] Invalid expansion range 0-64 in URL: h:1/%d{0-64}
h:1/{1-40} h:1/{1-40} h:1/{1-99} -> [ERROR] Total stream count would exceed maximum 64
h:1/{1-64} h:1 -> [ERROR] Total stream count would exceed maximum 64
-g h:1/{1-40} h:1/{1-40} -> [ERROR] Total stream count would exceed maximum 64
-g h:1/{1-32} h:1/{1-32} h:1 -> [ERROR] Total stream count would exceed maximum 64
-g h/{1-2} h/{1-2}v -> h:554/1 h:554/1v h:554/2 h:554/2v
-g h:1/{1-2} h:2/{5-6} h:3/{1-2} -> h:1/1 h:2/5 h:1/2 h:2/6 h:3/1 h:3/2
-g h:1/{2147483646-2147483647} h:2/{1-2} -> h:1/2147483646 h:2/1 h:1/2147483647 h:2/2
-g h:1 h:2 h:3 -> h:1 h:2 h:3
-g h:1/{1-4} h:1/{1-2} -> [ERROR] Mismatched expansions in stream pair: 4 != 2
-g h:1/{1-4} h:1 -> [ERROR] Mismatched expansions in stream pair: 4 != 1
-g h:1 h:1/{1-70} -> [ERROR] Invalid expansion range 1-70 in URL: h:1/{1-70}
)")) {
    const std::string list = processed(options);
    EXPECT_EQ(list + std::regex_replace(log.take(), std::regex(R"(\n?\[(INFO |DEBUG).*)"), ""),
              expected)
        << options;
  }
}
