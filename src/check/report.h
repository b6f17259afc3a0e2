// What the check says, on standard output: sections of lines in three columns, which are how bad it
// is, where, and what is wrong with what to do about it.
#pragma once

#include <stddef.h>

#include <string_view>

enum class Level { FINE, WARNING, ERROR };  // an error: it cannot work

// A text with a URL, or the end of one, fit to be shown: the password is stars.
struct Masked {
  static constexpr size_t SIZE = 320;  // bytes; a longer text is cut

  explicit Masked(std::string_view whole);

  char text[SIZE];
};

// Heads the lines that follow; without any it is not printed.
void report_section(const char *title);

void report_setting(const char *name, const char *format, ...)
    __attribute__((format(printf, 2, 3)));

void report_listed(size_t number, const char *text);

void report(Level level, const char *place, const char *format, ...)
    __attribute__((format(printf, 3, 4)));

// About a stream. One line says what is the same of streams that follow each other.
void report_stream(Level level, size_t number, const char *format, ...)
    __attribute__((format(printf, 3, 4)));

// The last line. The exit status: 0 fine, 1 warnings, 2 it cannot work.
[[nodiscard]] int report_summary(const char *if_fine);
