#include "core/context.h"
#include "web/assets.h"
#include "web/page_common.h"
#include "web/pages.h"
#include "web/template.h"

static constexpr size_t PAGE_CAPACITY = 1024;  // bytes

static bool append_page(StringBuilder *page) {
  const TemplateField fields[] = {
      {"style", shared_style_sheet(), Escape::NONE},
      // Meant to be unescaped, unlike everywhere else: between the tags stands the ID byte for
      // byte, also for a program that reads it there. The balancer, which gives it, is trusted.
      {"cloud_id", proxy_context.config.cloud_id, Escape::NONE},
      {"language", ASSET_LANGUAGE_JS, Escape::NONE},
      {"script", ASSET_CLOUD_ID_JS, Escape::NONE},
  };
  return template_append(page, ASSET_CLOUD_ID_HTML, fields);
}

void handle_cloud_id_page(int socket) {
  page_serve(socket, PAGE_CAPACITY, append_page);
}
