#include "support/agent_test.h"

using Config = AgentTest;

static constexpr char STARTED[] =
    "[INFO ] Agent version: local_build, starting...\n[INFO ] Debug mode enabled\n";

// The flags are those of debug, groups, http, legacy page, required login and status file.
static std::string described(const AgentConfig &config) {
  std::ostringstream text;
  text << config.config_dir << " " << config.vendor << " " << config.model << " "
       << config.http_port << " " << int{config.debug} << int{config.group_streams}
       << int{config.http_enabled} << int{config.legacy_add} << int{config.require_auth}
       << int{config.status_file_enabled};
  if (config.status_file_path) text << config.status_file_path;
  for (size_t i = 0; i < config.stream_count; i++)
    text << " " << config.stream_urls[i];
  return text.str();
}

// Later values win, arguments that are no options are ignored, "/" becomes the empty text. A -d
// that is the value of an option switches debug mode on all the same, a grouped one does not.
TEST_F(Config, ArgumentsFillTheRecord) {
  for (const auto &[arguments, expected] : rows(R"(
-c /c -s h:1 -v v -m m -> /c v m 8282 001000 h:1
-d -c/c -sh:1/{1-2} -vv -mm -> /c v m 8282 101000 h:1/1 h:1/2
--config=/c// --stream=h --vendor=%s --model %n --http-port=70000 -> /c/ %s %n 4464 001000 h:554
--no-http --group-streams --legacy-add --require-auth --status-file=/s -vv -mm -c. -sh:1 -> . v m 8282 010111/s h:1
x -c /a -c / -s h:1 -v a -v v -m a -m m -p 1 -p 65535x -f /s -f /t y ->  v m 65535 001001/t h:1
-v -d -c /c -s h:1 -mm -> /c -d m 8282 101000 h:1
-dgnlr -c '' -s h:1 -v '' -m '' -p abc -f '' ->    0 010111 h:1
)")) {
    AgentConfig config;
    ASSERT_TRUE(load_arguments(arguments, &config)) << arguments;
    EXPECT_EQ(described(config), expected) << arguments;
    config_free(&config);
  }
}

TEST_F(Config, BadArgumentsLeaveAnEmptyRecord) {
  std::string many;
  for (size_t i = 0; i <= MAX_STREAMS; i++)
    many += " -sh:1";
  AgentConfig config;
  ASSERT_TRUE(load_arguments("-c/ -vv -mm" + many.substr(sizeof " -sh:1" - 1), &config));
  config_free(&config);
  log.take();
  std::vector<Row> table = rows(R"(
-sx -vv -> [ERROR] Missing required parameter: config
-c/ -mm -> [ERROR] Missing required parameter: stream
-sx -c. -> [ERROR] Missing required parameter: vendor
-sx -vv -c. -> [ERROR] Missing required parameter: model
-gnlr -p 7x -f /s --status-file /s -> [INFO ] Stream pairing enabled
[INFO ] Http server disabled
[INFO ] Legacy Add Camera page enabled
[INFO ] Device credentials will be required for cloud registration
[INFO ] Http server port set to: 7x
[INFO ] Status file enabled, path: /s
[ERROR] Missing path for status file
-x -> agent: invalid option -- 'x'
-c -> agent: option requires an argument -- 'c'
--debug=1 -> agent: option '--debug' doesn't allow an argument
--ve -> agent: option '--ve' is ambiguous; possibilities: '--vendor' '--version'
--h -> agent: option '--h' is ambiguous; possibilities: '--http-port' '--help'
)");
  table.push_back({many, "[ERROR] Maximum number of streams exceeded"});
  for (const auto &[arguments, expected] : table) {
    EXPECT_FALSE(load_arguments("-d " + arguments, &config)) << arguments;
    const std::string lines =
        std::regex_replace(log.take(), std::regex("\\[DEBUG\\] .* set to: .*\n"), "");
    EXPECT_EQ(lines, STARTED + expected + "\n[DEBUG] Freeing configuration resources") << arguments;
  }
}
