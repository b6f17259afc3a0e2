// What the page handlers share. Server thread.
#pragma once

#include <stddef.h>

#include "core/string_builder.h"
#include "web/assets.h"

// Builds a page of this initial capacity and sends it, or the error page when that fails.
void page_serve(int socket, size_t capacity, bool (*append)(StringBuilder *page));

// The one style sheet that every page carries. A constant text.
[[nodiscard]] inline const char *shared_style_sheet() {
  return ASSET_STYLE_CSS;
}

// The message of every error page.
inline constexpr char SERVER_ERROR[] = "500 Internal Server Error";
