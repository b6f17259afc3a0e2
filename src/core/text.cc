#include "core/text.h"

#include <stdlib.h>
#include <string.h>

#include <algorithm>

Text text_copy(std::string_view text) {
  Text copy(static_cast<char *>(malloc(text.size() + 1)));
  if (!copy) return nullptr;
  std::copy(text.begin(), text.end(), copy.get());
  copy[text.size()] = '\0';
  return copy;
}

bool text_assign(char **slot, std::string_view text) {
  // Copied before the old text goes, of which it may be a part.
  Text copy = text_copy(text);
  if (!copy) return false;
  text_release(slot);
  *slot = copy.release();
  return true;
}

void text_release(char **slot) {
  free(*slot);
  *slot = nullptr;
}

void text_copy_to(char *out, size_t size, std::string_view text) {
  const size_t length = std::min(text.size(), size - 1);
  std::copy_n(text.begin(), length, out);
  out[length] = '\0';
}

std::string_view text_trim(std::string_view text) {
  while (!text.empty() && is_white_space(text.back()))
    text.remove_suffix(1);
  while (!text.empty() && is_white_space(text.front()))
    text.remove_prefix(1);
  return text;
}

// Not atoi: that is undefined for more digits than an int holds, and the text is the user's.
int text_to_int(const char *text) {
  return static_cast<int>(strtoll(text, nullptr, 10));
}
