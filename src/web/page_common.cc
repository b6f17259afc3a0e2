#include "web/page_common.h"

#include "web/http_response.h"

// A page is whole before its first byte is sent: its length stands in the header, and a page that
// cannot be finished can still become an error page.
void page_serve(int socket, size_t capacity, bool (*append)(StringBuilder *page)) {
  const StringBuilderOwner page(string_builder_create(capacity));
  if (!page || !append(page.get()) || !http_send_html(socket, page.get())) {
    http_send_error(socket, SERVER_ERROR);
  }
}
