#include "core/owners.h"

#include <fcntl.h>

static constexpr mode_t EVERYBODY = 0666;  // read and write

File file_open(const char *path, int flags, const char *mode) {
  Fd opened(open(path, flags, EVERYBODY));
  if (!opened) return nullptr;
  File file(fdopen(opened.get(), mode));
  if (file) (void)opened.release();  // the file closes it
  return file;
}
