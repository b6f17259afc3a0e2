#include "check/settings.h"

#include <errno.h>
#include <limits.h>
#include <stdio.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include "check/agent_log.h"
#include "check/report.h"
#include "check/streams.h"
#include "cloud/balancer_reply.h"
#include "cloud/cloud_id.h"
#include "cloud/cloud_id_store.h"
#include "core/context.h"
#include "core/text.h"

// The word behind a value that nobody has given.
static const char *origin(const Given &given, char letter) {
  return given.has(letter) ? "" : " (default)";
}

static void show_flag(const char *name, const Given &given, char letter, const char *set,
                      const char *unset) {
  report_setting(name, "%s%s", given.has(letter) ? set : unset, origin(given, letter));
}

void show_settings(const AgentConfig &config, const Given &given) {
  report_setting("vendor, model", "%.60s, %.60s", config.vendor, config.model);
  report_setting("configuration directory", "%s/", config.config_dir);
  report_setting("balancer", "%s:%d (built in)", config.api_server, int{config.api_port});
  if (config.http_enabled) {
    report_setting("pages", "port %d of all addresses%s", int{config.http_port},
                   origin(given, 'p'));
  } else {
    report_setting("pages", "none");
  }
  show_flag("add-account page", given, 'l', "a form on the device", "a redirect to the cloud");
  show_flag("  asks for the login", given, 'r', "yes", "no");
  show_flag("streams in pairs", given, 'g', "yes", "no");
  report_setting("status file", "%s%s", config.status_file_path ? config.status_file_path : "none",
                 origin(given, 'f'));
  report_setting("log", "%s", config.debug ? "on standard error, with passwords" : "off (default)");
}

// --- Files ---------------------------------------------------------------------------------------

// Why the agent could not write the file, or make it; 0 when it could. By the rights of whoever
// runs this.
static int writing_obstacle(const char *path) {
  struct stat status = {};
  if (stat(path, &status) == 0) {
    if (S_ISDIR(status.st_mode)) return EISDIR;
    return access(path, W_OK) == 0 ? 0 : errno;
  }
  if (errno != ENOENT) return errno;
  char folder[PATH_MAX];
  text_copy_to(folder, sizeof folder, path);
  char *slash = strrchr(folder, '/');
  if (slash) slash[slash == folder ? 1 : 0] = '\0';
  return access(slash ? folder : ".", W_OK | X_OK) == 0 ? 0 : errno;
}

static void check_status_file(const AgentConfig &config) {
  if (!config.status_file_path) return;
  const int obstacle = writing_obstacle(config.status_file_path);
  if (obstacle == 0) return;
  report(Level::WARNING, "status file",
         "%s cannot be written (%s), and the agent runs without it; "
         "choose a writable directory",
         config.status_file_path, strerror(obstacle));
}

// By the balancer's own rule, which the stored file is not held to.
static bool is_issued_id(const char *id) {
  char message[CLOUD_ID_MAX_LENGTH + sizeof "\"message\":\"\""];
  const int length = snprintf(message, sizeof message, "\"message\":\"%s\"", id);
  Text again;
  return extract_message_id(message, static_cast<size_t>(length), &again) &&
         strcmp(again.get(), id) == 0;
}

static void check_new_id_file(const char *path) {
  if (access(path, F_OK) == 0) {
    const char *reason = agent_failure()[0] == '\0' ? "it is empty" : agent_failure();
    report(Level::WARNING, "cloud ID",
           "%s holds none (%s): the device gets a new identity at the "
           "next start; restore the file, or remove it",
           path, reason);
  }
  const int obstacle = writing_obstacle(path);
  if (obstacle == 0) return;
  report(Level::ERROR, "directory",
         "%s cannot be written (%s), and without a stored ID the agent "
         "does not start; make the directory, writable for its user",
         path, strerror(obstacle));
}

bool check_files(bool *stored) {
  const AgentConfig &config = proxy_context.config;
  char path[PATH_MAX];
  snprintf(path, sizeof path, "%s/%s", config.config_dir, CLOUD_ID_FILE);
  Text id;
  agent_log_clear();
  *stored = read_cloud_id_file(&id);
  if (*stored) {
    report_setting("cloud ID", "%s (stored)", id.get());
  } else {
    report_setting("cloud ID", "none stored: the balancer issues one at the start");
  }
  report_section("Findings");
  if (!*stored) {
    check_new_id_file(path);
  } else if (!is_issued_id(id.get())) {
    report(Level::WARNING, "cloud ID",
           "\"%s\" in %s is none that a balancer issues (letters, "
           "digits, \"_\", \"-\"), and yet used; restore the file, or "
           "remove it for a new ID",
           id.get(), path);
  }
  check_status_file(config);
  if (breaks_registration(config.vendor) || breaks_registration(config.model)) {
    report(Level::WARNING, "vendor, model",
           "a quote, backslash or control character: the "
           "registration, which has it as it is, cannot be read; "
           "do without it");
  }
  char longest[CLOUD_ID_MAX_LENGTH + 1];
  memset(longest, 'x', CLOUD_ID_MAX_LENGTH);
  longest[CLOUD_ID_MAX_LENGTH] = '\0';
  return text_assign(&proxy_context.config.cloud_id, *stored ? id.get() : longest);
}
