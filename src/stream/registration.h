// The cloud control protocol up to the start of a relay: registration, keepalives, and the OPTIONS
// request by which the cloud asks for the stream. Stream threads.
#pragma once

#include <stddef.h>

#include "stream/stream_context.h"

// Sends the registration message with one call. False (logged) when it is too long or not taken
// whole.
[[nodiscard]] bool cloud_send_register(int socket, const StreamContext *stream);

// Registers, then answers keepalives until the cloud's OPTIONS request is in `buffer`, terminated.
// Its length, or -1 (logged) when the connection is of no more use or the agent stops. What the
// stream's buffers held before is lost.
[[nodiscard]] int cloud_wait_for_options(int socket, const StreamContext *stream, char *buffer,
                                         size_t size);
