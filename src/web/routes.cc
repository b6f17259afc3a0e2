#include "web/routes.h"

#include "core/context.h"
#include "core/log.h"
#include "web/channels_api.h"
#include "web/http_server.h"
#include "web/pages.h"

// One of the two handlers of "/streams", chosen once.
static bool register_streams_route() {
  const bool legacy = proxy_context.config.legacy_add;
  if (http_register_handler("/streams", "streams-link", true,
                            legacy ? handle_streams_page : handle_redirect_page)) {
    return true;
  }
  log_message(
      LOG_ERROR, "%s",
      legacy ? "Failed to register streams handler" : "Failed to register Add Camera handler");
  return false;
}

// The order is that of the home page's links. Each route has its own message, by which a log from a
// device tells how far the start came.
bool register_routes() {
  if (!http_register_handler("/", "home-link", false, handle_home_page)) {
    log_message(LOG_ERROR, "Failed to register root handler");
    return false;
  }
  if (!http_register_handler("/api/channels", "api-channels", false, handle_channels_api)) {
    log_message(LOG_ERROR, "Failed to register JSON data handler");
    return false;
  }
  if (!register_streams_route()) return false;
  if (!http_register_handler("/cloudid", "cloud-link", true, handle_cloud_id_page)) {
    log_message(LOG_ERROR, "Failed to register cloud id handler");
    return false;
  }
  if (!http_register_handler("/stats", "stats-link", true, handle_stats_page)) {
    log_message(LOG_ERROR, "Failed to register stats handler");
    return false;
  }
  return true;
}
