// The status file: one byte, "1" when at least one stream is registered or streaming, else "0",
// for other programs on the device. Written only when the configuration enables it. Any thread.
#pragma once

#include "core/lock.h"
#include "monitor/monitor.h"

// Rewrites the file in place. A file that cannot be opened, written or closed is logged and is no
// failure; false on lock failures only.
bool monitor_write_status_file() EXCLUDES_LOCK(monitor.lock);

// Deletes the file; false (logged) when that fails, or when it is not a regular file.
bool monitor_remove_status_file();
