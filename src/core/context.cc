#include "core/context.h"

ProxyContext proxy_context;

// Field by field, since a flag cannot be assigned as memory.
void context_reset() {
  proxy_context.config = {};
  proxy_context.streams = nullptr;
  proxy_context.stream_count = 0;
  proxy_context.running = false;
  proxy_context.cloud_server = nullptr;
  proxy_context.cloud_port = 0;
}
