#include "core/agent.h"

#include "core/config.h"
#include "core/context.h"
#include "core/log.h"
#include "core/proxy.h"
#include "core/signals.h"
#include "core/workers.h"
#include "stream/stream_thread.h"
#include "web/http_server.h"

static constexpr int RUN_LOOP_STEP = 1;  // seconds

static bool start_threads(const AgentConfig &config) {
  for (size_t i = 0; i < config.stream_count; i++) {
    if (stream_start(proxy_context.streams[i])) continue;
    log_message(LOG_ERROR, "Failed to start stream");
    return false;
  }
  if (config.http_enabled && !http_server_start(config.http_port)) {
    log_message(LOG_ERROR, "Failed to start web server");
    return false;
  }
  return true;
}

int agent_main(int argc, char **argv) {
  AgentConfig config = {};
  context_reset();
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

  const bool started = start_threads(config);
  while (started && agent_running())
    main_pause(RUN_LOOP_STEP);

  proxy_cleanup();
  config_free(&config);
  return started ? 0 : 1;
}
