#include "web/channels_api.h"

#include <inttypes.h>
#include <stdio.h>

#include <algorithm>
#include <span>
#include <string_view>

#include "core/context.h"
#include "core/text.h"
#include "monitor/monitor.h"
#include "web/assets.h"
#include "web/http_response.h"
#include "web/page_common.h"
#include "web/template.h"

static constexpr size_t DOCUMENT_CAPACITY = 1024;  // bytes
static constexpr size_t PATH_SIZE = 256;           // bytes
static constexpr size_t NUMBER_SIZE = 16;          // bytes

// "chanel" is spelled so throughout: these are the names that readers of the document look for.
static constexpr char DOCUMENT_HEAD[] =
    "{\n"
    "    \"chanels\": [\n";
static constexpr char DOCUMENT_TAIL[] =
    "\n"
    "    ]\n"
    "}";

static constexpr size_t NONE = std::string_view::npos;

// The bytes of a UTF-8 character at the end that a cut has torn: left in, they would make the whole
// document unreadable. 0 when the last character is whole, or no UTF-8 at all.
static size_t torn_bytes(std::string_view text) {
  for (size_t held = 1; held <= std::min<size_t>(text.size(), 3); held++) {
    const auto byte = static_cast<unsigned char>(text[text.size() - held]);
    if ((byte & 0xC0) == 0x80) continue;  // not a character's first byte
    const size_t length = byte < 0xC0 ? 1 : byte < 0xE0 ? 2 : byte < 0xF0 ? 3 : 4;
    return held < length ? held : 0;
  }
  return 0;
}

// A URL that fills its field in the record is taken for cut there: whether it was, the record does
// not say, and one that was not ends with a whole character.
static void copy_path(char *out, size_t size, std::string_view url, size_t begin) {
  std::string_view path = {url.data() + begin, std::min(url.size() - begin, size - 1)};
  const bool cut = begin + path.size() < url.size() || url.size() == MONITOR_TEXT_SIZE - 1;
  if (cut) path.remove_suffix(torn_bytes(path));
  text_copy_to(out, size, path);
}

// The last colon, since a login holds one too. Meant to differ from the rule of the form page's
// script: the two feed different services.
void extract_stream_path(const char *url, char *out, size_t size) {
  const std::string_view text = url;
  out[0] = '\0';
  const size_t colon = text.rfind(':');
  if (colon != NONE && is_decimal_digit(url[colon + 1])) {
    const size_t slash = text.find('/', colon);
    if (slash != NONE) {
      copy_path(out, size, text, slash + 1);
      return;
    }
  }
  const size_t slash = text.rfind('/');
  if (slash != NONE && slash != 0) copy_path(out, size, text, slash + 1);
}

static bool append_channel(StringBuilder *builder, const StreamMonitorState &record) {
  char stream_id[NUMBER_SIZE];
  char port[NUMBER_SIZE];
  char path[PATH_SIZE];
  snprintf(stream_id, sizeof stream_id, "%" PRIu32, record.stream_id);
  snprintf(port, sizeof port, "%u", unsigned{proxy_context.cloud_port});
  extract_stream_path(record.url, path, sizeof path);
  // In the text, logins are empty and the status is "1" whatever the stream does: the document says
  // which channels there are, not how they are.
  const TemplateField fields[] = {
      {"stream_id", stream_id, Escape::NONE},
      {"stream_path", path, Escape::JSON_STRING},
      {"cloud_id", proxy_context.config.cloud_id, Escape::JSON_STRING},
      {"cloud_server", proxy_context.cloud_server, Escape::JSON_STRING},
      {"cloud_port", port, Escape::NONE},
  };
  return template_append(builder, ASSET_CHANNEL_JSON, fields);
}

static bool append_channels(StringBuilder *builder, std::span<const StreamMonitorState> records) {
  for (const StreamMonitorState &record : records) {
    const bool first = &record == &records.front();
    if (!first && !string_builder_append(builder, ",\n")) return false;
    if (!append_channel(builder, record)) return false;
  }
  return true;
}

bool build_channels_json(StringBuilder *builder) {
  return string_builder_append(builder, DOCUMENT_HEAD) &&
         monitor_append_records(builder, append_channels) &&
         string_builder_append(builder, DOCUMENT_TAIL);
}

void handle_channels_api(int socket) {
  const StringBuilderOwner document(string_builder_create(DOCUMENT_CAPACITY));
  if (!document || !build_channels_json(document.get()) ||
      !http_send_json(socket, document.get())) {
    http_send_error(socket, SERVER_ERROR);
  }
}
