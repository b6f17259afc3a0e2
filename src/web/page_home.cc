#include <span>

#include "web/assets.h"
#include "web/http_server.h"
#include "web/page_common.h"
#include "web/pages.h"
#include "web/template.h"

static constexpr size_t PAGE_CAPACITY = 1024;  // bytes

static bool append_head(StringBuilder *page) {
  const TemplateField fields[] = {
      {"style", shared_style_sheet(), Escape::NONE},
      {"page_style", ASSET_HOME_CSS, Escape::NONE},
  };
  return template_append(page, ASSET_HOME_HEAD_HTML, fields) && string_builder_append(page, "\n");
}

// Without a text: which language the link is in, only the browser knows.
static bool append_link(StringBuilder *page, const HttpHandler &route) {
  const TemplateField fields[] = {
      {"path", route.path, Escape::NONE},
      {"link_id", route.link_id, Escape::NONE},
  };
  return template_append(page, ASSET_HOME_LINK_HTML, fields) && string_builder_append(page, "\n");
}

// The links follow the route table, so that a route needs no second entry here.
static bool append_links(StringBuilder *page) {
  const std::span routes(http_server.handlers.data(), http_server.handler_count);
  for (const HttpHandler &route : routes) {
    if (route.show_on_home && !append_link(page, route)) return false;
  }
  return true;
}

static bool append_tail(StringBuilder *page) {
  const TemplateField fields[] = {
      {"language", ASSET_LANGUAGE_JS, Escape::NONE},
      {"script", ASSET_HOME_JS, Escape::NONE},
  };
  return template_append(page, ASSET_HOME_TAIL_HTML, fields);
}

static bool append_page(StringBuilder *page) {
  return append_head(page) && append_links(page) && append_tail(page);
}

void handle_home_page(int socket) {
  page_serve(socket, PAGE_CAPACITY, append_page);
}
