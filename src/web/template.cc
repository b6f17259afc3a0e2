#include "web/template.h"

#include <stdio.h>
#include <string.h>

#include <algorithm>
#include <string_view>

static constexpr std::string_view FIELD_OPEN = "{{";
static constexpr std::string_view FIELD_CLOSE = "}}";
static constexpr size_t NUMBER_SIZE = 8;  // "\u001f" and the terminator

static const char *escape_html(char c) {
  switch (c) {
    case '&':
      return "&amp;";
    case '<':
      return "&lt;";
    case '>':
      return "&gt;";
    case '"':
      return "&quot;";
    case '\'':
      return "&#39;";
    case '\r':
      return "&#13;";  // the browser would read it as a line feed
    default:
      return nullptr;
  }
}

// Only for single-quoted attributes: there "<" and double quotes stand for themselves, and the
// channel list, which is full of them, stays readable in the page's source.
static const char *escape_attribute(char c) {
  switch (c) {
    case '&':
      return "&amp;";
    case '\'':
      return "&#39;";
    default:
      return nullptr;
  }
}

// "<" covers the closing script tag and the opening of a comment, which the browser looks for
// before it knows about strings.
static const char *escape_script(char c) {
  switch (c) {
    case '\\':
      return "\\\\";
    case '\'':
      return "\\'";
    case '\n':
      return "\\n";
    case '\r':
      return "\\r";
    case '<':
      return "\\x3C";
    default:
      return nullptr;
  }
}

static const char *escape_json(char c, char (&number)[NUMBER_SIZE]) {
  switch (c) {
    case '\\':
      return "\\\\";
    case '"':
      return "\\\"";
    case '\n':
      return "\\n";
    default:
      break;
  }
  const auto code = static_cast<unsigned char>(c);
  if (code >= 0x20) return nullptr;
  snprintf(number, sizeof number, "\\u%04x", unsigned{code});
  return number;
}

// Written for one character at a time, so that a long URL costs no memory of its own. What stands
// for the character, or none when it stands for itself.
static const char *escape_character(char c, Escape escape, char (&number)[NUMBER_SIZE]) {
  switch (escape) {
    case Escape::NONE:
      return nullptr;
    case Escape::HTML:
      return escape_html(c);
    case Escape::ATTRIBUTE:
      return escape_attribute(c);
    case Escape::SCRIPT_STRING:
      return escape_script(c);
    case Escape::JSON_STRING:
      return escape_json(c, number);
  }
  return nullptr;
}

bool append_escaped(StringBuilder *out, const char *value, Escape escape) {
  if (escape == Escape::NONE) return string_builder_append(out, value);
  const char *plain = value;  // begin of the run that needs no escaping
  for (const char *at = value; *at != '\0'; at++) {
    char number[NUMBER_SIZE];
    const char *replacement = escape_character(*at, escape, number);
    if (!replacement) continue;
    if (!string_builder_append_bytes(out, plain, static_cast<size_t>(at - plain)) ||
        !string_builder_append(out, replacement)) {
      return false;
    }
    plain = at + 1;
  }
  return string_builder_append(out, plain);
}

// A field without a value is a mistake in the program, which an error page shows at once; left out
// in silence it would be found by a user.
static bool append_field(StringBuilder *out, std::string_view name,
                         std::span<const TemplateField> fields) {
  const auto field = std::find_if(fields.begin(), fields.end(),
                                  [name](const TemplateField &each) { return name == each.name; });
  return field != fields.end() && append_escaped(out, field->value, field->escape);
}

// One pass: what looks like a field within a value, which may come from outside, is not one.
bool template_append(StringBuilder *out, const char *text, std::span<const TemplateField> fields) {
  std::string_view rest = text;
  for (;;) {
    const size_t open = rest.find(FIELD_OPEN);
    if (open == std::string_view::npos) break;
    const size_t close = rest.find(FIELD_CLOSE, open);
    if (close == std::string_view::npos) break;
    const size_t name = open + FIELD_OPEN.size();
    if (!string_builder_append_bytes(out, rest.data(), open) ||
        !append_field(out, {rest.data() + name, close - name}, fields)) {
      return false;
    }
    rest.remove_prefix(close + FIELD_CLOSE.size());
  }
  return string_builder_append_bytes(out, rest.data(), rest.size());
}
