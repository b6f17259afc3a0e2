// The one style sheet that every page carries.
#pragma once

#include "web/assets.h"

// A constant text.
[[nodiscard]] inline const char *shared_style_sheet() {
  return ASSET_STYLE_CSS;
}
