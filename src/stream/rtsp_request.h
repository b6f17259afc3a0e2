// The RTSP texts that the agent itself composes or reads: the probe, the rewritten OPTIONS request
// and the status line of an answer. Pure but for the log. Stream threads.
#pragma once

#include <stddef.h>

#include "stream/stream_context.h"

// The probe request, without credentials. Its length, or -1 when it needs `size` bytes or more.
[[nodiscard]] int rtsp_compose_probe(const StreamContext *stream, char *out, size_t size);

// The cloud's OPTIONS request (terminated) with the camera's own URL and credentials in its request
// line; from its first "CSeq:" on it is copied unchanged. The length of the text in `out` without
// the terminator, or -1 (logged).
[[nodiscard]] int rtsp_rewrite_options(const char *request, const StreamContext *stream, char *out,
                                       size_t out_size);

// True when the answer (terminated) begins with an RTSP/1.0 status line; *code is its number.
[[nodiscard]] bool rtsp_parse_status(const char *answer, int *code);
