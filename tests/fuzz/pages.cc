// Cloud ID, server and stream URLs in the documents: what is read there is what the agent knows,
// and no byte of it becomes markup.
#include "web/pages.h"
#include "target.h"
#include "web/channels_api.h"

// What cannot stand for itself, by its place; the first byte begins an escape.
static const std::string ATTRIBUTE = "&'", HTML = "&<>\"'\r", SCRIPT = "\\'\n\r<", JSON = "\\\"";
static const std::pair<std::string, char> ESCAPES[] = {
    {"&amp;", '&'}, {"&lt;", '<'}, {"&gt;", '>'}, {"&quot;", '"'}, {"&#39;", '\''}, {"&#13;", '\r'},
    {"\\\\", '\\'}, {"\\'", '\''}, {"\\\"", '"'}, {"\\n", '\n'},   {"\\r", '\r'},   {"\\x3C", '<'}};

// Moves `at` behind an escape.
static char read_escape(const std::string &text, size_t *at) {
  for (const auto &[escape, meant] : ESCAPES) {
    if (text.compare(*at, escape.size(), escape) != 0) continue;
    *at += escape.size();
    return meant;
  }
  REQUIRE(text.compare(*at, 4, "\\u00") == 0);
  *at += 6;
  return static_cast<char>(std::stoi(text.substr(*at - 2, 2), nullptr, 16));
}

// What stands between the two, from `at` on, which is moved to its end.
static std::string read(const std::string &text, size_t *at, const std::string &open,
                        const std::string &close, const std::string &never) {
  std::string value;
  size_t next = text.find(open, *at) + open.size();
  *at = text.find(close, next);
  REQUIRE(next >= open.size() && *at != NONE);
  while (next < *at) {
    const bool escaped = text[next] == never[0];
    const bool control = static_cast<unsigned char>(text[next]) < ' ';
    REQUIRE(escaped || (never.find(text[next]) == NONE && !(control && never == JSON)));
    value += escaped ? read_escape(text, &next) : text[next++];
  }
  return value;
}

// The ID, the server, then URLs; an even number of these makes pairs.
void fuzz(Parts parts) {
  parts.resize(std::clamp<size_t>(parts.size(), 3, 6));
  std::vector<char *> texts;
  for (std::string &part : parts)
    texts.push_back(part.data());
  const size_t count = texts.size() - 2;
  const bool pairs = count % 2 == 0;
  proxy_context.config = {.stream_urls = &texts[2], .stream_count = count, .group_streams = pairs};
  proxy_context.config.cloud_id = texts[0];
  proxy_context.cloud_server = texts[1];
  REQUIRE(monitor_init(count));
  const StringBuilderOwner channels(string_builder_create(0));
  REQUIRE(build_channels_json(channels.get()));
  const std::string document = channels->data;
  size_t at = 0, row = 0;
  handle_redirect_page(FAR_SIDE);
  REQUIRE(read(far_took, &at, " value='", "'>", ATTRIBUTE) == document);
  far_took.clear();
  handle_streams_page(FAR_SIDE);
  for (size_t i = at = 0; i < count; i++) {
    const std::string url = std::string(texts[i + 2]).substr(0, MONITOR_TEXT_SIZE - 1);
    const std::string id = std::string(texts[0]) + "/" + std::to_string(i + 1);
    REQUIRE(read(far_took, &row, pairs && i % 2 ? "<br>" : "\"stream-url\">", "<", HTML) == url);
    const std::string path = read(document, &at, "\"real_chanel\": \"", "\",\n", JSON);
    REQUIRE(path == "/" || url.find(path) != NONE);
    REQUIRE(read(document, &at, "id\": \"", "\",\n", JSON) == id);
    REQUIRE(read(document, &at, "server\": \"", "\",\n", JSON) == texts[1]);
  }
  REQUIRE(read(far_took, &row, "cloud_id: '", "',\n", SCRIPT) == texts[0]);
  REQUIRE(read(far_took, &row, "cloud_server: '", "',\n", SCRIPT) == texts[1]);
  monitor_cleanup();
}
