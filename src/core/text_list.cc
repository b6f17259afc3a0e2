#include "core/text_list.h"

#include <assert.h>
#include <stdlib.h>

TextList::~TextList() {
  for (size_t i = 0; i < count_; i++)
    free(slots_[i]);
  free(slots_);
}

bool TextList::reserve(size_t capacity) {
  assert(!slots_);
  slots_ = static_cast<char **>(calloc(capacity, sizeof *slots_));
  if (!slots_) return false;
  capacity_ = capacity;
  return true;
}

bool TextList::append(Text text) {
  if (!text || full()) return false;
  slots_[count_++] = text.release();
  return true;
}

void TextList::replace(size_t index, Text text) {
  assert(index < count_ && text);
  free(slots_[index]);
  slots_[index] = text.release();
}

// The list is empty afterwards, so that its destructor finds nothing to do.
char **TextList::release() {
  capacity_ = 0;
  count_ = 0;
  return std::exchange(slots_, nullptr);
}
