#include <inttypes.h>
#include <stdio.h>
#include <time.h>

#include "core/text.h"
#include "monitor/monitor.h"
#include "web/assets.h"
#include "web/page_common.h"
#include "web/pages.h"
#include "web/status_label.h"
#include "web/template.h"

static constexpr size_t PAGE_CAPACITY = 8192;  // bytes
static constexpr size_t TIME_TEXT_SIZE = 256;  // bytes
static constexpr size_t NUMBER_SIZE = 32;      // bytes
static constexpr uint64_t MEBIBYTE = 1'048'576;

static bool append_head(StringBuilder *page) {
  char uptime[TIME_TEXT_SIZE] = "";
  char start_time[TIME_TEXT_SIZE] = "";
  monitor_format_uptime(uptime, sizeof uptime);
  monitor_format_start_time(start_time, sizeof start_time);
  const TemplateField fields[] = {
      {"style", shared_style_sheet(), Escape::NONE},
      {"start_time", start_time, Escape::NONE},
      {"uptime", uptime, Escape::NONE},
  };
  return template_append(page, ASSET_STATS_HEAD_HTML, fields) && string_builder_append(page, "\n");
}

// Local time in the fixed form of ctime, which is not reentrant, without its line feed. Day and
// month are English in both languages of the page: the agent never sets a locale.
static void format_last_activity(time_t last_update, char *out, size_t size) {
  tm local = {};
  if (last_update == 0) {
    text_copy_to(out, size, "Never");
  } else if (!localtime_r(&last_update, &local) ||
             strftime(out, size, "%a %b %e %H:%M:%S %Y", &local) == 0) {
    out[0] = '\0';
  }
}

// What a card shows of a stream, as texts.
struct CardTexts {
  char stream_id[NUMBER_SIZE];
  char uptime[TIME_TEXT_SIZE];
  char rate[NUMBER_SIZE];   // kilobits per second
  char total[NUMBER_SIZE];  // mebibytes with two decimals, truncated
  char last_activity[TIME_TEXT_SIZE];
};

static void format_card(const StreamMonitorState &record, CardTexts *texts) {
  snprintf(texts->stream_id, sizeof texts->stream_id, "%" PRIu32, record.stream_id);
  monitor_format_stream_uptime(static_cast<int>(record.stream_id), texts->uptime,
                               sizeof texts->uptime);
  // Rates count by 1,000 and sizes by 1,024, as people are used to from networks and from disks.
  snprintf(texts->rate, sizeof texts->rate, "%" PRIu64, record.rate * 8 / 1000);
  snprintf(texts->total, sizeof texts->total, "%" PRIu64 ".%02" PRIu64,
           record.bytes_total / MEBIBYTE, record.bytes_total % MEBIBYTE * 100 / MEBIBYTE);
  format_last_activity(record.last_update, texts->last_activity, sizeof texts->last_activity);
}

// Reads a copy, so that no lock is held while the uptime, which takes it, is formatted. The card's
// figures may therefore be a moment apart.
static bool append_card(StringBuilder *page, int stream_id) {
  StreamMonitorState record = {};
  if (!monitor_get_stream_state(stream_id, &record)) {
    // Shown all the same, so that the figures of the other streams are not lost.
    record.stream_id = static_cast<uint32_t>(stream_id);
    record.status = STREAM_ERROR;
  }
  CardTexts texts = {};
  format_card(record, &texts);
  const TemplateField fields[] = {
      {"stream_id", texts.stream_id, Escape::NONE},
      {"status_class", status_css_class(record.status), Escape::NONE},
      {"status_label", status_label(record.status), Escape::NONE},
      {"stream_uptime", texts.uptime, Escape::NONE},
      {"rate", texts.rate, Escape::NONE},
      {"total", texts.total, Escape::NONE},
      {"last_activity", texts.last_activity, Escape::NONE},
  };
  return template_append(page, ASSET_STATS_CARD_HTML, fields) && string_builder_append(page, "\n");
}

static bool append_tail(StringBuilder *page) {
  const TemplateField fields[] = {
      {"language", ASSET_LANGUAGE_JS, Escape::NONE},
      {"script", ASSET_STATS_JS, Escape::NONE},
  };
  return template_append(page, ASSET_STATS_TAIL_HTML, fields);
}

// Meant to begin with <html>, without a document type: browsers then show it in their older mode.
static bool append_page(StringBuilder *page) {
  if (!append_head(page)) return false;
  for (int id = 1; monitor_knows(id); id++) {
    if (!append_card(page, id)) return false;
  }
  return append_tail(page);
}

void handle_stats_page(int socket) {
  page_serve(socket, PAGE_CAPACITY, append_page);
}
