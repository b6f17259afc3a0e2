#include <set>

#include "core/proxy.h"
#include "stream/stream_context.h"
#include "stream/stream_thread.h"
#include "support/start_up_fixture.h"
#include "web/http_response.h"
#include "web/http_server.h"
#include "web/routes.h"

// What takes memory, with each allocation failing in its turn: alone, and with all later ones.
class Allocation : public StartUp {
 protected:
  // What an operation came to, with the failures that the log names: level and message.
  template <typename Operation>
  std::string outcome(const Operation &operation) {
    log.take();
    proxy_context.running = true;
    std::string text = operation();
    std::istringstream lines(std::regex_replace(log.take(), std::regex(dir.path()), "*"));
    for (std::string line; std::getline(lines, line);)
      if (line[1] != 'D' && line.find("ailed") != std::string::npos)
        text += "; " + std::regex_replace(line, std::regex("\\[ERROR\\] (Failed to )?"), "");
    return text;
  }

  // The outcomes that no operation has had before: of a run without failures, then with the 1st,
  // 2nd, 3rd ... allocation failing alone, until a run gets through untouched. After each run, and
  // after each whose later allocations fail too, all is as before.
  template <typename Operation>
  std::string outcomes(const Operation &operation) {
    page_size = 0;
    const std::string untouched = outcome(operation);
    std::string fresh = seen.insert(untouched).second ? "| " + untouched + " " : "";
    bool struck = true;
    for (int nth = 1; struck; nth++) {
      for (const bool lasting : {true, false}) {
        {
          std::atomic<int> calls = 0;
          const Hook fault(allocation_call, [&] {
            const int call = ++calls;
            errno = ENOMEM;
            return call == nth || (lasting && call > nth) ? -1 : 0;
          });
          const std::string text = outcome(operation);
          struck = calls >= nth;
          if (!lasting && seen.insert(text).second) fresh += "| " + text + " ";
        }
        EXPECT_EQ(outcome(operation), untouched);
      }
    }
    return fresh;
  }

  // Wrapped at blanks, with one at its end.
  static std::string unwrapped(const std::string &table) {
    return std::regex_replace(table, std::regex("\n"), " ");
  }

  static std::string load() {
    AgentConfig loaded;
    const bool done =
        load_arguments("-d -g -l -n -r -p1 -vv -mm -cc -ff -sh/{1-32} -sh:2/{1-32}", &loaded);
    const std::string count = std::to_string(loaded.stream_count);
    EXPECT_TRUE(done || !(loaded.api_server || loaded.vendor || loaded.stream_urls));
    config_free(&loaded);
    return done ? count : "refused";
  }

  // The balancer is asked twice before the stop.
  std::string start_up(const char *stored) {
    const FrozenClock clock(2);
    write_file(dir.file("cloud.id"), stored);
    const bool done = proxy_init(&config);
    const std::string id = done ? proxy_context.config.cloud_id : "refused";
    EXPECT_EQ(done, proxy_context.streams && proxy_context.cloud_server && monitor.stream_count);
    if (done) proxy_cleanup();
    EXPECT_TRUE(!proxy_context.streams && !proxy_context.stream_count && !monitor.stream_count);
    release_texts();
    return id;
  }

  // The thread takes nothing as long as the start is not over.
  static std::string start_stream() {
    const std::unique_ptr<StreamContext, void (*)(StreamContext *)> stream(stream_context_create(),
                                                                           stream_context_free);
    if (!stream || !text_assign(&stream->uri, "rtsp://u:p@h:2/x")) return "none";
    stream->stream_id = 1;
    const bool started = stream_start(stream.get());
    workers_stop();
    EXPECT_TRUE(started || !stream->host || strcmp(stream->uri, "/x") == 0);
    return started ? stream->uri : "none";
  }

  // A report between start and end of a monitor.
  static std::string watch() {
    if (!monitor_init(2)) return "none";
    const bool done = monitor_update_error(1, -2, std::string(300, '%').c_str());
    StreamMonitorState state = {};
    EXPECT_TRUE(monitor_get_stream_state(1, &state));
    EXPECT_EQ(state.status, done ? STREAM_ERROR : STREAM_OFFLINE);
    monitor_cleanup();
    return done ? "reported" : "not reported";
  }

  static std::string start_server() {
    for (HttpHandler &route : http_server.handlers)
      text_release(&route.link_id);
    const bool started = http_server_start(0, register_routes);
    http_server_stop();
    return started ? "started" : "none";
  }

  // What the client gets, without the markup.
  template <typename Handler>
  std::string page(const Handler &handler) {
    TcpPair client;
    handler(client.ours.get());
    client.ours = Fd();
    std::string bytes;
    for (std::string part; !(part = get(client.far)).empty();)
      bytes += part;
    if (!bytes.starts_with("HTTP/1.1 200 OK\r\n"))
      return std::regex_replace(bytes.substr(9), std::regex("(<[^>]*>|\\s)+"), " ");
    page_size = std::max(page_size, bytes.size());
    return bytes.size() == page_size ? "page" : "shorter page";
  }

  std::set<std::string> seen;
  size_t page_size = 0;  // bytes
  const Hook<int, pthread_t *, const pthread_attr_t *, void *(*)(void *), void *> thread{
      pthread_create_call, [](auto... arguments) {
        return allocation_call() == 0 ? pthread_create_call.real(arguments...) : EAGAIN;
      }};
};

TEST_F(Allocation, EachFailureIsNamedAndUndone) {
  EXPECT_EQ(outcomes(load), unwrapped(R"(| 64 | refused; Memory allocation failed for API server |
refused; allocate temporary streams array | refused; allocate memory for vendor | refused; allocate
memory for model | refused; allocate memory for config path | refused; allocate memory for status
file path | refused; copy stream URL | refused; Memory allocation failed for stream URLs | refused;
duplicate stream URL | refused; process URL port for stream 0 | refused; process URL port for stream
1 | refused )"));
  EXPECT_EQ(outcomes([this] { return start_up(""); }), unwrapped(R"(| new-cloud-id | refused;
allocate monitor streams array: Cannot allocate memory; initialize monitoring system | new-cloud-id;
allocate memory for filepath | new-cloud-id; open */cloud.id: Cannot allocate memory | new-cloud-id;
allocate buffer for reading cloud ID | refused; allocate response buffer; fetch cloud ID from cloud
| refused; allocate request buffer; fetch cloud ID from cloud | refused; allocate memory for
filepath; [INFO ] Failed to save cloud ID to filesystem | refused; open */cloud.id for writing:
Cannot allocate memory; [INFO ] Failed to save cloud ID to filesystem | refused; allocate memory for
cloud ID | refused; allocate response buffer; resolve cloud server | refused; allocate request
buffer; resolve cloud server | new-cloud-id; allocate memory for host | refused; allocate stream
threads array | refused; allocate stream info for stream 0 | refused; copy stream URL for stream 0 |
refused; allocate monitoring state for stream 0 | refused; allocate stream info for stream 1 |
refused; copy stream URL for stream 1 | refused; allocate monitoring state for stream 1 )"));
  EXPECT_EQ(outcomes([this] { return start_up("old-cloud-id"); }), unwrapped(R"(| old-cloud-id |
new-cloud-id; allocate memory for cloud ID | old-cloud-id; allocate memory for host )"));
  EXPECT_EQ(outcomes(watch), unwrapped(R"(| reported | none; allocate monitor streams array: Cannot
allocate memory | not reported; create string builder for error message | not reported; append error
message to string builder )"));
  ASSERT_TRUE(monitor_init(1));
  EXPECT_EQ(outcomes(start_stream),
            unwrapped(R"(| /x | none | none; parse RTSP URL: rtsp://u:p@h:2/x
| none; create stream thread: Resource temporarily unavailable )"));
  EXPECT_EQ(outcomes(start_server), unwrapped(R"(| started | none; register root handler | none;
register JSON data handler | none; register Add Camera handler | none; register cloud id handler |
none; register stats handler | none; create server thread: Resource temporarily unavailable )"));
}

TEST_F(Allocation, EachPageIsWholeOrAnError) {
  const WallClock clock(1'700'000'000);
  std::vector<char *> many(MAX_STREAMS, config.stream_urls[0]);
  config.stream_urls = many.data();
  config.stream_count = many.size();
  ASSERT_TRUE(proxy_init(&config));
  std::string all = outcomes([this] {
    return page([](int client) { http_send_error(client, std::string(2000, ' ').c_str()); });
  });
  for (const bool legacy_add : {false, true}) {
    proxy_context.config.legacy_add = legacy_add;
    ASSERT_EQ(start_server(), "started");
    for (uint32_t i = 0; i < http_server.handler_count; i++)
      all += outcomes([&] { return page(http_server.handlers[i].callback); });
  }
  EXPECT_EQ(all, unwrapped(R"(| 500 Internal Server Error Error Error Back to Home  | 500 Internal
Server Error Content-Type: text/plain Connection: close Internal Server Error | 500 Internal Server
Error  | page | 500 Internal Server Error Error Error 500 Internal Server Error Back to Home  |
shorter page | 500 Internal Server Error Error Error 500 Internal Server Error Back to Home ;
Sending /streams failed, return )"));
  proxy_cleanup();
}
