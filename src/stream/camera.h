// Everything that the stream subsystem says to the camera in RTSP before a relay: the probe, the
// connection, and the OPTIONS handshake on the cloud's behalf. Stream threads; each uses its own
// record and sockets only.
#pragma once

#include "core/workers.h"
#include "stream/stream_context.h"

// True when the camera answers the probe with "RTSP/1.0 200 OK" within the time-outs of 2 s. What
// came is left, terminated, at the start of the stream's camera buffer: after false an empty text,
// if the buffer was one before, or the unsent request mean that nothing came, and errno is why (as
// it was before when the camera has closed).
[[nodiscard]] bool stream_check(const StreamContext *stream);

// A connected camera socket, or none after the failure has been reported to the monitor.
[[nodiscard]] WorkerSocket camera_connect(const StreamContext *stream);

// Sends the cloud's OPTIONS request (terminated), rewritten, to the camera and the camera's 200
// answer unchanged to the cloud. False after the failure has been reported to the monitor.
[[nodiscard]] bool rtsp_handshake(int cloud_fd, int camera_fd, const char *request,
                                  const StreamContext *stream);
