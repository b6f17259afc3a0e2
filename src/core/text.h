// Texts: heap copies, copies into fixed fields, and numbers in texts. Any thread.
#pragma once

#include <stddef.h>

#include <string_view>

#include "core/owners.h"

// A terminated heap copy, or none when memory runs out.
[[nodiscard]] Text text_copy(std::string_view text);

// Replaces the owned text in *slot (released first when present) by a copy. On false (no memory)
// the slot keeps what it held.
[[nodiscard]] bool text_assign(char **slot, std::string_view text);

// Releases the owned text in *slot and leaves none.
void text_release(char **slot);

// Copies at most size - 1 bytes and always terminates. Requires size > 0.
void text_copy_to(char *out, size_t size, std::string_view text);

// The decimal number at the start of the text as the C library's atoi reads it: leading white
// space, an optional sign, digits up to the first other character; 0 without digits. Unlike atoi
// it is defined for any number of digits: the low bits of what strtoll gives.
[[nodiscard]] int text_to_int(const char *text);

// White space of ASCII, whatever the locale.
[[nodiscard]] inline bool is_white_space(char c) {
  return c == ' ' || (c >= '\t' && c <= '\r');
}

// The text without the white space at its ends.
[[nodiscard]] std::string_view text_trim(std::string_view text);

[[nodiscard]] inline bool is_decimal_digit(char c) {
  return c >= '0' && c <= '9';
}

// A letter or digit of ASCII, whatever the locale.
[[nodiscard]] inline bool is_letter_or_digit(char c) {
  return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || is_decimal_digit(c);
}
