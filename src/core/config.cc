#include "core/config.h"

#include <getopt.h>
#include <stdio.h>
#include <stdlib.h>

#include <string_view>

#include "core/deployment.h"
#include "core/log.h"
#include "core/options.h"
#include "core/stream_urls.h"
#include "core/text.h"
#include "core/text_list.h"
#include "core/usage.h"

static constexpr uint16_t DEFAULT_API_PORT = 8111;
static constexpr uint16_t DEFAULT_HTTP_PORT = 8282;

// Logging has to be on before the first option is parsed, or the lines of earlier options would
// be lost; so the arguments are searched for the two exact spellings beforehand.
static void prescan_debug(int argc, char **argv, AgentConfig *config) {
  for (int i = 1; i < argc; i++) {
    const std::string_view argument = argv[i];
    if (argument != "-d" && argument != "--debug") continue;
    config->debug = 1;
    log_enabled = true;
    log_message(LOG_INFO, "Agent version: %s, starting...", AGENT_VERSION);
    log_message(LOG_INFO, "Debug mode enabled");
    return;
  }
}

static bool set_config_dir(AgentConfig *config, std::string_view directory) {
  // One slash only. A lone "/" becomes the empty text, which serves: paths in it begin with "/".
  if (directory.ends_with('/')) directory.remove_suffix(1);
  if (!text_assign(&config->config_dir, directory)) {
    log_message(LOG_ERROR, "Failed to allocate memory for config path");
    return false;
  }
  log_message(LOG_DEBUG, "Config directory set to: %s", config->config_dir);
  return true;
}

// Empty texts are as good as others: whether a value was given is what counts.
static bool set_vendor(AgentConfig *config, const char *vendor) {
  if (!text_assign(&config->vendor, vendor)) {
    log_message(LOG_ERROR, "Failed to allocate memory for vendor");
    return false;
  }
  log_message(LOG_DEBUG, "Vendor set to: %s", config->vendor);
  return true;
}

static bool set_model(AgentConfig *config, const char *model) {
  if (!text_assign(&config->model, model)) {
    log_message(LOG_ERROR, "Failed to allocate memory for model");
    return false;
  }
  log_message(LOG_DEBUG, "Model set to: %s", config->model);
  return true;
}

// The long form may come without a path: an optional argument must be attached with "=".
static bool set_status_file(AgentConfig *config, const char *path) {
  if (!path) {
    log_message(LOG_ERROR, "Missing path for status file");
    return false;
  }
  if (!text_assign(&config->status_file_path, path)) {
    log_message(LOG_ERROR, "Failed to allocate memory for status file path");
    return false;
  }
  config->status_file_enabled = 1;
  log_message(LOG_INFO, "Status file enabled, path: %s", config->status_file_path);
  return true;
}

// Nothing is validated: the low 16 bits of whatever number stands there, 0 without one.
static bool set_http_port(AgentConfig *config, const char *port) {
  config->http_port = static_cast<uint16_t>(text_to_int(port));
  log_message(LOG_INFO, "Http server port set to: %s", port);
  return true;
}

static bool add_stream_option(TextList *options, const char *url) {
  if (options->full()) {
    log_message(LOG_ERROR, "Maximum number of streams exceeded");
    return false;
  }
  if (!options->append(text_copy(url))) {
    log_message(LOG_ERROR, "Failed to copy stream URL");
    return false;
  }
  return true;
}

// Sets the flag and says so.
static bool set_flag(uint8_t *flag, uint8_t value, const char *line) {
  *flag = value;
  log_message(LOG_INFO, "%s", line);
  return true;
}

// One option; false ends loading as a failure, as -h and -V do on purpose.
static bool apply_option(AgentConfig *config, TextList *options, int letter, const char *value,
                         const char *program_name) {
  switch (letter) {
    case 'c':
      return set_config_dir(config, value);
    case 's':
      return add_stream_option(options, value);
    case 'v':
      return set_vendor(config, value);
    case 'm':
      return set_model(config, value);
    case 'd':
      return true;  // taken from the pre-scan
    case 'g':
      return set_flag(&config->group_streams, 1, "Stream pairing enabled");
    case 'l':
      return set_flag(&config->legacy_add, 1, "Legacy Add Camera page enabled");
    case 'n':
      return set_flag(&config->http_enabled, 0, "Http server disabled");
    case 'p':
      return set_http_port(config, value);
    case 'r':
      return set_flag(&config->require_auth, 1,
                      "Device credentials will be required for cloud registration");
    case 'V':
      print_version();
      return false;
    case 'h':
      print_usage(program_name);
      return false;
    case 'f':
      return set_status_file(config, value);
    default:
      return false;  // the parser has printed its diagnostic
  }
}

// Arguments that are no options are passed over. Given twice, an option keeps its last value, but
// for -s, of which each adds a stream.
static bool parse_options(int argc, char **argv, AgentConfig *config, TextList *options) {
  optind = 1;
  for (;;) {
    const int letter = getopt_long(argc, argv, SHORT_OPTIONS, LONG_OPTIONS, nullptr);
    if (letter == -1) return true;
    if (!apply_option(config, options, letter, optarg, argv[0])) return false;
  }
}

// Only the first that is missing is named, in this order.
static bool check_required(const AgentConfig &config, const TextList &options) {
  const char *missing = !config.config_dir     ? "config"
                        : options.count() == 0 ? "stream"
                        : !config.vendor       ? "vendor"
                        : !config.model        ? "model"
                                               : nullptr;
  if (missing) log_message(LOG_ERROR, "Missing required parameter: %s", missing);
  return !missing;
}

// The record gets the options as they are, before process_stream_urls replaces them by the final
// list.
static bool store_stream_options(AgentConfig *config, const TextList &options) {
  TextList copies;
  if (!copies.reserve(MAX_STREAMS)) {
    log_message(LOG_ERROR, "Memory allocation failed for stream URLs");
    return false;
  }
  for (size_t i = 0; i < options.count(); i++) {
    if (!copies.append(text_copy(options.at(i)))) {
      log_message(LOG_ERROR, "Failed to duplicate stream URL");
      return false;
    }
  }
  config->stream_count = copies.count();
  config->stream_urls = copies.release();
  return true;
}

static bool load_options(int argc, char **argv, AgentConfig *config, TextList *options) {
  return parse_options(argc, argv, config, options) && check_required(*config, *options) &&
         store_stream_options(config, *options) && process_stream_urls(config, options);
}

// A failure below has logged its own reason; the record is released here, so that a caller has
// nothing to clean up.
bool config_load(int argc, char **argv, AgentConfig *config) {
  *config = {};
  config->api_port = DEFAULT_API_PORT;
  config->http_port = DEFAULT_HTTP_PORT;
  config->http_enabled = 1;
  prescan_debug(argc, argv, config);

  if (!text_assign(&config->api_server, BALANCER_ADDRESS)) {
    log_message(LOG_ERROR, "Memory allocation failed for API server");
    return false;
  }

  TextList options;
  if (!options.reserve(MAX_STREAMS)) {
    log_message(LOG_ERROR, "Failed to allocate temporary streams array");
    // By hand: config_free would write its line, which belongs to a record that was being filled.
    text_release(&config->api_server);
    return false;
  }
  if (!load_options(argc, argv, config, &options)) {
    config_free(config);
    return false;
  }
  // Counts the options, not the streams that they have become.
  log_message(LOG_INFO, "Configuration loaded successfully with %zu stream(s)", options.count());
  return true;
}

void config_free(AgentConfig *config) {
  if (!config) return;
  log_message(LOG_DEBUG, "Freeing configuration resources");
  text_release(&config->vendor);
  text_release(&config->model);
  text_release(&config->config_dir);
  text_release(&config->api_server);
  text_release(&config->cloud_id);
  text_release(&config->status_file_path);
  if (config->stream_urls) {
    for (size_t i = 0; i < config->stream_count; i++)
      text_release(&config->stream_urls[i]);
    free(config->stream_urls);
  }
  *config = {};
}
