#include "support/peers.h"
#include "web/http_response.h"

using Http = AgentTest;

TEST_F(Http, ErrorsShrinkWithTheMemoryThatIsLeft) {
  // None for the page; none for a message that is longer than the room of the formatting.
  const std::string full =
      "HTTP/1.1 500 Internal Server Error\r\nContent-Type: text/plain\r\nConnection: close\r\n\r\n"
      "Internal Server Error";
  for (const auto &[nth, expected] :
       {std::pair{1, full}, {2, full}, {3, "HTTP/1.1 500 Internal Server Error\r\n\r\n"}}) {
    const TcpPair client;
    const Fault fault(allocation_call, nth, ENOMEM);
    http_send_error(client.ours.get(), std::string(2000, 'm').c_str());
    EXPECT_EQ(get(client.far), expected) << nth;
  }
  const StringBuilderOwner page(string_builder_create(16));
  const Hook no_memory(allocation_call, [] { return -1; });
  EXPECT_FALSE(http_send_html(1, page.get()) || http_send_json(1, page.get()));
}
