#include "web/page.h"

#include "web/http_response.h"

void page_serve(int socket, size_t capacity, bool (*append)(StringBuilder *page)) {
  const StringBuilderOwner page(string_builder_create(capacity));
  if (!page || !append(page.get()) || !http_send_html(socket, page.get())) {
    http_send_error(socket, SERVER_ERROR);
  }
}
