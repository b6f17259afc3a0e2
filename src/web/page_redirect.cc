#include "core/deployment.h"
#include "web/assets.h"
#include "web/channels_api.h"
#include "web/page_common.h"
#include "web/pages.h"
#include "web/template.h"

static constexpr size_t DOCUMENT_CAPACITY = 2048;  // bytes
static constexpr size_t PAGE_CAPACITY = 4096;      // bytes

static bool append_page(StringBuilder *page) {
  const StringBuilderOwner channels(string_builder_create(DOCUMENT_CAPACITY));
  if (!channels || !build_channels_json(channels.get())) return false;
  const TemplateField fields[] = {
      {"style", shared_style_sheet(), Escape::NONE},
      {"page_style", ASSET_REDIRECT_CSS, Escape::NONE},
      {"camera_web_host", CAMERA_WEB_HOST, Escape::NONE},
      // The value is escaped twice: for JSON when it was built, for its attribute here.
      {"channels", channels->data, Escape::ATTRIBUTE},
      {"language", ASSET_LANGUAGE_JS, Escape::NONE},
      {"script", ASSET_REDIRECT_JS, Escape::NONE},
  };
  return template_append(page, ASSET_REDIRECT_HTML, fields);
}

void handle_redirect_page(int socket) {
  page_serve(socket, PAGE_CAPACITY, append_page);
}
