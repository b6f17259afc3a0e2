#include "core/string_builder.h"

#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <algorithm>

#include "core/owners.h"

static constexpr size_t GROWTH_STEP = 4096;        // bytes
static constexpr size_t LOCAL_FORMAT_SIZE = 1024;  // bytes; most formatted pieces are shorter

// Record and buffer are two allocations, since the buffer moves when it grows.
StringBuilder *string_builder_create(size_t capacity) {
  capacity = std::max<size_t>(capacity, 1);
  StringBuilderOwner builder(static_cast<StringBuilder *>(calloc(1, sizeof(StringBuilder))));
  if (!builder) return nullptr;
  builder->data = static_cast<char *>(malloc(capacity));
  if (!builder->data) return nullptr;
  builder->data[0] = '\0';
  builder->capacity = capacity;
  return builder.release();
}

// In whole steps, so that a page of some KiB is moved a handful of times while it grows.
static bool reserve(StringBuilder *builder, size_t required) {
  if (required + 1 <= builder->capacity) return true;
  const size_t capacity = (required + GROWTH_STEP) & ~(GROWTH_STEP - 1);
  char *grown = static_cast<char *>(realloc(builder->data, capacity));
  if (!grown) return false;
  builder->data = grown;
  builder->capacity = capacity;
  return true;
}

bool string_builder_append_bytes(StringBuilder *builder, const char *bytes, size_t length) {
  if (!builder || !bytes) return false;
  const size_t required = builder->length + length;
  if (!reserve(builder, required)) return false;
  memcpy(builder->data + builder->length, bytes, length);
  builder->data[required] = '\0';
  builder->length = required;
  return true;
}

bool string_builder_append(StringBuilder *builder, const char *text) {
  return text && string_builder_append_bytes(builder, text, strlen(text));
}

// For text that the local area cannot hold: `length` bytes, known from the first pass.
__attribute__((format(printf, 3, 0))) static bool append_long(StringBuilder *builder, size_t length,
                                                              const char *format,
                                                              va_list arguments) {
  const Text area(static_cast<char *>(malloc(length + 1)));
  if (!area) return false;
  if (vsnprintf(area.get(), length + 1, format, arguments) < 0) return false;
  return string_builder_append_bytes(builder, area.get(), length);
}

bool string_builder_appendf(StringBuilder *builder, const char *format, ...) {
  if (!builder || !format) return false;

  char local[LOCAL_FORMAT_SIZE];
  va_list arguments;
  va_start(arguments, format);
  va_list second_pass;
  va_copy(second_pass, arguments);  // the first pass uses its list up
  const int result = vsnprintf(local, sizeof local, format, arguments);
  va_end(arguments);

  bool appended = false;
  if (result >= 0) {
    const auto length = static_cast<size_t>(result);
    appended = length < sizeof local ? string_builder_append_bytes(builder, local, length)
                                     : append_long(builder, length, format, second_pass);
  }
  va_end(second_pass);
  return appended;
}

void string_builder_free(StringBuilder *builder) {
  if (!builder) return;
  free(builder->data);
  free(builder);
}
