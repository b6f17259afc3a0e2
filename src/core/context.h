// The one process-wide record through which every subsystem reads the settings and the values that
// start-up resolved. The main thread writes all of it before any other thread exists; afterwards
// only `running` changes.
#pragma once

#include <stddef.h>
#include <stdint.h>

#include "core/atomic_flag.h"
#include "core/config.h"

struct StreamContext;

struct ProxyContext {
  AgentConfig config;       // a copy whose texts belong to main's record, but for cloud_id: owned
  StreamContext **streams;  // owned, stream_count slots, each owned; in stream order
  size_t stream_count;      // 0 when there is no array
  // 1 while the agent runs. Cleared by the signal handler and by tear-down, polled by every thread.
  AtomicFlag running;
  char *cloud_server;  // owned; host of the cloud streaming server
  uint16_t cloud_port;
};

extern ProxyContext proxy_context;

// Empties the record (releasing nothing): the state of a process that has just started.
void context_reset();

[[nodiscard]] inline bool agent_running() {
  return proxy_context.running;
}
