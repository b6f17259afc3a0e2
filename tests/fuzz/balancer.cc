// The balancer's answer: nothing but a value of an answer of 200 is ever taken.
#include "cloud/balancer_client.h"
#include "target.h"

// The value has only these characters beside letters and digits, and stands in the answer.
static void check(const Parts &pieces, const std::string &value, std::string_view others) {
  for (const char c : value)
    REQUIRE(isalnum(static_cast<unsigned char>(c)) || others.find(c) != NONE);
  std::string all;
  for (const std::string &piece : pieces)
    all += piece;
  REQUIRE(all.size() >= 64 && all.starts_with("HTTP/1.") && all.find(" 200") == all.find(' '));
  REQUIRE(all.find("\"message\":\"" + value) != NONE);
}

void fuzz(Parts parts) {
  static char text[] = "192.0.2.1";
  proxy_context.config.api_server = proxy_context.config.vendor = proxy_context.config.model = text;
  far_pieces = parts;
  Text id;
  REQUIRE(fetch_cloud_id(&id) == (id && strlen(id.get()) >= 8 && strlen(id.get()) <= 50));
  if (id) check(parts, id.get(), "_-");
  far_pieces = parts;
  proxy_context.running = true;
  CloudServerInfo info;
  REQUIRE(resolve_cloud_server("demo-cloud-id-0001", &info) == (info.host && info.port > 0));
  REQUIRE(!info.host || strlen(info.host.get()) <= 255);
  if (info.host) check(parts, info.host.get(), ".-");
}
