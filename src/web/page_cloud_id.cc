#include "web/page_cloud_id.h"

#include "core/context.h"
#include "web/assets.h"
#include "web/page.h"
#include "web/style_sheet.h"
#include "web/template.h"

static constexpr size_t PAGE_CAPACITY = 1024;  // bytes

static bool append_page(StringBuilder *page) {
  const TemplateField fields[] = {
      {"style", shared_style_sheet()},
      {"cloud_id", proxy_context.config.cloud_id},
      {"script", ASSET_CLOUD_ID_JS},
  };
  return template_append(page, ASSET_CLOUD_ID_HTML, fields);
}

void handle_cloud_id_page(int socket) {
  page_serve(socket, PAGE_CAPACITY, append_page);
}
