#include "core/agent.h"

#include <errno.h>
#include <fcntl.h>
#include <unistd.h>

#include "core/config.h"
#include "core/context.h"
#include "core/heap.h"
#include "core/log.h"
#include "core/proxy.h"
#include "core/signals.h"
#include "core/workers.h"
#include "stream/stream_thread.h"
#include "web/http_server.h"
#include "web/routes.h"

// A stop signal ends the wait at once, and nothing else ends the loop: a device sleeps meanwhile.
static constexpr int RUN_LOOP_STEP_S = 3600;

// Whoever started the agent may have closed them. The next file or socket would then get the number
// of standard error, and the log, with the camera's password in it, would go there: into the stored
// cloud ID, or to the cloud. False when a descriptor cannot be had.
static bool open_standard_descriptors() {
  for (int number = STDIN_FILENO; number <= STDERR_FILENO; number++) {
    if (fcntl(number, F_GETFD) >= 0 || errno != EBADF) continue;
    // The lowest free number is this one. A directory serves where there are no devices: nothing
    // can be written to it.
    if (open("/dev/null", O_RDWR) < 0 && open("/", O_RDONLY | O_DIRECTORY) < 0) return false;
  }
  return true;
}

// Streams before the web server: its pages then show what they do. The first failure ends the
// start.
static bool start_threads(const AgentConfig &config) {
  for (size_t i = 0; i < config.stream_count; i++) {
    if (stream_start(proxy_context.streams[i])) continue;
    log_message(LOG_ERROR, "Failed to start stream");
    return false;
  }
  if (config.http_enabled && !http_server_start(config.http_port, register_routes)) {
    log_message(LOG_ERROR, "Failed to start web server");
    return false;
  }
  return true;
}

int agent_main(int argc, char **argv) {
  AgentConfig config = {};
  context_reset();
  if (!open_standard_descriptors()) return 1;
  heap_open();
  workers_open();
  signals_install();

  if (!config_load(argc, argv, &config)) {
    log_message(LOG_ERROR, "Failed to load configuration");
    return 1;
  }
  if (!proxy_init(&config)) {
    log_message(LOG_ERROR, "Failed to initialize proxy");
    config_free(&config);
    return 1;
  }

  // From here on a failure, too, takes the way of an ordinary stop.
  const bool started = start_threads(config);
  if (started) workers_release();
  while (started && agent_running())
    main_pause(RUN_LOOP_STEP_S);

  proxy_cleanup();
  config_free(&config);
  return started ? 0 : 1;
}
