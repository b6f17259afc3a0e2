#include "check/report.h"

#include <stdarg.h>
#include <stdio.h>
#include <string.h>

#include <iterator>

#include "core/text.h"

static constexpr size_t TEXT_SIZE = 1024;  // bytes of a line's last column
static constexpr size_t PLACE_SIZE = 32;
static constexpr size_t NONE = std::string_view::npos;
static constexpr const char *LEVEL_NAMES[] = {"ok", "warning", "error"};
static constexpr size_t LEVEL_COUNT = std::size(LEVEL_NAMES);

// The line about streams that the next one may still join.
struct Pending {
  Level level;
  size_t first;  // 0: there is none
  size_t last;
  char text[TEXT_SIZE];
};

static Pending pending;
static const char *section = nullptr;  // not printed yet
static size_t counts[LEVEL_COUNT];

// From the first colon to the last at-sign: of a password with an at-sign nothing may be left over.
Masked::Masked(std::string_view whole) {
  const size_t scheme = whole.find("://");
  const size_t begin = scheme == NONE ? 0 : scheme + 3;
  const size_t colon = whole.find(':', begin);
  const size_t at_sign = whole.rfind('@');
  int length;
  if (at_sign != NONE && colon < at_sign) {
    length = snprintf(text, sizeof text, "%.*s:***%.*s", static_cast<int>(colon), whole.data(),
                      static_cast<int>(whole.size() - at_sign), whole.data() + at_sign);
  } else {
    length = snprintf(text, sizeof text, "%.*s", static_cast<int>(whole.size()), whole.data());
  }
  if (length >= static_cast<int>(sizeof text)) strcpy(text + sizeof text - sizeof "...", "...");
}

// Texts of the network or of a file must not steer the terminal.
static void print_line(const char *line) {
  for (; *line != '\0'; line++) {
    const auto byte = static_cast<unsigned char>(*line);
    putchar(byte == 0x7f || byte < ' ' ? '?' : byte);
  }
  putchar('\n');
  fflush(stdout);
}

static void print_section() {
  if (section) printf("\n%s\n", section);
  section = nullptr;
}

static void print_finding(Level level, const char *place, const char *text) {
  print_section();
  const auto index = static_cast<size_t>(level);
  counts[index]++;
  printf("  %-7s  %-12s  ", LEVEL_NAMES[index], place);
  print_line(text);
}

static void flush_pending() {
  if (pending.first == 0) return;
  char place[PLACE_SIZE];
  if (pending.first == pending.last) {
    snprintf(place, sizeof place, "stream %zu", pending.first);
  } else {
    snprintf(place, sizeof place, "streams %zu-%zu", pending.first, pending.last);
  }
  pending.first = 0;
  print_finding(pending.level, place, pending.text);
}

void report_section(const char *title) {
  flush_pending();
  section = title;
}

void report_setting(const char *name, const char *format, ...) {
  char text[TEXT_SIZE];
  va_list arguments;
  va_start(arguments, format);
  vsnprintf(text, sizeof text, format, arguments);
  va_end(arguments);
  print_section();
  printf("  %-24s  ", name);
  print_line(text);
}

void report_listed(size_t number, const char *text) {
  print_section();
  printf("  %2zu  ", number);
  print_line(text);
}

void report(Level level, const char *place, const char *format, ...) {
  flush_pending();
  char text[TEXT_SIZE];
  va_list arguments;
  va_start(arguments, format);
  vsnprintf(text, sizeof text, format, arguments);
  va_end(arguments);
  print_finding(level, place, text);
}

void report_stream(Level level, size_t number, const char *format, ...) {
  char text[TEXT_SIZE];
  va_list arguments;
  va_start(arguments, format);
  vsnprintf(text, sizeof text, format, arguments);
  va_end(arguments);
  if (pending.last + 1 != number || pending.level != level || strcmp(pending.text, text) != 0) {
    flush_pending();
  }
  if (pending.first == 0) {
    pending.level = level;
    pending.first = number;
    text_copy_to(pending.text, sizeof pending.text, text);
  }
  pending.last = number;
}

int report_summary(const char *if_fine) {
  flush_pending();
  const size_t warnings = counts[static_cast<size_t>(Level::WARNING)];
  const size_t errors = counts[static_cast<size_t>(Level::ERROR)];
  const char *warning_word = warnings == 1 ? "warning" : "warnings";
  putchar('\n');
  if (errors > 0) {
    printf("It cannot work like this: %zu %s, %zu %s.\n", errors, errors == 1 ? "error" : "errors",
           warnings, warning_word);
    return 2;
  }
  if (warnings > 0) {
    printf("%zu %s.\n", warnings, warning_word);
    return 1;
  }
  printf("%s\n", if_fine);
  return 0;
}
