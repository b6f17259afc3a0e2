#include "cloud/cloud_id_store.h"

#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <string_view>

#include "cloud/cloud_id.h"
#include "core/context.h"
#include "core/log.h"
#include "core/text.h"

static constexpr size_t LINE_MAX_LENGTH = 128;  // bytes of the first line that are looked at

// A FIFO in the file's place must not hold the start up; a regular file never blocks.
static constexpr int NEVER_WAIT = O_CLOEXEC | O_NOCTTY | O_NONBLOCK;

// "%s/%s": the directory may be the empty text, which stands for the root.
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
  File file = file_open(path, O_RDONLY | NEVER_WAIT, "r");
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

// The characters are not looked at: those of an ID that the balancer issued were, before it was
// stored. False is never fatal, since start-up then asks for a new ID.
bool read_cloud_id_file(Text *id) {
  if (id) *id = nullptr;
  if (!id || !proxy_context.config.config_dir) {
    log_message(LOG_ERROR, "Invalid parameters for filesystem cloud ID lookup");
    return false;
  }
  const Text path = compose_path();
  if (!path) return false;
  const File file = open_for_reading(path.get());
  if (!file) return false;
  const Text line = read_first_line(file.get(), path.get());
  if (!line) return false;

  const std::string_view stored = text_trim(line.get());
  if (!is_cloud_id_length(stored.size())) {
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

// Not every file system can sync everything (a FIFO, or a directory on some): that is no failure.
static bool sync_to_disk(int descriptor) {
  return fsync(descriptor) == 0 || errno == EINVAL || errno == EROFS;
}

// The file's name is on the disk only when its directory is.
static bool sync_directory() {
  const char *directory = proxy_context.config.config_dir;
  const bool is_root = directory[0] == '\0';  // "/" has lost its trailing slash
  const Fd opened(open(is_root ? "/" : directory, O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  if (opened) return sync_to_disk(opened.get());
  sync();  // a directory that may be written to but not read: with everything else
  return true;
}

bool save_cloud_id_file(const char *id) {
  if (!id || !proxy_context.config.config_dir) {
    log_message(LOG_ERROR, "Invalid parameters for filesystem cloud ID save");
    return false;
  }
  const Text path = compose_path();
  if (!path) return false;
  const File file = file_open(path.get(), O_WRONLY | O_CREAT | O_TRUNC | NEVER_WAIT, "w");
  if (!file) {
    log_message(LOG_ERROR, "Failed to open %s for writing: %s", path.get(), strerror(errno));
    return false;
  }
  if (fprintf(file.get(), "%s\n", id) < 0) {
    log_message(LOG_ERROR, "Failed to write cloud ID to %s: %s", path.get(), strerror(errno));
    return false;
  }
  // Down to the disk: after a power cut the device would otherwise ask for another identity.
  if (fflush(file.get()) != 0 || !sync_to_disk(fileno(file.get())) || !sync_directory()) {
    log_message(LOG_ERROR, "Failed to flush cloud ID to %s: %s", path.get(), strerror(errno));
    return false;
  }
  log_message(LOG_DEBUG, "Saved cloud ID to %s", path.get());
  return true;
}
