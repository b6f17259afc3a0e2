// Fills in the fields of an embedded text: {{name}} becomes the value of that name, escaped for
// where it stands. Texts are never printf formats, so a percent sign is a percent sign.
#pragma once

#include <span>

#include "core/string_builder.h"

// How a value is made safe for its place. Ordinary values come out as they are, so that other
// programs may go on reading the pages.
enum class Escape {
  NONE,           // texts of the agent itself
  HTML,           // between tags
  ATTRIBUTE,      // a single-quoted attribute
  SCRIPT_STRING,  // a single-quoted string of an inline script
  JSON_STRING,    // a double-quoted string of a JSON document
};

struct TemplateField {
  const char *name;
  const char *value;  // not owned
  Escape escape;      // without a default: every field says its own
};

// Appends the text with its fields filled in, in one pass. False without memory, or for a field
// that is not in the list.
[[nodiscard]] bool template_append(StringBuilder *out, const char *text,
                                   std::span<const TemplateField> fields);

// Appends a value, escaped.
[[nodiscard]] bool append_escaped(StringBuilder *out, const char *value, Escape escape);
