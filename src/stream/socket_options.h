// Time-outs and keep-alive of every connection of the stream proxy. Stream threads.
#pragma once

// Sets both time-outs (whole seconds; the send time-out also bounds a blocking connect) and, when
// asked for, TCP keep-alive. False (logged, errno kept) when a time-out cannot be set; a failed
// keep-alive setting is only logged.
[[nodiscard]] bool socket_set_options(int socket, int receive_timeout_s, int send_timeout_s,
                                      bool keepalive);

// Sends small writes at once: with delayed acknowledgements on the far side, waiting for a full
// segment would hold live video back by tens of milliseconds. A failure only costs latency and is
// logged.
void socket_set_no_delay(int socket);
