// The growing, always terminated text buffer in which pages, documents and short texts are made.
// No locking: a builder belongs to the thread that created it.
#pragma once

#include <stddef.h>

#include <memory>

struct StringBuilder {
  char *data;       // owned; the text, always terminated
  size_t length;    // bytes of text, without the terminator
  size_t capacity;  // bytes allocated for data; never shrinks
};

// A builder holding the empty text with exactly this capacity (0 is raised to 1, room for the
// terminator); none when memory runs out. Released with string_builder_free.
[[nodiscard]] StringBuilder *string_builder_create(size_t capacity);

// Appends; the buffer grows to the next multiple of 4096 bytes that is above the new length. On
// false (a null argument, no memory, a formatting error) the builder is exactly as it was.
[[nodiscard]] bool string_builder_append(StringBuilder *builder, const char *text);
[[nodiscard]] bool string_builder_appendf(StringBuilder *builder, const char *format, ...)
    __attribute__((format(printf, 2, 3)));

// The same for text that is not terminated where it ends.
[[nodiscard]] bool string_builder_append_bytes(StringBuilder *builder, const char *bytes,
                                               size_t length);

// Releases buffer and record; none is ignored.
void string_builder_free(StringBuilder *builder);

struct StringBuilderDeleter {
  void operator()(StringBuilder *builder) const { string_builder_free(builder); }
};

using StringBuilderOwner = std::unique_ptr<StringBuilder, StringBuilderDeleter>;
