// A command line, one argument in each part: a record that can be used, or an empty one.
#include <getopt.h>

#include "target.h"

void fuzz(Parts parts) {
  std::vector<char *> argv;
  parts.emplace_front("agent");
  for (std::string &part : parts)
    argv.push_back(part.data());
  argv.push_back(nullptr);
  // A process loads once; the parser would go on in the middle of an argument that it refused.
  optind = 0;
  getopt(1, &argv[parts.size() - 1], "");
  AgentConfig config;
  const bool loaded = config_load(static_cast<int>(parts.size()), argv.data(), &config);
  REQUIRE(loaded == (config.config_dir && config.vendor && config.model && config.api_server));
  REQUIRE(loaded == (config.stream_count > 0) && config.stream_count <= MAX_STREAMS);
  REQUIRE(!config.status_file_enabled == !config.status_file_path);
  for (size_t i = 0; i < config.stream_count; i++)
    REQUIRE(strlen(config.stream_urls[i]) > 0);
  config_free(&config);
}
