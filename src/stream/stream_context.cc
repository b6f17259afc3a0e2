#include "stream/stream_context.h"

#include <stdlib.h>
#include <sys/mman.h>

#include "core/context.h"
#include "core/text.h"

// Mapped, not allocated, so that whole pages belong to the buffers and can be given back. A page
// costs nothing until it is written.
static StreamBuffers *map_buffers() {
  void *memory = mmap(nullptr, sizeof(StreamBuffers), PROT_READ | PROT_WRITE,
                      MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
  return memory == MAP_FAILED ? nullptr : static_cast<StreamBuffers *>(memory);
}

StreamContext *stream_context_create() {
  auto *stream = static_cast<StreamContext *>(calloc(1, sizeof(StreamContext)));
  if (!stream) return nullptr;
  stream->buffers = map_buffers();
  if (stream->buffers) return stream;
  free(stream);
  return nullptr;
}

void stream_context_free(StreamContext *stream) {
  if (!stream) return;
  text_release(&stream->uri);
  text_release(&stream->host);
  text_release(&stream->user);
  text_release(&stream->password);
  free(stream->monitor_snapshot);
  munmap(stream->buffers, sizeof *stream->buffers);
  free(stream);
}

void stream_forget_buffers(const StreamContext *stream) {
  // Private pages without a file come back filled with zeros. Should it fail, they merely stay.
  madvise(stream->buffers, sizeof *stream->buffers, MADV_DONTNEED);
}

void stream_report_error(const StreamContext *stream, int32_t code, const char *message) {
  if (agent_running()) monitor_update_error(stream->stream_id, code, message);
}
