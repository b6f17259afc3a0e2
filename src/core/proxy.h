// Start-up and tear-down: from a loaded configuration to everything that the threads share,
// and back. Main thread; starts no thread.
#pragma once

#include "core/config.h"

// Fills the process context, creates the monitor, obtains the cloud ID and the cloud streaming
// server (waiting for the balancer as long as it takes, or until `running` is cleared) and
// prepares one stream record per stream. Sets the cloud ID in `config` too. On false (logged) the
// work has been undone, but for the cloud ID copies and `running`.
[[nodiscard]] bool proxy_init(AgentConfig *config);

// Stops the HTTP server and every worker thread, releases the stream records and destroys the
// monitor. Once, after proxy_init succeeded.
void proxy_cleanup();
