// The command line as one record. Filled once on the main thread, before any other thread exists,
// and not changed afterwards but for cloud_id, which start-up sets.
#pragma once

#include <stddef.h>
#include <stdint.h>

#include <type_traits>

// The most streams after expansion, the most stream options, and the size of the monitor.
inline constexpr size_t MAX_STREAMS = 64;

// Texts are heap copies owned by the record, released by config_free alone; flags hold 0 or 1.
struct AgentConfig {
  char *api_server;   // owned; address of the balancer, dotted IPv4
  uint16_t api_port;  // TCP port of the balancer
  char *vendor;       // owned
  char *model;        // owned
  char *config_dir;   // owned; one trailing slash removed
  uint8_t debug;
  uint8_t http_enabled;
  uint16_t http_port;
  char **stream_urls;     // owned, MAX_STREAMS slots; entry i is stream number i + 1
  size_t stream_count;    // slots in use
  uint8_t group_streams;  // stream options are taken in pairs
  char *cloud_id;         // owned; none until start-up
  uint8_t require_auth;
  uint8_t legacy_add;
  uint8_t status_file_enabled;
  char *status_file_path;  // owned; set when status_file_enabled is
};

// The process context keeps a shallow copy, and the record is reset by plain assignment.
static_assert(std::is_trivially_copyable_v<AgentConfig>);

// Fills the record from the arguments. On false (logged) the record has been released already.
// Switches logging on first of all when debug mode is asked for.
[[nodiscard]] bool config_load(int argc, char **argv, AgentConfig *config);

// Releases every owned text and resets the record to zeros; none is ignored.
void config_free(AgentConfig *config);
