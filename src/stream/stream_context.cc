#include "stream/stream_context.h"

#include <stdlib.h>

#include "core/context.h"
#include "core/text.h"

StreamContext *stream_context_create() {
  return static_cast<StreamContext *>(calloc(1, sizeof(StreamContext)));
}

void stream_context_free(StreamContext *stream) {
  if (!stream) return;
  text_release(&stream->uri);
  text_release(&stream->host);
  text_release(&stream->user);
  text_release(&stream->password);
  free(stream->monitor_snapshot);
  free(stream);
}

void stream_report_error(const StreamContext *stream, int32_t code, const char *message) {
  if (agent_running()) monitor_update_error(stream->stream_id, code, message);
}
