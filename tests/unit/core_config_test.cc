#include "core/config.h"

#include <string.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "core/usage.h"
#include "support/agent_test.h"
#include "support/fault.h"

using Config = AgentTest;
using Arguments = std::vector<std::string>;

static constexpr char STARTED[] =
    "[INFO ] Agent version: local_build, starting...\n"
    "[INFO ] Debug mode enabled\n";
static constexpr char FREED[] = "[DEBUG] Freeing configuration resources\n";

static bool load(const Arguments &arguments, AgentConfig *config) {
  std::vector<char *> argv = {strdup("agent")};
  for (const std::string &argument : arguments)
    argv.push_back(strdup(argument.c_str()));
  const auto argc = static_cast<int>(argv.size());
  const std::vector<char *> owned = argv;  // the parser changes the order
  argv.push_back(nullptr);
  log_enabled = false;
  // A process loads once; the parser would go on in the middle of an argument that it refused.
  char *no_arguments[] = {owned[0], nullptr};
  optind = 0;
  getopt(1, no_arguments, "");
  const bool loaded = config_load(argc, argv.data(), config);
  for (char *argument : owned)
    free(argument);
  return loaded;
}

static std::string text_of(const char *text) {
  return text ? text : "none";
}

static std::string described(const AgentConfig &config) {
  std::string text = text_of(config.config_dir) + " " + text_of(config.vendor) + " " +
                     text_of(config.model) + " " + std::to_string(config.http_port) + " ";
  for (const auto &[letter, set] :
       {std::pair{'d', config.debug}, std::pair{'g', config.group_streams},
        std::pair{'h', config.http_enabled}, std::pair{'l', config.legacy_add},
        std::pair{'r', config.require_auth}, std::pair{'f', config.status_file_enabled}}) {
    if (set == 1) text += letter;
  }
  text += " " + text_of(config.status_file_path);
  for (size_t i = 0; i < config.stream_count; i++)
    text += " " + std::string(config.stream_urls[i]);
  return text;
}

static bool owns_nothing(const AgentConfig &config) {
  return !config.api_server && !config.vendor && !config.model && !config.config_dir &&
         !config.stream_urls && !config.cloud_id && !config.status_file_path &&
         config.stream_count == 0;
}

static bool is_zeroed(const AgentConfig &config) {
  static constexpr AgentConfig EMPTY = {};
  return memcmp(&config, &EMPTY, sizeof config) == 0;
}

TEST_F(Config, ArgumentsFillTheRecord) {
  struct Case {
    Arguments arguments;
    std::string expected;
    std::string log;
  };
  const std::string set_c = "[DEBUG] Config directory set to: /c\n";
  const std::string set_v = "[DEBUG] Vendor set to: v\n";
  const std::string set_m = "[DEBUG] Model set to: m\n";
  const std::string loaded = "[INFO ] Configuration loaded successfully with 1 stream(s)\n";
  const std::vector<Case> cases = {
      {{"-c", "/c", "-s", "h:1", "-v", "v", "-m", "m"}, "/c v m 8282 h none h:1", ""},
      {{"-d", "-c/c", "-sh:1/{1-2}", "-vv", "-mm"},
       "/c v m 8282 dh none h:1/1 h:1/2",
       STARTED + set_c + set_v + set_m + loaded},
      {{"--debug", "--config=/etc/dir//", "--stream=h", "--vendor=%s", "--model", "%n", "--no-http",
        "--http-port=70000", "--group-streams", "--legacy-add", "--require-auth",
        "--status-file=/s"},
       "/etc/dir/ %s %n 4464 dglrf /s h:554",
       STARTED + std::string("[DEBUG] Config directory set to: /etc/dir/\n"
                             "[DEBUG] Vendor set to: %s\n"
                             "[DEBUG] Model set to: %n\n"
                             "[INFO ] Http server disabled\n"
                             "[INFO ] Http server port set to: 70000\n"
                             "[INFO ] Stream pairing enabled\n"
                             "[INFO ] Legacy Add Camera page enabled\n"
                             "[INFO ] Device credentials will be required for cloud registration\n"
                             "[INFO ] Status file enabled, path: /s\n"
                             "[INFO ] No port specified in stream address, assuming default 554\n"
                             "[INFO ] Configuration loaded successfully with 1 stream(s)\n")},
      // Later values win, arguments that are no options are ignored, "/" becomes the empty text.
      {{"x", "-c", "/a", "-c", "/", "-s", "h:1",     "-v", "a",  "-v", "v",  "-m",
        "a", "-m", "m",  "-p", "1", "-p", " 65535x", "-f", "/s", "-f", "/t", "y"},
       " v m 65535 hf /t h:1",
       ""},
      // The value of an option switches debug mode on all the same; a grouped -d does not.
      {{"-v", "-d", "-c", "/c", "-s", "h:1", "-mm"},
       "/c -d m 8282 dh none h:1",
       STARTED + std::string("[DEBUG] Vendor set to: -d\n") + set_c + set_m + loaded},
      {{"-dgnlr", "-c", "", "-s", "h:1", "-v", "", "-m", "", "-p", "abc", "-f", ""},
       "   0 glrf  h:1",
       ""},
  };
  for (const Case &c : cases) {
    AgentConfig config;
    ASSERT_TRUE(load(c.arguments, &config)) << c.expected;
    EXPECT_EQ(described(config), c.expected);
    EXPECT_EQ(log.take(), c.log);
    EXPECT_STREQ(config.api_server, "127.0.0.1");
    EXPECT_EQ(config.api_port, 8111);
    EXPECT_EQ(config.cloud_id, nullptr);
    config_free(&config);
    EXPECT_TRUE(is_zeroed(config));
    log.take();
  }
  config_free(nullptr);
  EXPECT_EQ(log.take(), "");
}

TEST_F(Config, BadArgumentsLeaveAnEmptyRecord) {
  struct Case {
    Arguments arguments;
    std::string log;  // between the lines of debug mode and of the release
  };
  Arguments many = {"-c/", "-vv", "-mm"};
  many.insert(many.end(), MAX_STREAMS, "-sh:1");
  AgentConfig full;
  ASSERT_TRUE(load(many, &full));
  EXPECT_EQ(full.stream_count, MAX_STREAMS);
  config_free(&full);
  const std::string applied =
      "[DEBUG] Config directory set to: \n"
      "[DEBUG] Vendor set to: v\n"
      "[DEBUG] Model set to: m\n";
  many.emplace_back("--stream=h:1");
  const std::vector<Case> cases = {
      {{}, "[ERROR] Missing required parameter: config\n"},
      {{"-sx"}, "[ERROR] Missing required parameter: config\n"},
      {{"-c/"}, "[DEBUG] Config directory set to: \n[ERROR] Missing required parameter: stream\n"},
      {{"-c/", "-sx"},
       "[DEBUG] Config directory set to: \n[ERROR] Missing required parameter: vendor\n"},
      {{"-sx", "-vv", "-c/"},
       "[DEBUG] Vendor set to: v\n[DEBUG] Config directory set to: \n"
       "[ERROR] Missing required parameter: model\n"},
      {many, applied + "[ERROR] Maximum number of streams exceeded\n"},
      {{"-c/", "-vv", "-mm", "-sh:1/{1-65}"},
       applied + "[ERROR] Invalid expansion range 1-65 in URL: h:1/{1-65}\n"},
      {{"-c/", "--status-file", "/s"},
       "[DEBUG] Config directory set to: \n[ERROR] Missing path for status file\n"},
      {{"-n", "-x"}, "[INFO ] Http server disabled\nagent: invalid option -- 'x'\n"},
      {{"-c"}, "agent: option requires an argument -- 'c'\n"},
      {{"--debug=1"}, "agent: option '--debug' doesn't allow an argument\n"},
      {{"--nonsense"}, "agent: unrecognized option '--nonsense'\n"},
  };
  for (const Case &c : cases) {
    Arguments arguments = {"-d"};
    arguments.insert(arguments.end(), c.arguments.begin(), c.arguments.end());
    AgentConfig config;
    EXPECT_FALSE(load(arguments, &config));
    EXPECT_TRUE(is_zeroed(config));
    EXPECT_EQ(log.take(), STARTED + c.log + FREED);
  }
}

TEST_F(Config, HelpAndVersionEndLoading) {
  AgentConfig config;
  EXPECT_FALSE(load({"-r", "-h", "-V"}, &config));
  EXPECT_EQ(log.take(), R"(Usage: agent [OPTIONS]
Required Options:
  -c, --config=DIR      Configuration directory
  -s, --stream=URL      Stream URL (can be specified multiple times)
                        Use {start-end} as placeholder for channel numbers

Optional Options:
  -d, --debug           Enable debug logging
  -f, --status-file[=PATH] Write cloud connection status to file
  -g, --group-streams   Group streams in pairs
  -m, --model=MODEL     Camera model
  -n, --no-http         Disable http server
  -p, --http-port       Http server port
  -l, --legacy-add      Use legacy Add camera page instead of new one
  -r, --require-auth    Require device credentials for cloud registration
  -v, --vendor=VENDOR   Camera vendor name
  -V, --version         Show version information
  -h, --help            Show this help message

Example:
  Basic:    agent -m model -v vendor -c /etc/camera_proxy -s rtsp://192.168.1.64:554/live
  Range:    agent -m model -v vendor -c /etc/camera_proxy -s rtsp://192.168.1.100/cam{1-4}
  Grouped (NVR):  agent -m model -v vendor -r -g -c /etc/camera_proxy -s rtsp://192.168.1.100/cam{1-4} -s rtsp://192.168.1.100/cam{1-4}video
)");

  testing::internal::CaptureStdout();
  EXPECT_FALSE(load({"--debug", "-r", "--version", "-h"}, &config));
  EXPECT_EQ(testing::internal::GetCapturedStdout(), "Version local_build\n");
  EXPECT_EQ(
      log.take(),
      STARTED +
          std::string("[INFO ] Device credentials will be required for cloud registration\n") +
          FREED);
  EXPECT_TRUE(is_zeroed(config));
}

TEST_F(Config, EveryFailedAllocationIsReportedOnceAndLeaksNothing) {
  const Arguments arguments = {"-d",        "-g", "-c", "/c", "-s", "h/{1-2}", "-s",
                               "h:2/{1-2}", "-v", "v",  "-m", "m",  "-f",      "/s"};
  for (const Times times : {Times::ONCE, Times::FROM_THEN_ON}) {
    std::string errors;
    const int failures = fail_each_allocation(times, [&](const Fault &fault) {
      AgentConfig config;
      const bool loaded = load(arguments, &config);
      EXPECT_EQ(loaded, !fault.struck());
      const std::string lines = log.take();
      for (size_t at = lines.find("[ERROR]"); at != std::string::npos;
           at = lines.find("[ERROR]", at + 1))
        errors += lines.substr(at, lines.find('\n', at) + 1 - at);
      EXPECT_EQ(owns_nothing(config), fault.struck());
      config_free(&config);
      log.take();
    });
    EXPECT_EQ(failures, 18);
    EXPECT_EQ(errors,
              "[ERROR] Memory allocation failed for API server\n"
              "[ERROR] Failed to allocate temporary streams array\n"
              "[ERROR] Failed to allocate memory for config path\n"
              "[ERROR] Failed to copy stream URL\n"
              "[ERROR] Failed to copy stream URL\n"
              "[ERROR] Failed to allocate memory for vendor\n"
              "[ERROR] Failed to allocate memory for model\n"
              "[ERROR] Failed to allocate memory for status file path\n"
              "[ERROR] Memory allocation failed for stream URLs\n"
              "[ERROR] Failed to duplicate stream URL\n"
              "[ERROR] Failed to duplicate stream URL\n"
              "[ERROR] Failed to process URL port for stream 0\n"
              "[ERROR] Failed to process URL port for stream 1\n");
  }
}
