#include <string>
#include <vector>

#include "support/agent_test.h"
#include "support/fault.h"
#include "support/peers.h"
#include "web/http_response.h"
#include "web/http_server.h"

using Http = AgentTest;

static constexpr char FULL_ERROR[] =
    "HTTP/1.1 500 Internal Server Error\r\nContent-Type: text/plain\r\nConnection: close\r\n\r\n"
    "Internal Server Error";

// What the client gets when the operation has written and the connection is closed.
template <typename Operation>
static std::string response_of(const Operation &operation) {
  TcpPair client;
  operation(client.ours.get());
  client.ours = Fd();
  return get_all(client.far);
}

TEST_F(Http, ErrorsShrinkWithTheMemoryThatIsLeft) {
  const StringBuilderOwner page(string_builder_create(16));
  for (const int nth : {1, 2}) {
    const Fault fault(Call::ALLOCATE, nth, ENOMEM, Times::FROM_THEN_ON);
    EXPECT_EQ(response_of([](int socket) { http_send_error(socket, "x"); }), FULL_ERROR);
    EXPECT_FALSE(http_send_html(1, page.get()));
    EXPECT_FALSE(http_send_json(1, page.get()));
  }
  EXPECT_EQ(sizeof FULL_ERROR - 1, 104U);
  // A message whose page cannot be formatted for want of memory.
  const std::string message(2000, 'm');
  const Fault fault(Call::ALLOCATE, 3, ENOMEM);
  EXPECT_EQ(response_of([&](int socket) { http_send_error(socket, message.c_str()); }),
            "HTTP/1.1 500 Internal Server Error\r\n\r\n");
  EXPECT_EQ(log.take(), "");
}

TEST_F(Http, WritesGoOnUntilAllIsWrittenOrFail) {
  {
    const IoScript script(Io::WRITE, {1, -EINTR, 2, -EINTR, -EINTR, 1});
    EXPECT_EQ(response_of([](int socket) { EXPECT_TRUE(http_write_all(socket, "abcdef", 6)); }),
              "abcdef");
    EXPECT_TRUE(script.used_up());
  }
  EXPECT_TRUE(http_write_all(-1, "", 0));
  EXPECT_EQ(log.take(), "");

  const StringBuilderOwner page(string_builder_create(16));
  ASSERT_TRUE(string_builder_append(page.get(), "page"));
  const auto failing = [this](const std::vector<int> &steps, const auto &operation) {
    const IoScript script(Io::WRITE, steps);
    const TcpPair client;
    operation(client.ours.get());
    EXPECT_TRUE(script.used_up());
    return log.take();
  };
  const auto send_html = [&](int socket) { EXPECT_TRUE(http_send_html(socket, page.get())); };
  EXPECT_EQ(failing({10, -EPIPE}, send_html),
            "[ERROR] Write failed: Broken pipe\n[ERROR] Failed to send http response\n");
  EXPECT_EQ(failing({0}, send_html),
            "[ERROR] Connection closed during write\n[ERROR] Failed to send http response\n");
  EXPECT_EQ(
      failing({-EPIPE}, [&](int socket) { EXPECT_FALSE(http_send_json(socket, page.get())); }),
      "[ERROR] Write failed: Broken pipe\n");
  EXPECT_EQ(failing({-ECONNRESET}, http_send_not_found),
            "[ERROR] Write failed: Connection reset by peer\n"
            "[ERROR] Failed to send 404 response\n");
  const auto send_error = [](int socket) { http_send_error(socket, "x"); };
  EXPECT_EQ(failing({WHOLE, -EPIPE}, send_error),
            "[ERROR] Write failed: Broken pipe\n[ERROR] Failed to send error response\n");
  const Fault fault(Call::ALLOCATE, 1, ENOMEM);
  EXPECT_EQ(failing({-EPIPE}, send_error),
            "[ERROR] Write failed: Broken pipe\n"
            "[ERROR] Failed to send minimal error response\n");
}

TEST_F(Http, TableTakes32Handlers) {
  http_server.handler_count = 0;
  char link_id[] = "link";
  {
    const Fault fault(Call::ALLOCATE, 1, ENOMEM);
    EXPECT_FALSE(http_register_handler("/", link_id, true, http_send_not_found));
  }
  for (int i = 0; i < 32; i++)
    EXPECT_TRUE(http_register_handler("/", link_id, i == 0, http_send_not_found));
  EXPECT_FALSE(http_register_handler("/33", link_id, true, http_send_not_found));
  EXPECT_EQ(log.take(), "[ERROR] Maximum number of handlers reached\n");
  EXPECT_EQ(http_server.handler_count, 32U);
  EXPECT_NE(http_server.handlers[0].link_id, link_id);
  EXPECT_EQ(http_server.handlers[0].show_on_home, 1);
  EXPECT_EQ(http_server.handlers[31].show_on_home, 0);
}
