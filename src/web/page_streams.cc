#include <inttypes.h>
#include <stdio.h>

#include <span>

#include "core/context.h"
#include "core/deployment.h"
#include "core/log.h"
#include "monitor/monitor.h"
#include "web/assets.h"
#include "web/http_response.h"
#include "web/page_common.h"
#include "web/pages.h"
#include "web/status_label.h"
#include "web/template.h"

static constexpr size_t PAGE_CAPACITY = 8192;  // bytes
static constexpr size_t NUMBER_SIZE = 16;      // bytes

// A piece of the page without fields, on lines of its own.
static bool append_piece(StringBuilder *page, const char *piece) {
  return string_builder_append(page, piece) && string_builder_append(page, "\n");
}

static bool append_head(StringBuilder *page) {
  const TemplateField fields[] = {{"style", shared_style_sheet(), Escape::NONE}};
  if (!template_append(page, ASSET_STREAMS_HEAD_HTML, fields) ||
      !string_builder_append(page, "\n")) {
    return false;
  }
  return (!proxy_context.config.require_auth || append_piece(page, ASSET_STREAMS_DEVICE_HTML)) &&
         append_piece(page, ASSET_STREAMS_TABLE_HTML);
}

// Only a stream that waits for the cloud can be ticked.
static bool is_selectable(const StreamMonitorState &record) {
  return record.status == STREAM_REGISTERED;
}

static const char *disabled_attribute(bool selectable) {
  return selectable ? "" : "disabled";
}

// How the status cell of a row reads.
struct RowStatus {
  const char *label;
  const char *css_class;
};

static bool append_row(StringBuilder *page, const StreamMonitorState &record, RowStatus status) {
  char stream_id[NUMBER_SIZE];
  snprintf(stream_id, sizeof stream_id, "%" PRIu32, record.stream_id);
  const TemplateField fields[] = {
      {"stream_id", stream_id, Escape::NONE},
      {"disabled", disabled_attribute(is_selectable(record)), Escape::NONE},
      {"url", record.url, Escape::HTML},
      {"status_class", status.css_class, Escape::NONE},
      {"status_label", status.label, Escape::NONE},
  };
  return template_append(page, ASSET_STREAMS_ROW_HTML, fields) && string_builder_append(page, "\n");
}

static bool append_pair_row(StringBuilder *page, const StreamMonitorState &first,
                            const StreamMonitorState &second) {
  char first_id[NUMBER_SIZE];
  char second_id[NUMBER_SIZE];
  snprintf(first_id, sizeof first_id, "%" PRIu32, first.stream_id);
  snprintf(second_id, sizeof second_id, "%" PRIu32, second.stream_id);
  const TemplateField fields[] = {
      {"stream_id", first_id, Escape::NONE},
      {"second_stream_id", second_id, Escape::NONE},
      {"disabled", disabled_attribute(is_selectable(first) && is_selectable(second)), Escape::NONE},
      {"url", first.url, Escape::HTML},
      {"second_url", second.url, Escape::HTML},
      {"status_class", pair_status_css_class(first, second), Escape::NONE},
      {"status_label", pair_status_label(first, second), Escape::NONE},
  };
  return template_append(page, ASSET_STREAMS_ROW_PAIR_HTML, fields) &&
         string_builder_append(page, "\n");
}

static bool append_single_rows(StringBuilder *page, std::span<const StreamMonitorState> records) {
  for (const StreamMonitorState &record : records) {
    const RowStatus status = {status_label(record.status), status_css_class(record.status)};
    if (!append_row(page, record, status)) return false;
  }
  return true;
}

static bool append_paired_rows(StringBuilder *page, std::span<const StreamMonitorState> records) {
  // The last of an odd count has no partner: a fault of the configuration, and shown as one. It can
  // be ticked all the same; the script then adds it by the request for one stream.
  static constexpr RowStatus ALONE = {"Error", "status-error"};
  for (size_t i = 0; i < records.size(); i += 2) {
    const bool alone = i + 1 == records.size();
    const bool appended = alone ? append_row(page, records[i], ALONE)
                                : append_pair_row(page, records[i], records[i + 1]);
    if (!appended) return false;
  }
  return true;
}

// Under one lock, so that the statuses of all rows are those of one moment.
static bool append_rows(StringBuilder *page, std::span<const StreamMonitorState> records) {
  if (records.empty()) return append_piece(page, ASSET_STREAMS_EMPTY_HTML);
  return proxy_context.config.group_streams ? append_paired_rows(page, records)
                                            : append_single_rows(page, records);
}

static bool append_tail(StringBuilder *page) {
  char port[NUMBER_SIZE];
  snprintf(port, sizeof port, "%u", unsigned{proxy_context.cloud_port});
  const TemplateField fields[] = {
      {"cloud_id", proxy_context.config.cloud_id, Escape::SCRIPT_STRING},
      {"cloud_server", proxy_context.cloud_server, Escape::SCRIPT_STRING},
      {"cloud_port", port, Escape::NONE},
      {"group_streams", proxy_context.config.group_streams ? "true" : "false", Escape::NONE},
      {"account_host", ACCOUNT_HOST, Escape::NONE},
      {"language", ASSET_LANGUAGE_JS, Escape::NONE},
      {"script", ASSET_STREAMS_JS, Escape::NONE},
  };
  return template_append(page, ASSET_STREAMS_TAIL_HTML, fields);
}

static bool append_page(StringBuilder *page) {
  return append_head(page) && monitor_append_records(page, append_rows) && append_tail(page);
}

// Not by page_serve: a page that fails here says so in the log first.
void handle_streams_page(int socket) {
  const StringBuilderOwner page(string_builder_create(PAGE_CAPACITY));
  if (!page) {
    http_send_error(socket, SERVER_ERROR);
    return;
  }
  if (!append_page(page.get()) || !http_send_html(socket, page.get())) {
    log_message(LOG_ERROR, "Sending /streams failed, return");
    http_send_error(socket, SERVER_ERROR);
  }
}
