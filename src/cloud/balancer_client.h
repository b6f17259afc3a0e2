// The two questions to the cloud's directory service (the balancer): which cloud ID a new device
// gets, and which cloud streaming server serves it. Main thread, during start-up.
//
// Both keep trying, with pauses of 1, 2, 4, ... 60 seconds, until they succeed (true) or `running`
// is cleared or a local error is fatal (false). Each attempt has a connection of its own. Once
// `running` is clear, an attempt goes on for 2 seconds at the most; one that succeeds still counts.
#pragma once

#include "cloud/balancer_reply.h"
#include "core/owners.h"

// A new ID in *id; none on false.
[[nodiscard]] bool fetch_cloud_id(Text *id);

// The server in *info, whose earlier content is released; none and 0 on false.
[[nodiscard]] bool resolve_cloud_server(const char *cloud_id, CloudServerInfo *info);
