// A list of owned texts with a fixed number of slots, as the stream URLs are kept in. Main thread,
// during loading.
#pragma once

#include <stddef.h>

#include "core/owners.h"

// Owns the slots and the texts in them.
class TextList {
 public:
  TextList() = default;
  TextList(const TextList &) = delete;
  TextList &operator=(const TextList &) = delete;
  ~TextList();

  // Makes `capacity` empty slots. False when memory runs out. Once per list.
  [[nodiscard]] bool reserve(size_t capacity);

  // Takes the text into the next slot. False (and the text is released) when the text is none or
  // every slot is used.
  [[nodiscard]] bool append(Text text);

  // Replaces the text at `index`, which must be in use.
  void replace(size_t index, Text text);

  [[nodiscard]] size_t count() const { return count_; }
  [[nodiscard]] bool full() const { return count_ == capacity_; }
  // The text stays owned by the list; `index` must be in use.
  [[nodiscard]] const char *at(size_t index) const { return slots_[index]; }

  // Hands slots and texts over to the caller, who releases each text and then the array.
  [[nodiscard]] char **release();

 private:
  char **slots_ = nullptr;
  size_t capacity_ = 0;
  size_t count_ = 0;
};
