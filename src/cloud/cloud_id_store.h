// The device's cloud ID on disk: the file cloud.id of the configuration directory. Main thread,
// during start-up.
#pragma once

#include "core/owners.h"

inline constexpr char CLOUD_ID_FILE[] = "cloud.id";

// The stored ID in *id. False, with none in *id, when there is no file (the normal first start,
// not logged), or when it cannot be read or holds no ID of 8 to 50 bytes (logged).
[[nodiscard]] bool read_cloud_id_file(Text *id);

// Writes the ID and a line feed, so that they survive a power cut right afterwards. False (logged)
// when they cannot be written, flushed and synced.
[[nodiscard]] bool save_cloud_id_file(const char *id);
