#include "check/arguments.h"

#include <stdio.h>
#include <string.h>

#include "check/report.h"
#include "core/options.h"
#include "core/text.h"

static constexpr size_t OPTION_SIZE = 3;  // bytes: "-c" and the terminator

// What to do about a refusal, by the beginning of the agent's words.
struct Advice {
  std::string_view reason;
  const char *text;
};
static constexpr Advice ADVICE[] = {
    {"Missing required parameter", "-c, -s, -v and -m are all required"},
    {"Missing path for status file", "write --status-file=PATH, with the \"=\", or -f PATH"},
    {"Maximum number of streams", "at most 64 -s"},
    {"Invalid expansion range", "a range may stand for 64 channels at most"},
    {"Total stream count", "start a second agent, with a directory of its own, for the rest"},
    {"Mismatched expansions", "with -g both of a pair need a range, and as many channels in it"},
};

void report_refusal(const char *reason) {
  if (reason[0] == '\0') {
    report(Level::ERROR, "options",
           "refused, or -h or -V among them: the agent ends with status 1");
    return;
  }
  const char *advice = "the agent ends with status 1";
  for (const Advice &row : ADVICE) {
    if (std::string_view(reason).starts_with(row.reason)) advice = row.text;
  }
  report(Level::ERROR, "options", "%s: %s", Masked(reason).text, advice);
}

static void check_value(const char *option, const char *value) {
  if (value[0] == '=') {
    report(Level::WARNING, option, "its value is \"%s\": \"=\" is for the long form only",
           Masked(value).text);
  } else if (value[0] == '-') {
    report(Level::WARNING, option,
           "its value is \"%s\", by the looks an option: is a value missing?", Masked(value).text);
  }
}

static void check_pages_port(const char *text, uint16_t port) {
  char as_used[sizeof "65535"];
  snprintf(as_used, sizeof as_used, "%u", unsigned{port});
  if (port != 0 && strcmp(text, as_used) == 0) return;
  report(Level::WARNING, "-p",
         "\"%s\" is no port from 1 to 65535, and the agent takes %s; write the number, or -n for"
         " no pages",
         text, port == 0 ? "any that is free" : as_used);
}

// These keep their last value.
static void check_repeated(const Given &given) {
  for (const char letter : {'c', 'v', 'm', 'p', 'f'}) {
    const char option[OPTION_SIZE] = {'-', letter, '\0'};
    if (given.times[static_cast<unsigned char>(letter)] < 2) continue;
    report(Level::WARNING, option, "given more than once: the last one counts; remove the others");
  }
}

// From the very start, also of an argument in which the agent gave up.
static void restart_parser() {
  optind = 0;
  opterr = 0;
}

static int next_option(int argc, char **argv) {
  return getopt_long(argc, argv, SHORT_OPTIONS, LONG_OPTIONS, nullptr);
}

Given given_options(int argc, char **argv) {
  Given given = {};
  restart_parser();
  for (int letter = next_option(argc, argv); letter != -1; letter = next_option(argc, argv)) {
    unsigned char &times = given.times[static_cast<unsigned char>(letter)];
    if (times < 2) times++;
  }
  return given;
}

static void check_values(int argc, char **argv, const char **port) {
  restart_parser();
  for (int letter = next_option(argc, argv); letter != -1; letter = next_option(argc, argv)) {
    if (letter == 'p') {
      *port = optarg;
    } else if (letter != '?' && optarg) {
      const char option[OPTION_SIZE] = {'-', static_cast<char>(letter), '\0'};
      check_value(option, optarg);
    }
  }
  for (; optind < argc; optind++) {
    report(Level::WARNING, "arguments", "\"%s\" is ignored: no option, nor the value of one",
           Masked(argv[optind]).text);
  }
}

void check_arguments(int argc, char **argv, const AgentConfig &config) {
  const char *port = nullptr;
  check_values(argc, argv, &port);
  if (!config.config_dir) return;  // refused: the rest compares with the record
  const Given given = given_options(argc, argv);
  check_repeated(given);
  if (port) check_pages_port(port, config.http_port);
  if (given.has('d') && !config.debug) {
    report(Level::WARNING, "-d",
           "does not switch the log on here: write -d or --debug as an argument of its own");
  }
}
