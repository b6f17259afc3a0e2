#include "web/channels_api.h"

#include <inttypes.h>
#include <stdio.h>

#include <string_view>

#include "core/context.h"
#include "core/text.h"
#include "monitor/monitor.h"
#include "web/assets.h"
#include "web/http_response.h"
#include "web/page.h"
#include "web/template.h"

static constexpr size_t DOCUMENT_CAPACITY = 1024;  // bytes
static constexpr size_t PATH_SIZE = 256;           // bytes
static constexpr size_t NUMBER_SIZE = 16;          // bytes

static constexpr char DOCUMENT_HEAD[] =
    "{\n"
    "    \"chanels\": [\n";
static constexpr char DOCUMENT_TAIL[] =
    "\n"
    "    ]\n"
    "}";

static constexpr size_t NONE = std::string_view::npos;

void extract_stream_path(const char *url, char *out, size_t size) {
  const std::string_view text = url;
  out[0] = '\0';
  const size_t colon = text.rfind(':');
  if (colon != NONE && is_decimal_digit(url[colon + 1])) {
    const size_t slash = text.find('/', colon);
    if (slash != NONE) {
      text_copy_to(out, size, url + slash + 1);
      return;
    }
  }
  const size_t slash = text.rfind('/');
  if (slash != NONE && slash != 0) text_copy_to(out, size, url + slash + 1);
}

static bool append_channel(StringBuilder *builder, const StreamMonitorState &stream) {
  char stream_id[NUMBER_SIZE];
  char port[NUMBER_SIZE];
  char path[PATH_SIZE];
  snprintf(stream_id, sizeof stream_id, "%" PRIu32, stream.stream_id);
  snprintf(port, sizeof port, "%u", unsigned{proxy_context.cloud_port});
  extract_stream_path(stream.url, path, sizeof path);
  const TemplateField fields[] = {
      {"stream_id", stream_id},
      {"stream_path", path, Escape::JSON_STRING},
      {"cloud_id", proxy_context.config.cloud_id, Escape::JSON_STRING},
      {"cloud_server", proxy_context.cloud_server, Escape::JSON_STRING},
      {"cloud_port", port},
  };
  return template_append(builder, ASSET_CHANNEL_JSON, fields);
}

static bool append_channels(StringBuilder *builder) REQUIRES_LOCK(monitor.lock) {
  for (size_t i = 0; i < monitor.stream_count; i++) {
    if (i > 0 && !string_builder_append(builder, ",\n")) return false;
    if (!append_channel(builder, monitor.streams[i])) return false;
  }
  return true;
}

bool build_channels_json(StringBuilder *builder) {
  if (!string_builder_append(builder, DOCUMENT_HEAD)) return false;
  CheckedLock lock(&monitor.lock);
  if (!lock.acquire()) return false;
  const bool appended = append_channels(builder);
  lock.release();
  return appended && string_builder_append(builder, DOCUMENT_TAIL);
}

void handle_channels_api(int socket) {
  const StringBuilderOwner document(string_builder_create(DOCUMENT_CAPACITY));
  if (!document || !build_channels_json(document.get()) ||
      !http_send_json(socket, document.get())) {
    http_send_error(socket, SERVER_ERROR);
  }
}
