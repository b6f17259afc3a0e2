#!/usr/bin/env python3
"""Holds docs/log-lines.md complete: compares it, both ways, with the texts in the sources.

Every text of log_message() has to stand in a table of its folder, with its level; every reason that
a stream reports as its error, with its code, in the table of reasons. In the document a value is a
word in angle brackets, in the sources a printf conversion; what the word is does not matter here.
--list prints what the sources have, ready for a row.
"""

import pathlib
import re
import sys

ROOT = pathlib.Path(__file__).resolve().parent.parent
DOCUMENT = ROOT / "docs/log-lines.md"
REASONS = "reasons"  # the heading's mark of the table of stream errors

TOKEN = re.compile(
    r'//[^\n]*|/\*.*?\*/|R"\((?P<raw>.*?)\)"|"(?P<text>(?:\\.|[^"\\])*)"'
    r"|'(?:\\.|[^'\\])+'|\w[\w']*|\s+|.", re.DOTALL)
ESCAPES = {"n": "\n", "r": "\r", "t": "\t", "0": "\0"}
CONVERSION = re.compile(r"%[-+ #0-9.*]*(?:hh|h|ll|l|z|j)?[a-zA-Z]")
CODES = {"EPROTO": "71", "EINVAL": "22", "ECONNRESET": "104"}


class Unknown(Exception):
    """A call whose text cannot be told: this script, or the call, has to change."""


def tokens(source):
    """(line, text, literal): `literal` is the value of a string, else None. No comments."""
    line = 1
    for match in TOKEN.finditer(source):
        text = match.group()
        if not text.isspace() and not text.startswith(("//", "/*")):
            literal = match["raw"]
            if match["text"] is not None:
                literal = re.sub(r"\\(.)", lambda e: ESCAPES.get(e[1], e[1]), match["text"])
            yield line, text, literal
        line += text.count("\n")


def arguments(stream, at):
    """The arguments of the call whose "(" is at `at`, each a list of tokens."""
    depth, found = 0, [[]]
    for token in stream[at:]:
        text = token[1] if token[2] is None else ""
        if text and text in ")]}":
            depth -= 1
            if depth == 0:
                return found
        if text == "," and depth == 1:
            found.append([])
        elif depth > 0:
            found[-1].append(token)
        if text and text in "([{":
            depth += 1
    raise Unknown("no end")


def calls(stream, name):
    """(line, arguments) of each call; declarations and definitions have no such arguments."""
    for at in range(len(stream) - 1):
        if stream[at][1] == name and stream[at + 1][1] == "(":
            yield stream[at][0], arguments(stream, at + 1)


def plain(argument):
    return "".join(text for _, text, _ in argument)


def literals(argument):
    """The texts in an argument; those that stand side by side are one."""
    found, beside = [], False
    for _, _, literal in argument:
        if literal is not None and beside:
            found[-1] += literal
        elif literal is not None:
            found.append(literal)
        beside = literal is not None
    return found


def constant(stream, name):
    """The text that `name` is set to, as a constant or by snprintf."""
    for _, parts in calls(stream, "snprintf"):
        if plain(parts[0]) == name and literals(parts[2]):
            return literals(parts[2])
    for at, (_, text, _) in enumerate(stream):
        if text == name and [t[1] for t in stream[at + 1:at + 4]] == ["[", "]", "="]:
            return literals(stream[at + 4:at + 4 + 20])[:1]
    return []


def normal(text):
    """Values of any kind look the same, line ends are left out."""
    return re.sub(r"<[^<>]*>", "<>", CONVERSION.sub("<>", text)).strip()


def relay_ends(stream):
    """(reason, code, log) of each record that says why a relay ends."""
    for at, (_, text, _) in enumerate(stream):
        if text != "{" or [t[1] for t in stream[at + 1:at + 2]] != ["."]:
            continue
        fields = {plain(a[:2])[1:]: a[3:] for a in arguments(stream, at) if len(a) > 3}
        if "reason" in fields:
            code = plain(fields["code"]) if "code" in fields else None
            yield literals(fields["reason"])[0], code, plain(fields.get("log", []))


def log_texts(stream, parts):
    """The texts that one call of log_message can write."""
    texts = literals(parts[1])
    value = plain(parts[2]) if len(parts) > 2 else ""
    if value == "end.reason":  # a relay's, alone or with the system's reason behind it
        shown = {"%s": "EndLog::PLAIN", "%s: %s": "EndLog::WITH_ERROR"}[texts[0]]
        return [texts[0].replace("%s", reason, 1)
                for reason, _, log in relay_ends(stream) if log == shown]
    if texts != ["%s"]:
        return texts
    if literals(parts[2]):
        return literals(parts[2])
    if value == "line":  # handed over by those who set a flag
        return [text for _, p in calls(stream, "set_flag") for text in literals(p[2])]
    if value == "message":  # composed before, by a format that is a constant
        return [text for _, p in calls(stream, "snprintf") if plain(p[0]) == value
                for text in constant(stream, plain(p[2]))]
    return []


def error_code(expression):
    if expression in CODES:
        return CODES[expression]
    if re.fullmatch(r"-?\d+", expression):
        return expression
    return "system"  # a variable that holds the system's error


def stream_errors(stream, parts):
    """(code, reason) of one report of a stream's error."""
    if plain(parts[2]) == "end.reason":
        # Without a code of its own a relay's end has that of the failed call, but for the one that
        # is no failure at all.
        return [(error_code("0" if log == "EndLog::SCORE" else code or "errno"), reason)
                for reason, code, log in relay_ends(stream)]
    if plain(parts[2]).startswith("strerror("):
        return [("system", "%s")]
    texts = literals(parts[2]) or constant(stream, plain(parts[2]))
    return [(error_code(plain(parts[1])), text) for text in texts]


def source_rows(path, rows):
    """Adds what one source file can write to `rows`: row to the place it was found."""
    name = path.relative_to(ROOT)
    folder = name.parts[1]
    stream = list(tokens(path.read_text()))

    def add(line, section, found):
        if not found:
            raise Unknown(f"{name}:{line}: cannot tell what this call writes")
        for kind, text in found:
            rows.setdefault((section, kind, normal(text)), (f"{name}:{line}", text))

    for line, parts in calls(stream, "log_message"):
        level = plain(parts[0])
        if level.startswith("LOG_"):
            level = level.removeprefix("LOG_")
            add(line, folder, [(level, text) for text in log_texts(stream, parts)])
        elif not level.startswith("LogLevel"):  # which is the operation itself
            raise Unknown(f"{name}:{line}: cannot tell the level of this line")
    for operation in ("stream_report_error", "monitor_update_error"):
        for line, parts in calls(stream, operation):
            # Neither the operations themselves, nor the one that hands on to the other.
            if plain(parts[2]) not in ("message", "constchar*message"):
                add(line, REASONS, stream_errors(stream, parts))


def document_rows(text):
    """Rows of the tables: their first cell is the level or code, the code spans of the second the
    lines. The folder stands in the heading, `src/core`, say."""
    rows, section = {}, None
    for number, line in enumerate(text.splitlines(), 1):
        if line.startswith("#"):
            heading = re.search(r"`src/(\w+)`", line)
            section = heading[1] if heading else REASONS if REASONS in line.lower() else None
            continue
        cells = [cell.strip() for cell in re.split(r"(?<!\\)\|", line)]
        if section is None or len(cells) < 5:
            continue
        for text_of_line in re.findall(r"`([^`]+)`", cells[2]):
            row = (section, cells[1], normal(text_of_line))
            if row in rows:
                raise Unknown(f"{DOCUMENT.name}:{number}: twice: {text_of_line}")
            rows[row] = (f"docs/{DOCUMENT.name}:{number}", text_of_line)
    return rows


def main():
    in_sources = {}
    for path in sorted((ROOT / "src").glob("*/*.cc")):
        source_rows(path, in_sources)
    if sys.argv[1:] == ["--list"]:
        for (section, kind, _), (_, text) in in_sources.items():
            print(f"{section} | {kind} | `{text.strip()}`")
        return 0
    in_document = document_rows(DOCUMENT.read_text())
    for row in sorted(in_sources.keys() - in_document.keys()):
        place, text = in_sources[row]
        print(f"{place}: not in docs/{DOCUMENT.name}: {row[0]} | {row[1]} | {text}", file=sys.stderr)
    for row in sorted(in_document.keys() - in_sources.keys()):
        place, text = in_document[row]
        print(f"{place}: not in the sources: {row[0]} | {row[1]} | {text}", file=sys.stderr)
    if in_sources.keys() != in_document.keys():
        return 1
    reasons = sum(row[0] == REASONS for row in in_sources)
    print(f"log lines: {len(in_sources) - reasons} texts and {reasons} reasons are documented")
    return 0


if __name__ == "__main__":
    try:
        sys.exit(main())
    except Unknown as problem:
        sys.exit(str(problem))
