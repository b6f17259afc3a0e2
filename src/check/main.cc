// camera-agent-check: what the agent makes of its options, and what a person would want to know
// before starting it. Made of the agent's own functions, so that the two cannot disagree; it starts
// no thread, registers nothing, and writes nothing but its report.
#include <fcntl.h>
#include <signal.h>
#include <stdio.h>
#include <string.h>
#include <unistd.h>

#include <array>
#include <span>
#include <string_view>

#include "check/agent_log.h"
#include "check/arguments.h"
#include "check/connect.h"
#include "check/report.h"
#include "check/settings.h"
#include "check/streams.h"
#include "core/config.h"
#include "core/context.h"
#include "core/text.h"
#include "core/usage.h"
#include "core/workers.h"

static constexpr int CANNOT_WORK = 2;  // exit status

static constexpr char USAGE[] =
    "Usage: camera-agent-check [--connect] OPTIONS OF camera-agent\n"
    "Says what the agent would make of its options, and what is wrong with them.\n"
    "\n"
    "  --connect             Ask balancer, cloud and each camera as the agent would\n"
    "\n"
    "Exit status: 0 fine, 1 warnings, 2 it cannot work. Of the agent:\n"
    "\n";

static bool is_one_of(const char *argument, std::string_view letter, std::string_view word) {
  return argument == letter || argument == word;
}

// Takes --connect, which the agent does not know, out of the arguments.
static bool take_connect(int *argc, char **argv) {
  int kept = 1;
  for (int i = 1; i < *argc; i++) {
    if (strcmp(argv[i], "--connect") != 0) argv[kept++] = argv[i];
  }
  const bool taken = kept < *argc;
  argv[kept] = nullptr;
  *argc = kept;
  return taken;
}

static void show_streams(std::span<const CheckedStream> streams) {
  report_section("Streams");
  for (const CheckedStream &stream : streams) {
    report_listed(stream.record->stream_id, Masked(stream.url).text);
  }
}

// Of a configuration that the agent takes. False without memory.
static bool check_all(int argc, char **argv, const AgentConfig &config, bool connect) {
  std::array<CheckedStream, MAX_STREAMS> all;
  const std::span streams(all.data(), config.stream_count);
  proxy_context.config = config;
  proxy_context.config.status_file_enabled = 0;  // the monitor must not touch it
  proxy_context.running = true;
  if (!prepare_streams(config, streams)) return false;

  show_streams(streams);
  report_section("Settings");
  show_settings(config, given_options(argc, argv));
  bool stored_id = false;
  if (!check_files(&stored_id)) return false;
  check_arguments(argc, argv, config);
  check_streams(streams);
  if (connect) {
    report_section("Answers");
    ask_everybody(streams, stored_id);
  }
  return true;
}

int main(int argc, char **argv) {
  // A socket that got the number of standard output would get the report.
  if (fcntl(STDOUT_FILENO, F_GETFD) < 0 || fcntl(STDERR_FILENO, F_GETFD) < 0) return CANNOT_WORK;
  if (argc == 2 && is_one_of(argv[1], "-h", "--help")) {
    fputs(USAGE, stderr);
    print_usage("camera-agent");
    return 0;
  }
  if (argc == 2 && is_one_of(argv[1], "-V", "--version")) {
    print_version();
    return 0;
  }
  signal(SIGPIPE, SIG_IGN);
  context_reset();
  workers_open();

  const bool connect = take_connect(&argc, argv);
  AgentConfig config = {};
  if (!config_load(argc, argv, &config)) {
    const Text reason = text_copy(agent_failure());
    report_refusal(reason ? reason.get() : "");
    check_arguments(argc, argv, config);
  } else if (!check_all(argc, argv, config, connect)) {
    report(Level::ERROR, "memory", "there is not enough of it even to check");
  }
  return report_summary(connect ? "Everything is fine."
                                : "Fine as it stands; --connect asks balancer, cloud and cameras.");
}
