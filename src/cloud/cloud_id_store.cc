#include "cloud/cloud_id_store.h"

#include <errno.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>

#include <string_view>

#include "core/context.h"
#include "core/log.h"
#include "core/text.h"

static constexpr size_t LINE_MAX_LENGTH = 128;  // bytes of the first line that are looked at
static constexpr size_t ID_MIN_LENGTH = 8;
static constexpr size_t ID_MAX_LENGTH = 50;

static Text compose_path() {
  const char *directory = proxy_context.config.config_dir;
  const size_t size = strlen(directory) + sizeof "/" - 1 + sizeof CLOUD_ID_FILE;
  Text path(static_cast<char *>(malloc(size)));
  if (!path) {
    log_message(LOG_ERROR, "Failed to allocate memory for filepath");
    return nullptr;
  }
  snprintf(path.get(), size, "%s/%s", directory, CLOUD_ID_FILE);
  return path;
}

// Opening a directory for reading succeeds and only reading it fails, so look before reading.
static File open_for_reading(const char *path) {
  File file(fopen(path, "re"));
  struct stat status = {};
  if (file && fstat(fileno(file.get()), &status) == 0 && S_ISDIR(status.st_mode)) {
    file = nullptr;
    errno = EISDIR;
  }
  if (!file && errno != ENOENT) {
    log_message(LOG_ERROR, "Failed to open %s: %s", path, strerror(errno));
  }
  return file;
}

static bool is_white_space(char c) {
  return c == ' ' || c == '\t' || c == '\n' || c == '\r' || c == '\v' || c == '\f';
}

static std::string_view trim(std::string_view text) {
  while (!text.empty() && is_white_space(text.back()))
    text.remove_suffix(1);
  while (!text.empty() && is_white_space(text.front()))
    text.remove_prefix(1);
  return text;
}

// The first line, cut to LINE_MAX_LENGTH bytes; none for an empty file (not logged) or a failure.
static Text read_first_line(FILE *file, const char *path) {
  Text line(static_cast<char *>(malloc(LINE_MAX_LENGTH + 1)));
  if (!line) {
    log_message(LOG_ERROR, "Failed to allocate buffer for reading cloud ID");
    return nullptr;
  }
  if (fgets(line.get(), LINE_MAX_LENGTH + 1, file)) return line;
  if (ferror(file)) log_message(LOG_ERROR, "Error reading from %s: %s", path, strerror(errno));
  return nullptr;
}

bool read_cloud_id_file(Text *id) {
  if (!id || !proxy_context.config.config_dir) {
    log_message(LOG_ERROR, "Invalid parameters for filesystem cloud ID lookup");
    return false;
  }
  *id = nullptr;
  const Text path = compose_path();
  if (!path) return false;
  const File file = open_for_reading(path.get());
  if (!file) return false;
  const Text line = read_first_line(file.get(), path.get());
  if (!line) return false;

  const std::string_view stored = trim(line.get());
  if (stored.size() < ID_MIN_LENGTH || stored.size() > ID_MAX_LENGTH) {
    log_message(LOG_ERROR, "Invalid cloud ID length in %s", path.get());
    return false;
  }
  *id = text_copy(stored);
  if (!*id) {
    log_message(LOG_ERROR, "Failed to allocate memory for cloud ID");
    return false;
  }
  log_message(LOG_DEBUG, "Read cloud ID from %s", path.get());
  return true;
}

bool save_cloud_id_file(const char *id) {
  if (!id || !proxy_context.config.config_dir) {
    log_message(LOG_ERROR, "Invalid parameters for filesystem cloud ID save");
    return false;
  }
  const Text path = compose_path();
  if (!path) return false;
  const File file(fopen(path.get(), "we"));
  if (!file) {
    log_message(LOG_ERROR, "Failed to open %s for writing: %s", path.get(), strerror(errno));
    return false;
  }
  if (fprintf(file.get(), "%s\n", id) < 0) {
    log_message(LOG_ERROR, "Failed to write cloud ID to %s: %s", path.get(), strerror(errno));
    return false;
  }
  if (fflush(file.get()) != 0) {
    log_message(LOG_ERROR, "Failed to flush cloud ID to %s: %s", path.get(), strerror(errno));
    return false;
  }
  log_message(LOG_DEBUG, "Saved cloud ID to %s", path.get());
  return true;
}
